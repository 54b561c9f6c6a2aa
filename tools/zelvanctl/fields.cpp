#include "zelvanctl/fields.h"

#include <fmt/core.h>

#include <limits>

#include "zelvanctl/failure.h"
#include "zelvanctl/table.h"

namespace zelvan::ctl {
namespace {

constexpr std::int64_t kIntMost = std::numeric_limits<std::int32_t>::max();

// What every text must keep to.
std::string text_problem(std::string_view text, std::size_t least, std::size_t limit) {
  if (text.size() < least) return "is empty";
  if (text.size() > limit) return fmt::format("has {} bytes; the server reads {} at most", text.size(), limit);
  if (printable(text) != text) return "holds a control character or bytes that are no UTF-8";
  return {};
}

bool has_outer_blank(std::string_view text) { return !text.empty() && (text.front() == ' ' || text.back() == ' '); }

}  // namespace

std::string user_name_problem(std::string_view name) {
  if (auto problem = text_problem(name, 1, kUserNameLimit); !problem.empty()) return problem;
  return has_outer_blank(name) ? "begins or ends with a blank" : "";
}

std::string serial_problem(std::string_view serial) {
  if (auto problem = text_problem(serial, 1, kSerialLimit); !problem.empty()) return problem;
  return has_outer_blank(serial) ? "begins or ends with a blank" : "";
}

std::string key_problem(std::string_view key) {
  if (auto problem = text_problem(key, 1, kKeyLimit); !problem.empty()) return problem;
  // RFC 4226 section 4: a key has at least 128 bits, and no character carries more than 8.
  return key.size() < 16 ? fmt::format("has {} characters; fewer than 16 cannot carry 128 bits", key.size()) : "";
}

std::string pin_problem(std::string_view pin) { return text_problem(pin, 1, kPinLimit); }

std::string mail_problem(std::string_view mail) {
  if (mail.empty()) return {};
  if (auto problem = text_problem(mail, 0, kMailLimit); !problem.empty()) return problem;
  const auto at = mail.find('@');
  const bool good = at != mail.npos && at > 0 && at + 1 < mail.size() && mail.find_first_of(" <>,;\"") == mail.npos;
  return good ? "" : "is no mail address";
}

std::string digits_problem(std::int64_t digits) {
  if (digits >= kDigitsLeast && digits <= kDigitsMost) return {};
  return fmt::format("is {}; the server makes codes of {} to {} digits", digits, kDigitsLeast, kDigitsMost);
}

std::string window_problem(std::int64_t window) {
  if (window < 1) return fmt::format("is {}; below 1 every code is refused", window);
  return window > kIntMost ? fmt::format("is {}; the server reads at most {}", window, kIntMost) : "";
}

std::string step_problem(std::int64_t step) {
  if (step < 1) return fmt::format("is {}; a time-stepped token needs at least 1 second", step);
  return step > kIntMost ? fmt::format("is {}; the server reads at most {}", step, kIntMost) : "";
}

std::string token_type_word(std::int64_t type) {
  switch (type) {
    case kEventToken:
      return "event";
    case kTimeToken:
      return "time";
    case kChallengeToken:
      return "challenge";
    default:
      return std::to_string(type);
  }
}

int parse_token_type(std::string_view word) {
  for (const int type : {kEventToken, kTimeToken, kChallengeToken}) {
    if (word == token_type_word(type) || word == std::to_string(type)) return type;
  }
  return 0;
}

void require(std::string_view what, const std::string& problem) {
  if (!problem.empty()) throw Failure(kUsage, fmt::format("{} {}", what, problem));
}

}  // namespace zelvan::ctl
