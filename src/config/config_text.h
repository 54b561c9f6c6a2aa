// The settings file as it stands in memory, and the rules that turn its lines into it.
//
//   ; a comment in the first column
//   [section]
//   key=value
//
// Nothing is trimmed, sorted, merged or unescaped: what a line holds is what a lookup finds.
//
// Threads  No shared state: one builder belongs to one thread.
// Memory   Owns its strings; they are as long as the file makes them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zelvan {

// The key under which a comment line is kept as an item; its value is the whole line with its terminator.
inline constexpr const char* kCommentKey = "comment_t";

struct ConfigItem {
  std::string key;    // as written, blanks included; empty for an indented line; kCommentKey for a comment line
  std::string value;  // as written after the first "=", blanks included, without the line terminator
};

struct ConfigSection {
  std::string name;               // as written between the brackets; never empty
  std::vector<ConfigItem> items;  // in line order; keys may occur more than once
};

struct ConfigText {
  std::string header_comment;           // the comment lines before any other content, each with its terminator
  std::vector<ConfigSection> sections;  // in file order; names may occur more than once
};

// Returns the name in a section line: the text between its "[" and the first "]".  Without a "]" the name runs to the
// end of the line.
//   line  a line that begins with "["; with or without its terminator
std::string_view parse_section_name(std::string_view line);

// Returns the key and value of a key line, or nothing when the line is empty behind its leading blanks (0x20 only).
// Without a "=" the whole line is the key and the value is empty.
//   line  with or without its terminator
std::optional<ConfigItem> parse_item(std::string_view line);

// Returns the text of a settings file that holds `text`: what reading it again gives the same, but for blank lines and
// indented keys.  Nothing is escaped: a value with a line feed would become two lines.
std::string write_config_text(const ConfigText& text);

// Overwrites all values, which may be passwords and shared secrets, with zeroes.
void wipe_values(ConfigText& text);

// Appends the lines of one file to a ConfigText.
class ConfigTextBuilder {
 public:
  // Starts outside any section, with the header comment still open.
  //   text  must outlive the builder; what it holds stays
  explicit ConfigTextBuilder(ConfigText& text) : text_(text) {}

  // Takes the next line, by its first byte: "[" section, ";" comment, CR or LF blank line, anything else an item.
  //   line  with its terminator, if it has one; ends before any NUL byte of the file
  void take_line(std::string_view line);

  // Keeps the section that was open at the end of the file.  Call it once, after the last line.
  void finish();

 private:
  void open_section(std::string_view name);
  void take_comment(std::string_view line);

  ConfigText& text_;
  ConfigSection current_;    // the section being read; no name: its items are dropped
  bool header_open_ = true;  // nothing but comments and blank lines so far
};

}  // namespace zelvan
