// Where a command's results go: tables and sentences for people, JSON for scripts.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "zelvanctl/table.h"

namespace zelvan::ctl {

using Json = nlohmann::ordered_json;

// Colours of single words.
enum class Colour { none, red, yellow, green };

class Output {
 public:
  // Looks at the terminal once.
  Output();

  void set_json(bool json) { json_ = json; }
  [[nodiscard]] bool json() const { return json_; }

  // Writes the result of a command to standard output: `value` for scripts, `text` for people.
  void result(const Json& value, const std::string& text) const;
  void result(const Json& value, const Table& table, const std::string& when_empty) const;

  // Writes one JSON value on a line of its own; for results without an end.
  void json_line(const Json& value) const;

  // Writes to standard output for people only; with JSON nothing.
  void say(const std::string& text) const;

  // Writes a remark to standard error.
  void warn(const std::string& text) const;

  // Reports how the command failed, to standard error.
  void failure(const std::string& text, int exit_code) const;

  // Returns the word in a colour, if standard output shows colours.
  [[nodiscard]] std::string coloured(std::string_view word, Colour colour) const;

 private:
  bool json_ = false;
  bool colours_;        // of standard output
  bool error_colours_;  // of standard error
};

// Returns the JSON text of a value; bytes that are no UTF-8 are replaced.
std::string json_text(const Json& value, int indent);

}  // namespace zelvan::ctl
