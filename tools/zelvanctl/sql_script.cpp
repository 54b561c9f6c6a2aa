#include "zelvanctl/sql_script.h"

#include <algorithm>
#include <cctype>

namespace zelvan::ctl {
namespace {

bool is_word(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; }

class Splitter {
 public:
  explicit Splitter(std::string_view script) : rest_(script) {}

  std::vector<std::string> split() {
    while (!rest_.empty()) take_next();
    finish_statement();
    return std::move(statements_);
  }

 private:
  void take_next() {
    const char c = rest_.front();
    if (rest_.starts_with("--")) {
      skip_to("\n", 0);
    } else if (rest_.starts_with("/*")) {
      skip_to("*/", 2);
      current_ += ' ';
    } else if (c == '\'' || c == '"' || c == '`') {
      keep_to(std::string(1, c), 1);
    } else if (c == '$' && dollar_tag() > 0) {
      const std::string tag(rest_.substr(0, dollar_tag()));
      keep_to(tag, tag.size());
    } else if (is_word(c)) {
      take_word();
    } else {
      take_sign();
    }
  }

  void take_sign() {
    const bool ends = rest_.starts_with(end_) && !inside_trigger_body();
    if (ends) finish_statement();
    if (!ends) current_ += rest_.front();
    rest_.remove_prefix(ends ? end_.size() : 1);
  }

  // "delimiter X", a command of MariaDB's shell: X ends the statements from the next line on.
  void take_delimiter() {
    const std::string_view line = rest_.substr(0, rest_.find('\n'));
    rest_.remove_prefix(line.size());
    const auto first = line.find_first_not_of(" \t\r");
    if (first != line.npos) end_ = line.substr(first, line.find_last_not_of(" \t\r") + 1 - first);
    current_.clear();
  }

  // Throws away everything up to `end`, and `more` characters of it.
  void skip_to(std::string_view end, std::size_t more) {
    const auto at = rest_.find(end, more);
    rest_ = at == rest_.npos ? std::string_view{} : rest_.substr(at + more);
  }

  // Keeps everything up to and with `end`, looked for from character `from` on.
  void keep_to(const std::string& end, std::size_t from) {
    const auto at = rest_.find(end, from);
    const std::size_t length = at == rest_.npos ? rest_.size() : at + end.size();
    current_ += rest_.substr(0, length);
    rest_.remove_prefix(length);
  }

  // The length of a "$tag$" that begins here, or 0.
  [[nodiscard]] std::size_t dollar_tag() const {
    std::size_t length = 1;
    while (length < rest_.size() && is_word(rest_[length])) ++length;
    return length < rest_.size() && rest_[length] == '$' ? length + 1 : 0;
  }

  void take_word() {
    const auto end = std::ranges::find_if_not(rest_, is_word);
    std::string word(rest_.begin(), end);
    rest_.remove_prefix(word.size());
    const bool first = current_.find_first_not_of(" \t\r\n") == current_.npos;
    current_ += word;
    std::ranges::transform(word, word.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (first && word == "delimiter") return take_delimiter();
    if (word == "trigger") trigger_ = true;
    if (word == "begin" || word == "case") ++depth_;
    if (word == "end" && depth_ > 0) --depth_;
  }

  // Another end than ";" is chosen so that a body needs no counting.
  [[nodiscard]] bool inside_trigger_body() const { return end_ == ";" && trigger_ && depth_ > 0; }

  void finish_statement() {
    const auto first = current_.find_first_not_of(" \t\r\n");
    if (first != std::string::npos) {
      statements_.push_back(current_.substr(first, current_.find_last_not_of(" \t\r\n") + 1 - first));
    }
    current_.clear();
    trigger_ = false;
    depth_ = 0;
  }

  std::string_view rest_;
  std::string_view end_ = ";";  // what ends a statement
  std::string current_;
  std::vector<std::string> statements_;
  bool trigger_ = false;  // the current statement creates a trigger
  int depth_ = 0;         // open "begin" and "case" of the current statement
};

}  // namespace

std::vector<std::string> split_statements(std::string_view script) { return Splitter(script).split(); }

}  // namespace zelvan::ctl
