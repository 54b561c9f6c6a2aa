#include "zelvanctl/output.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "zelvanctl/failure.h"
#include "zelvanctl/terminal.h"

namespace zelvan::ctl {
namespace {

constexpr std::string_view code_of(Colour colour) {
  switch (colour) {
    case Colour::red:
      return "\x1b[31m";
    case Colour::yellow:
      return "\x1b[33m";
    case Colour::green:
      return "\x1b[32m";
    case Colour::none:
      break;
  }
  return "";
}

std::string painted(std::string_view word, Colour colour, bool colours) {
  if (!colours || colour == Colour::none) return std::string(word);
  return std::string(code_of(colour)) + std::string(word) + "\x1b[0m";
}

// What the database says may hold bytes that a terminal would obey; a message may have several lines.
std::string printable_lines(std::string_view text) {
  std::string lines;
  for (std::size_t start = 0; start <= text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    lines += (start > 0 ? "\n" : "") + printable(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// A result that cannot be written (a full disk, a closed pipe) is no success.
void write_out(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
    throw Failure(kFailed, "cannot write to standard output");
  }
}

}  // namespace

std::string json_text(const Json& value, int indent) {
  return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

Output::Output() : colours_(colours_wanted(STDOUT_FILENO)), error_colours_(colours_wanted(STDERR_FILENO)) {}

void Output::result(const Json& value, const std::string& text) const {
  write_out(json_ ? json_text(value, 2) + "\n" : text);
}

void Output::result(const Json& value, const Table& table, const std::string& when_empty) const {
  result(value, table.empty() ? when_empty + "\n" : table.text(colours_));
}

void Output::json_line(const Json& value) const { write_out(json_text(value, -1) + "\n"); }

void Output::say(const std::string& text) const {
  if (!json_) write_out(text + "\n");
}

void Output::warn(const std::string& text) const {
  const std::string line = json_ ? json_text({{"warning", text}}, -1) + "\n"
                                 : painted("warning:", Colour::yellow, error_colours_) + " " + printable(text) + "\n";
  std::fputs(line.c_str(), stderr);
}

void Output::failure(const std::string& text, int exit_code) const {
  std::string lines;
  if (json_) {
    lines = json_text({{"error", text}, {"exit_code", exit_code}}, -1);
  } else {
    lines = painted("zelvanctl:", Colour::red, error_colours_) + " " + printable_lines(text);
  }
  std::fputs((lines + "\n").c_str(), stderr);
}

std::string Output::coloured(std::string_view word, Colour colour) const { return painted(word, colour, colours_); }

}  // namespace zelvan::ctl
