// Tables for people: columns as wide as their longest text.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zelvan::ctl {

// Returns the number of terminal columns of UTF-8 text, one for each character.
std::size_t display_width(std::string_view text);

// Returns the text with everything that could steer a terminal replaced by "?": control characters, and bytes that are
// no UTF-8.  What comes from the database or the log goes through here before a person sees it.
std::string printable(std::string_view text);

class Table {
 public:
  enum class Align { left, right };
  struct Column {
    std::string title;
    Align align = Align::left;
  };

  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  // Adds a row; missing cells are empty, further ones are dropped.
  void add(std::vector<std::string> cells);

  [[nodiscard]] bool empty() const { return rows_.empty(); }

  // Returns the table: a line of titles and a line for each row, two blanks between columns, none at the end.
  //   bold_titles  puts the titles in bold letters (ANSI)
  [[nodiscard]] std::string text(bool bold_titles = false) const;

 private:
  [[nodiscard]] std::vector<std::size_t> widths() const;

  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;  // as many cells as columns
};

}  // namespace zelvan::ctl
