#include "zelvanctl/otpauth.h"

#include <fmt/core.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <optional>

#include "zelvanctl/base32.h"
#include "zelvanctl/fields.h"
#include "zelvanctl/row_check.h"
#include "zelvanctl/utc_time.h"

namespace zelvan::ctl {

namespace {

// An app counts steps from 1970.  Whether the server's window holds its code at no moment.
bool beside_the_clock(const Token& token) {
  const auto date = token.date ? parse_time(*token.date) : std::nullopt;
  if (value_of(token.type) != kTimeToken || !date || *date < 0) return false;
  const auto steps = static_cast<std::uint64_t>(*date / value_of(token.step));
  const auto window = static_cast<std::uint64_t>(std::max<std::int64_t>(value_of(token.window), 1));
  const std::uint64_t counter = token.counter();
  // The app is `steps - counter` ahead, or one more when the stored time lies within a step.
  if (steps >= counter) return steps - counter > window - 1 - window / 2;
  return counter - steps > window / 2 + 1;
}

}  // namespace

std::string app_problem(const Token& token) {
  for (const Problem& problem : token_problems(token)) {
    if (problem.fatal) return problem.text;
  }
  if (value_of(token.type) == kChallengeToken) {
    return "it answers challenges, which authenticator apps cannot; it needs a device or program of its own";
  }
  if (value_of(token.digits) > 9) {
    return "its codes have 10 digits, which apps cut from the digest in another way than the server";
  }
  if (beside_the_clock(token)) {
    return "its steps are not those of the clock, which apps go by: they would show other codes; give out another "
           "token "
           "with zelvanctl token replace";
  }
  return {};
}

std::string percent_encoded(std::string_view text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain =
        byte < 0x80 && (std::isalnum(byte) != 0 || std::string_view("-._~").find(c) != std::string_view::npos);
    out += plain ? std::string(1, c) : fmt::format("%{:02X}", byte);
  }
  return out;
}

Secret otpauth_uri(const Token& token, std::string_view issuer, std::string_view account) {
  const bool timed = value_of(token.type) == kTimeToken;
  const std::string prefix = issuer.empty() ? "" : percent_encoded(issuer) + ":";
  const std::string issuer_field = issuer.empty() ? "" : "&issuer=" + percent_encoded(issuer);
  std::string key = base32(token.key->reveal());
  const std::string moving =
      timed ? fmt::format("&period={}", value_of(token.step)) : fmt::format("&counter={}", token.counter());
  std::string uri = fmt::format("otpauth://{}/{}{}?secret={}{}&algorithm=SHA1&digits={}{}", timed ? "totp" : "hotp",
                                prefix, percent_encoded(account), key, issuer_field, value_of(token.digits), moving);
  Secret secret(uri);
  explicit_bzero(key.data(), key.size());
  explicit_bzero(uri.data(), uri.size());
  return secret;
}

}  // namespace zelvan::ctl
