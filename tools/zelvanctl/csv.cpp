#include "zelvanctl/csv.h"

#include <algorithm>

namespace zelvan::ctl {
namespace {

class Parser {
 public:
  explicit Parser(std::string_view text) : rest_(text) {
    if (rest_.starts_with("\xEF\xBB\xBF")) rest_.remove_prefix(3);
  }

  std::vector<CsvLine> parse() {
    std::vector<CsvLine> lines;
    while (!rest_.empty()) {
      CsvLine line = take_line();
      const bool blank = line.fields.size() == 1 && line.fields[0].empty() && line.problem.empty();
      if (!blank) lines.push_back(std::move(line));
    }
    return lines;
  }

 private:
  CsvLine take_line() {
    CsvLine line;
    line.number = line_number_;
    do {
      line.fields.push_back(take_field(line.problem));
    } while (take(','));
    if (!at_line_end()) {
      line.problem = "something follows a closing quote";
      rest_.remove_prefix(std::min(rest_.find('\n'), rest_.size()));
    }
    take('\r');
    if (take('\n')) ++line_number_;
    return line;
  }

  std::string take_field(std::string& problem) {
    if (take('"')) return take_quoted(problem);
    const std::size_t length = std::min(rest_.find_first_of(",\n"), rest_.size());
    std::string_view field = rest_.substr(0, length);
    rest_.remove_prefix(length);
    if (at_line_end() && field.ends_with('\r')) field.remove_suffix(1);
    if (field.find('"') != field.npos) problem = "a quote within a field that is not quoted";
    return std::string(field);
  }

  std::string take_quoted(std::string& problem) {
    std::string field;
    while (!rest_.empty()) {
      if (take('"')) {
        if (!take('"')) return field;
        field += '"';
        continue;
      }
      if (rest_.front() == '\n') ++line_number_;
      field += rest_.front();
      rest_.remove_prefix(1);
    }
    problem = "the closing quote is missing";
    return field;
  }

  bool take(char c) {
    if (rest_.empty() || rest_.front() != c) return false;
    rest_.remove_prefix(1);
    return true;
  }

  [[nodiscard]] bool at_line_end() const {
    return rest_.empty() || rest_.front() == '\n' || rest_.starts_with("\r\n") || rest_ == "\r";
  }

  std::string_view rest_;
  std::size_t line_number_ = 1;
};

}  // namespace

std::vector<CsvLine> parse_csv(std::string_view text) { return Parser(text).parse(); }

std::string csv_field(std::string_view text) {
  if (text.find_first_of(",\"\r\n") == text.npos) return std::string(text);
  std::string field = "\"";
  for (const char c : text) {
    if (c == '"') field += '"';
    field += c;
  }
  return field + '"';
}

std::string csv_line(const std::vector<std::string>& fields) {
  std::string line;
  for (std::size_t i = 0; i < fields.size(); ++i) {
    if (i > 0) line += ',';
    line += csv_field(fields[i]);
  }
  return line + "\n";
}

}  // namespace zelvan::ctl
