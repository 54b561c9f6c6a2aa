// The lines of a settings file with their numbers, taken apart as the server does, and what the server makes of them.
//
// The server keeps no line numbers and drops what it cannot use; a check has to tell both.
//
// Memory  Values may be secrets: they are wiped when the lines go.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zelvan::ctl {

// The longest line that the server reads in one piece, in bytes, with its line feed.
inline constexpr std::size_t kConfigLineLimit = 1022;

struct ConfigLine {
  enum class Kind { blank, comment, section, item };

  std::size_t number = 0;  // from 1
  Kind kind = Kind::blank;
  std::string section;           // the section that is open; of a section line its own name
  std::string key;               // of an item: as written, without leading blanks
  std::string value;             // of an item; may be secret
  bool in_section = false;       // false: the server drops the line
  bool has_equals = false;       // of an item: there is a "="
  bool indented = false;         // of an item: begins with a blank, so that no lookup finds it
  bool closed = true;            // of a section: there is a "]"
  bool text_behind = false;      // of a section: there is text behind the "]"
  bool header_comment = false;   // of a comment: stands before all other content
  bool continues = false;        // what is left of a line that is longer than the limit
  bool has_nul = false;          // the server reads the line up to the NUL byte only
  bool carriage_return = false;  // ends with CR LF
};

class ConfigLines {
 public:
  // Takes the bytes of a settings file apart.
  explicit ConfigLines(std::string_view text);
  ~ConfigLines();
  ConfigLines(const ConfigLines&) = delete;
  ConfigLines& operator=(const ConfigLines&) = delete;

  [[nodiscard]] const std::vector<ConfigLine>& all() const { return lines_; }

  // True when the file begins with the byte order mark of UTF-8, which makes its first line something else.
  [[nodiscard]] bool byte_order_mark() const { return byte_order_mark_; }

  // Returns the line that a lookup finds: the first of that key in the sections of that name; null when there is none.
  [[nodiscard]] const ConfigLine* find(std::string_view section, std::string_view key) const;

 private:
  void take(std::string_view piece, std::size_t number, bool continues);
  void take_section(std::string_view piece, ConfigLine& line);
  void take_item(std::string_view piece, ConfigLine& line);

  std::vector<ConfigLine> lines_;
  std::string section_;      // that is open
  bool header_open_ = true;  // nothing but comments and blank lines so far
  bool byte_order_mark_ = false;
};

// Returns what an edit of the file would lose or change besides the edit, a sentence for each line: the server's own
// writer keeps no blank lines, for example.
std::vector<std::string> edit_losses(const ConfigLines& lines);

// Returns why the file cannot be edited without harm; empty when it can.
std::string edit_obstacle(const ConfigLines& lines);

}  // namespace zelvan::ctl
