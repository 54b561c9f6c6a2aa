#include "zelvanctl/views.h"

#include <fmt/core.h>

#include "zelvanctl/fields.h"
#include "zelvanctl/utc_time.h"

namespace zelvan::ctl {
namespace {

Json number_json(const std::optional<Number>& number) { return number ? Json(number->value) : Json(nullptr); }
Json text_json(const std::optional<std::string>& text) { return text ? Json(*text) : Json(nullptr); }
Json secret_json(const std::optional<Secret>& secret) { return secret ? Json(secret->reveal()) : Json(nullptr); }

}  // namespace

std::string state_word(const User& user, std::time_t now) {
  if (user.is_disabled()) return "disabled";
  if (!user.is_locked()) return "active";
  const auto last = user.last_use ? parse_time(*user.last_use) : std::nullopt;
  return last && now - *last > kLockSeconds ? "lock expired" : "locked";
}

std::string time_words(const std::optional<std::string>& text, std::time_t now) {
  if (!text || text->empty()) return "never";
  const auto time = parse_time(*text);
  if (!time) return *text;
  return *time <= now ? fmt::format("{} ({} ago)", *text, duration_words(now - *time))
                      : fmt::format("{} (in {})", *text, duration_words(*time - now));
}

std::string token_words(const Token& token) {
  const std::string every = value_of(token.type) == kTimeToken ? fmt::format(" every {} s", value_of(token.step)) : "";
  return fmt::format("{}, {} digits{}, window {}", token_type_word(value_of(token.type)), value_of(token.digits), every,
                     value_of(token.window));
}

Json user_json(const User& user, std::time_t now, bool secrets) {
  Json json = {{"user", user.name},
               {"state", state_word(user, now)},
               {"serial", text_json(user.serial)},
               {"mail", text_json(user.mail)},
               {"pin_needed", user.needs_pin()},
               {"failures", number_json(user.failures)},
               {"last_use", text_json(user.last_use)},
               {"locked", user.is_locked()},
               {"disabled", user.is_disabled()}};
  if (secrets) json["pin"] = secret_json(user.pin);
  return json;
}

Json token_json(const Token& token, bool secrets) {
  Json json = {{"serial", token.serial},
               {"type", token_type_word(value_of(token.type))},
               {"counter", token.counter()},
               {"date", text_json(token.date)},
               {"digits", number_json(token.digits)},
               {"window", number_json(token.window)},
               {"step", number_json(token.step)}};
  if (secrets) json["key"] = secret_json(token.key);
  return json;
}

Json attempt_json(const NextAttempt& next) {
  return {{"refused", next.refused()},
          {"reasons", next.refusals},
          {"remarks", next.remarks},
          {"lock_seconds", next.lock_seconds}};
}

void Sheet::add(const std::string& title, const std::string& value) {
  text_ += fmt::format("{:<14}{}\n", title, printable(value));
}

void add_token_lines(Sheet& sheet, const Token& token, std::time_t now, bool secrets) {
  sheet.add("Token", token.serial);
  sheet.add("Kind", token_words(token));
  if (value_of(token.type) == kChallengeToken) {
    sheet.add("Challenge", value_of(token.high) == 1 ? std::to_string(value_of(token.low)) : "none");
  } else {
    sheet.add("Counter", std::to_string(token.counter()));
  }
  sheet.add("Counted from", time_words(token.date, now));
  if (secrets) sheet.add("Key", token.key ? token.key->reveal() : "NULL");
}

}  // namespace zelvan::ctl
