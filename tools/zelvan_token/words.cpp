#include "zelvan_token/words.h"

#include <fmt/core.h>

#include <array>
#include <cstdlib>
#include <ctime>

namespace zelvan::token {
namespace {

constexpr std::int64_t kNoticeableOffset = 5;  // seconds

std::string utc_text(std::int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  struct tm parts {};
  std::array<char, 32> text{};
  if (gmtime_r(&time, &parts) == nullptr) return "?";
  (void)std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &parts);
  return text.data();
}

std::string pin_words(const SoftToken& token) {
  if (!token.pin_follows) return "the code alone";
  return token.pin.empty() ? "the code, directly followed by the PIN (not kept here)"
                           : "the code, directly followed by the PIN";
}

std::string counter_line(const SoftToken& token) {
  switch (token.kind) {
    case Kind::event:
      return fmt::format("next counter  {}\n", token.next);
    case Kind::time_stepped:
      return fmt::format("time step     {}\n", seconds_text(token.time_step));
    default:
      return "";
  }
}

}  // namespace

std::string seconds_text(std::int64_t seconds) { return fmt::format("{} second{}", seconds, seconds == 1 ? "" : "s"); }

std::string visible(std::string_view text) {
  std::string shown;
  for (const char c : text) {
    const bool printable = c >= ' ' && c <= '~';
    shown += printable ? std::string(1, c) : fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
  }
  return shown;
}

std::string describe(const SoftToken& token, bool show_secrets) {
  std::string text = fmt::format("user          {}\n", token.user);
  text += fmt::format("server        {}\n", token.server);
  text += fmt::format("token         {}, codes of {} digits\n", kind_name(token.kind), token.digits);
  text += fmt::format("password      {}\n", pin_words(token));
  text += counter_line(token);
  text += fmt::format("fetched       {}, by the server's clock\n", utc_text(token.fetched_at));
  if (show_secrets) {
    text += fmt::format("key           {}\n", visible(token.key.reveal()));
    text += fmt::format("PIN           {}\n", visible(token.pin.reveal()));
  }
  return text;
}

Json as_json(const SoftToken& token, bool show_secrets) {
  Json json;
  json["user"] = token.user;
  json["server"] = token.server;
  json["type"] = kind_name(token.kind);
  json["digits"] = token.digits;
  json["pin_follows"] = token.pin_follows;
  json["pin_kept"] = !token.pin.empty();
  if (token.kind != Kind::challenge) json["next_counter"] = token.next;
  if (token.kind == Kind::time_stepped) json["time_step"] = token.time_step;
  json["fetched_at"] = token.fetched_at;
  json["clock_offset"] = token.clock_offset;
  if (show_secrets) {
    json["key"] = token.key.reveal();
    json["pin"] = token.pin.reveal();
  }
  return json;
}

std::string clock_warning(const SoftToken& token) {
  if (token.kind != Kind::time_stepped || std::llabs(token.clock_offset) < kNoticeableOffset) return "";
  return fmt::format(
      "This machine's clock is {} {} the server's. That is taken into account; but once the clock is set, "
      "fetch the token again.",
      seconds_text(std::llabs(token.clock_offset)), token.clock_offset > 0 ? "behind" : "ahead of");
}

std::string json_text(const Json& value) { return value.dump(2, ' ', true, Json::error_handler_t::replace); }

}  // namespace zelvan::token
