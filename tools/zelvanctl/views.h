// Users and tokens as people and scripts see them.
#pragma once

#include <ctime>
#include <string>

#include "zelvanctl/next_attempt.h"
#include "zelvanctl/output.h"
#include "zelvanctl/records.h"

namespace zelvan::ctl {

// Returns "active", "locked", "lock expired" or "disabled".
std::string state_word(const User& user, std::time_t now);

// Returns a time with its distance: "2026-03-05 17:04:09 (2 hours ago)"; "never" for NULL.
std::string time_words(const std::optional<std::string>& text, std::time_t now);

// Returns a token in a few words: "time, 6 digits every 30 s, window 10".
std::string token_words(const Token& token);

// The fields of a user and a token; keys and PINs only with `secrets`.
Json user_json(const User& user, std::time_t now, bool secrets);
Json token_json(const Token& token, bool secrets);
Json attempt_json(const NextAttempt& next);

// Lines of a title and a value, the values below each other.
class Sheet {
 public:
  void add(const std::string& title, const std::string& value);
  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  std::string text_;
};

// Adds what `token show` tells.
void add_token_lines(Sheet& sheet, const Token& token, std::time_t now, bool secrets);

}  // namespace zelvan::ctl
