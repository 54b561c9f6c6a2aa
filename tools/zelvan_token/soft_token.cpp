#include "zelvan_token/soft_token.h"

#include <algorithm>
#include <array>

#include "otp/HOTP.h"
#include "otp/big_endian.h"
#include "zelvan_token/failure.h"

namespace zelvan::token {
namespace {

constexpr int kFewestDigits = 6;
constexpr int kMostDigits = 10;

Kind kind_of(std::uint8_t token_type) {
  if (token_type == SYNC_TIME_STEPPED) return Kind::time_stepped;
  return token_type == SYNC_CHALLENGE_RESPONSE ? Kind::challenge : Kind::event;
}

void require(bool condition, const char* what) {
  if (!condition) throw Failure(kMalformed, std::string("the server's answer describes no usable token: ") + what);
}

// Counters wrap at 2^64, so their distance is what counts.
std::int64_t distance(std::uint64_t from, std::uint64_t to) { return static_cast<std::int64_t>(to - from); }

// Seconds since the token was fetched, by the server's clock; a clock that was set back counts as the moment itself.
std::int64_t elapsed_seconds(const SoftToken& token, std::time_t now) {
  return std::max<std::int64_t>(0, server_time(token, now) - token.fetched_at);
}

// Seconds from now until the step of `counter` begins.
std::int64_t seconds_until(const SoftToken& token, std::uint64_t counter, std::time_t now) {
  return distance(token.base, counter) * token.time_step - (server_time(token, now) - token.fetched_at);
}

Draw draw_by_time(SoftToken& token, std::time_t now) {
  const std::int64_t steps = elapsed_seconds(token, now) / token.time_step;
  const std::uint64_t present = token.base + static_cast<std::uint64_t>(steps);
  Draw draw;
  draw.counter = distance(present, token.next) > 0 ? token.next : present;
  draw.ahead = draw.counter != present;
  if (distance(present, draw.counter) > kMostStepsAhead) {
    draw.wait = seconds_until(token, draw.counter - kMostStepsAhead, now);
    return draw;
  }
  draw.seconds_left = seconds_until(token, draw.counter + 1, now);
  token.next = draw.counter + 1;
  return draw;
}

}  // namespace

const char* kind_name(Kind kind) {
  switch (kind) {
    case Kind::time_stepped:
      return "time-stepped";
    case Kind::challenge:
      return "challenge-response";
    default:
      return "event-counted";
  }
}

SoftToken make_token(const std::string& user, const std::string& server, const SyncToken& received, std::time_t now) {
  SoftToken token;
  token.user = user;
  token.server = server;
  token.kind = kind_of(received.token_type);
  token.digits = received.code_digits;
  token.pin_follows = received.auth_type == kSyncAuthTypeWithPin;
  token.key = Secret(received.key.data());
  token.pin = Secret(received.pin.data());
  token.fetched_at = received.clock;
  token.clock_offset = token.fetched_at - static_cast<std::int64_t>(now);
  require(token.digits >= kFewestDigits && token.digits <= kMostDigits,
          "its codes have no number of digits from 6 to 10");
  require(!token.key.empty(), "its key is empty");
  if (token.kind == Kind::challenge) return token;

  token.base = std::uint64_t{received.high_counter} << 32U | received.low_counter;
  token.next = token.base;
  if (token.kind == Kind::time_stepped) token.time_step = time_step_seconds(received);
  require(token.kind != Kind::time_stepped || token.time_step > 0, "its time step is no number of seconds");
  return token;
}

Draw draw_counter(SoftToken& token, std::time_t now) {
  if (token.kind == Kind::time_stepped) return draw_by_time(token, now);
  Draw draw;
  draw.counter = token.next++;
  return draw;
}

Secret code_text(const SoftToken& token, std::uint64_t counter, bool with_pin) {
  std::array<unsigned char, 8> factor{};
  store_u32(factor.data(), static_cast<std::uint32_t>(counter >> 32U));
  store_u32(factor.data() + 4, static_cast<std::uint32_t>(counter));
  std::array<char, kMostDigits + 1> code{};
  const std::string& key = token.key.reveal();
  if (!QENT_HOTP().hotp_generate(key.c_str(), key.size(), factor.data(), token.digits, code.data())) {
    throw Failure(kFailed, "no code can be computed from this token");
  }
  std::string text = code.data();
  explicit_bzero(code.data(), code.size());
  text.reserve(text.size() + token.pin.reveal().size());
  if (with_pin && token.pin_follows) text += token.pin.reveal();
  const Secret result(text);
  wipe(text);
  return result;
}

}  // namespace zelvan::token
