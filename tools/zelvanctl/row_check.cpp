#include "zelvanctl/row_check.h"

#include <fmt/core.h>

#include <functional>

#include "zelvanctl/fields.h"
#include "zelvanctl/utc_time.h"

namespace zelvan::ctl {
namespace {

class Problems {
 public:
  void fatal(const std::string& text) { list_.push_back({text, true}); }
  void odd(const std::string& text) { list_.push_back({text, false}); }

  // Looks at a number that must be there and within a range.
  void number(std::string_view column, const std::optional<Number>& number, std::int64_t least, std::int64_t most,
              bool out_of_range_is_fatal) {
    if (!number) {
      fatal(fmt::format("{} is NULL", column));
    } else if (!number->exact) {
      odd(fmt::format("{} is no number and reads as {}", column, number->value));
    } else if (number->value < least || number->value > most) {
      list_.push_back(
          {fmt::format("{} is {}, not {} to {}", column, number->value, least, most), out_of_range_is_fatal});
    }
  }

  void text(std::string_view column, const std::string& problem, bool is_fatal) {
    if (!problem.empty()) list_.push_back({fmt::format("{} {}", column, problem), is_fatal});
  }

  std::vector<Problem> take() { return std::move(list_); }

 private:
  std::vector<Problem> list_;
};

void look_at_pin(const User& user, Problems& problems) {
  if (!user.needs_pin()) return;
  if (!user.pin) {
    problems.fatal("authtype asks for a PIN and pin is NULL");
  } else if (user.pin->empty()) {
    problems.odd("authtype asks for a PIN and pin is empty: the code alone is enough");
  } else {
    problems.text("pin", pin_problem(user.pin->reveal()), true);
  }
}

void look_at_time_token(const Token& token, Problems& problems) {
  if (!token.step) {
    problems.fatal("tmstep is NULL");
  } else if (value_of(token.type) == kTimeToken) {
    problems.text("tmstep", step_problem(token.step->value), true);
  }
}

}  // namespace

std::vector<Problem> user_problems(const User& user) {
  Problems problems;
  problems.text("username", user_name_problem(user.name), user.name.size() > kUserNameLimit);
  if (!user.serial) {
    problems.fatal("serialnum is NULL");
  } else {
    problems.text("serialnum", serial_problem(*user.serial), true);
  }
  problems.number("islocked", user.locked, 0, 1, false);
  problems.number("failaccum", user.failures, 0, 99, false);
  problems.number("authtype", user.auth_type, 0, 9, false);
  if (user.last_use && !parse_time(*user.last_use)) problems.odd("preusedate is no time: a lock never ends by itself");
  if (user.mail) problems.text("user_email", mail_problem(*user.mail), false);
  if (!user.deleted) problems.fatal("isdeleted is NULL: for the server there is no such user");
  look_at_pin(user, problems);
  return problems.take();
}

std::vector<Problem> token_problems(const Token& token) {
  constexpr std::int64_t kWordMost = 0xFFFFFFFF;
  Problems problems;
  problems.text("serialnum", serial_problem(token.serial), token.serial.size() > kSerialLimit);
  if (!token.key) {
    problems.fatal("userkey is NULL");
  } else {
    const std::size_t length = token.key->reveal().size();
    problems.text("userkey", key_problem(token.key->reveal()), length == 0 || length > kKeyLimit);
  }
  problems.number("tktype", token.type, kEventToken, kChallengeToken, true);
  problems.number("hcounter", token.high, 0, kWordMost, false);
  problems.number("lcounter", token.low, 0, kWordMost, false);
  problems.number("diglen", token.digits, kDigitsLeast, kDigitsMost, true);
  const bool window_matters = value_of(token.type) != kChallengeToken;
  problems.number("authwnd", token.window, window_matters ? 1 : INT32_MIN, INT32_MAX, window_matters);
  look_at_time_token(token, problems);
  if (!token.date) {
    problems.fatal("predate is NULL");
  } else if (!parse_time(*token.date)) {
    problems.odd("predate is no time");
  }
  return problems.take();
}

}  // namespace zelvan::ctl
