// The columns of users and tokens: what the server takes, and the words for what it does not.
//
// Each function returns why a value cannot be used, or an empty text when it can.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zelvan::ctl {

// Limits in bytes; the server reads no more.
inline constexpr std::size_t kUserNameLimit = 19;
inline constexpr std::size_t kSerialLimit = 28;
inline constexpr std::size_t kKeyLimit = 54;
inline constexpr std::size_t kPinLimit = 18;
inline constexpr std::size_t kMailLimit = 55;
inline constexpr int kDigitsLeast = 6;
inline constexpr int kDigitsMost = 10;

enum TokenType : int { kEventToken = 1, kTimeToken = 2, kChallengeToken = 3 };

// Values of authtype that make a difference.
enum AuthType : int { kCodeOnly = 1, kCodeAndPin = 2 };

std::string user_name_problem(std::string_view name);
std::string serial_problem(std::string_view serial);
std::string key_problem(std::string_view key);
std::string pin_problem(std::string_view pin);
std::string mail_problem(std::string_view mail);
std::string digits_problem(std::int64_t digits);
std::string window_problem(std::int64_t window);
std::string step_problem(std::int64_t step);

// Returns the word for a token type, "event", "time" or "challenge"; the number for any other.
std::string token_type_word(std::int64_t type);

// Returns the token type of a word or of its number; 0 when it is none.
int parse_token_type(std::string_view word);

// Throws Failure (kUsage) with "what: problem" unless the problem is empty.
void require(std::string_view what, const std::string& problem);

}  // namespace zelvan::ctl
