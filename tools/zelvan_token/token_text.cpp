#include "zelvan_token/token_text.h"

#include <fmt/core.h>

#include <array>
#include <nlohmann/json.hpp>

#include "zelvan_token/failure.h"
#include "zelvan_token/user_name.h"

namespace zelvan::token {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kFormat = 1;
constexpr std::int64_t kLatestClock = 0xFFFFFFFF;  // the service sends 32 bits
constexpr std::int64_t kLargestOffset = std::int64_t{1} << 33;
constexpr std::int64_t kMostSteps = std::int64_t{1} << 36;  // more than the clocks above allow
constexpr std::int64_t kLongestStep = 999;                  // three characters
constexpr std::string_view kHexDigits = "0123456789abcdef";

constexpr std::array<Kind, 3> kKinds = {Kind::event, Kind::time_stepped, Kind::challenge};

std::string to_hex(const Secret& secret) {
  std::string text;
  text.reserve(2 * secret.reveal().size());
  for (const char c : secret.reveal()) {
    const auto byte = static_cast<unsigned char>(c);
    text += kHexDigits[byte >> 4U];
    text += kHexDigits[byte & 0x0FU];
  }
  return text;
}

Secret from_hex(const std::string& text, std::size_t limit, const char* member) {
  std::string bytes;
  bytes.reserve(limit);
  bool good = text.size() % 2 == 0 && text.size() / 2 <= limit;
  for (std::size_t i = 0; good && i + 1 < text.size(); i += 2) {
    const std::size_t high = kHexDigits.find(text[i]);
    const std::size_t low = kHexDigits.find(text[i + 1]);
    good = high != std::string_view::npos && low != std::string_view::npos && (high | low) != 0;
    bytes += static_cast<char>(high * 16 + low);
  }
  const Secret secret(bytes);
  wipe(bytes);
  if (!good) throw BadText(fmt::format("{} is no hexadecimal text of at most {} bytes without a NUL", member, limit));
  return secret;
}

std::int64_t number_in(const Json& json, const char* member, std::int64_t least, std::int64_t most) {
  const Json& value = json.at(member);
  // A number beyond 63 bits would read as a negative one.
  const bool too_large = value.is_number_unsigned() && value.get<std::uint64_t>() > INT64_MAX;
  if (!value.is_number_integer() || too_large) throw BadText(fmt::format("{} is no whole number", member));
  const auto number = value.get<std::int64_t>();
  if (number < least || number > most) throw BadText(fmt::format("{} is not from {} to {}", member, least, most));
  return number;
}

std::uint64_t counter_in(const Json& json, const char* member) {
  const Json& value = json.at(member);
  if (!value.is_number_unsigned()) throw BadText(fmt::format("{} is no counter", member));
  return value.get<std::uint64_t>();
}

Kind kind_in(const Json& json) {
  const auto name = json.at("type").get<std::string>();
  for (const Kind kind : kKinds) {
    if (name == kind_name(kind)) return kind;
  }
  throw BadText("type names no kind of token");
}

void check_time(const SoftToken& token) {
  const auto steps = static_cast<std::int64_t>(token.next - token.base);
  if (steps < 0 || steps > kMostSteps) throw BadText("counter and next are too far apart");
}

SoftToken read_members(const Json& json) {
  SoftToken token;
  if (number_in(json, "format", 0, INT32_MAX) != kFormat) throw BadText("it was written by another version");
  token.user = json.at("user").get<std::string>();
  token.server = json.at("server").get<std::string>();
  token.kind = kind_in(json);
  token.digits = static_cast<int>(number_in(json, "digits", 6, 10));
  token.pin_follows = json.at("pin_follows").get<bool>();
  token.key = from_hex(json.at("key").get_ref<const std::string&>(), kSyncKeyLimit, "key");
  token.pin = from_hex(json.at("pin").get_ref<const std::string&>(), kSyncPinLimit, "pin");
  token.base = counter_in(json, "counter");
  token.next = counter_in(json, "next");
  const bool timed = token.kind == Kind::time_stepped;
  token.time_step = static_cast<int>(number_in(json, "time_step", timed ? 1 : 0, timed ? kLongestStep : 0));
  token.fetched_at = number_in(json, "fetched_at", 0, kLatestClock);
  token.clock_offset = number_in(json, "clock_offset", -kLargestOffset, kLargestOffset);
  if (token.key.empty()) throw BadText("key is empty");
  if (timed) check_time(token);
  check_user_name(token.user);
  return token;
}

}  // namespace

std::string to_text(const SoftToken& token) {
  Json json;
  json["format"] = kFormat;
  json["user"] = token.user;
  json["server"] = token.server;
  json["type"] = kind_name(token.kind);
  json["digits"] = token.digits;
  json["pin_follows"] = token.pin_follows;
  json["key"] = to_hex(token.key);
  json["pin"] = to_hex(token.pin);
  json["counter"] = token.base;
  json["next"] = token.next;
  json["time_step"] = token.time_step;
  json["fetched_at"] = token.fetched_at;
  json["clock_offset"] = token.clock_offset;
  std::string text = json.dump(2) + "\n";
  for (const char* const member : {"key", "pin"}) wipe(json[member].get_ref<std::string&>());
  return text;
}

SoftToken from_text(std::string_view text) {
  try {
    return read_members(Json::parse(text));
  } catch (const Json::exception&) {
    // Its message may quote the text, and so a key.
    throw BadText("it is no token in JSON, or a part is missing");
  } catch (const Failure& failure) {
    throw BadText(failure.what());
  }
}

}  // namespace zelvan::token
