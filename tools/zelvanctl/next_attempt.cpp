#include "zelvanctl/next_attempt.h"

#include <fmt/core.h>

#include "zelvanctl/fields.h"
#include "zelvanctl/row_check.h"
#include "zelvanctl/utc_time.h"

namespace zelvan::ctl {
namespace {

void look_at_lock(const User& user, std::time_t now, NextAttempt& next) {
  if (!user.is_locked()) return;
  const auto last = user.last_use ? parse_time(*user.last_use) : std::nullopt;
  if (!last) {
    next.lock_seconds = kLockSeconds + 1;
    next.refusals.push_back("the account is locked, and without a time of the last attempt the lock counts as new");
    return;
  }
  const std::time_t left = kLockSeconds + 1 - (now - *last);
  if (left <= 0) {
    next.remarks.push_back("the account is locked, but ten quiet minutes have passed: the next attempt lifts the lock");
    return;
  }
  next.lock_seconds = left;
  next.refusals.push_back(
      fmt::format("the account is locked for another {}; every attempt until then begins the ten minutes anew",
                  duration_words(left)));
}

void look_at_failures(const User& user, const Rules& rules, std::time_t now, NextAttempt& next) {
  if (user.is_locked()) return;
  const auto last = user.last_use ? parse_time(*user.last_use) : std::nullopt;
  const bool counts_on = !last || now - *last <= kLockSeconds;
  const std::int64_t failures = counts_on ? value_of(user.failures) : 0;
  if (failures + 1 >= rules.failures_most) next.remarks.push_back("one more failure locks the account");
}

void look_at_window(const Token& token, const Rules& rules, NextAttempt& next) {
  if (value_of(token.type) == kChallengeToken) return;
  if (rules.window_cap < 1) {
    next.refusals.push_back(fmt::format("the setting otp_wnd is {}: no code is tried at all", rules.window_cap));
  }
}

void look_at_time_base(const Token& token, std::time_t now, NextAttempt& next) {
  const auto date = token.date ? parse_time(*token.date) : std::nullopt;
  if (!date) return;
  // Up to a step ahead it was resynchronised just now.
  if (value_of(token.type) == kTimeToken && *date > now + value_of(token.step)) {
    next.refusals.push_back(
        "the token's time lies in the future: until then no time passes for it, and its codes are "
        "refused (see: zelvanctl token resync)");
  }
  if (value_of(token.type) == kChallengeToken && value_of(token.high) == 1 && now - *date <= kLockSeconds) {
    next.remarks.push_back(fmt::format("a challenge is pending: {}", value_of(token.low)));
  }
}

}  // namespace

NextAttempt next_attempt(const User& user, const Token* token, const Rules& rules, std::time_t now) {
  NextAttempt next;
  if (user.is_disabled()) {
    next.refusals.push_back("the user is disabled: for RADIUS there is no such user");
    next.remarks.push_back(
        "the synchronisation service (UDP port 8801) does not look at that: whoever has the token still gets answers "
        "there, until zelvanctl token replace");
  }
  for (const Problem& problem : user_problems(user)) {
    if (problem.fatal) next.refusals.push_back(problem.text);
  }
  look_at_lock(user, now, next);
  look_at_failures(user, rules, now, next);
  if (token == nullptr) {
    next.refusals.push_back(fmt::format("there is no token {}", user.serial.value_or("(none)")));
    return next;
  }
  for (const Problem& problem : token_problems(*token)) {
    if (problem.fatal) next.refusals.push_back("token: " + problem.text);
  }
  look_at_window(*token, rules, next);
  look_at_time_base(*token, now, next);
  return next;
}

}  // namespace zelvan::ctl
