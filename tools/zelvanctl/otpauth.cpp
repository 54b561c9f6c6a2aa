#include "zelvanctl/otpauth.h"

#include <fmt/core.h>

#include <cctype>

#include "zelvanctl/base32.h"
#include "zelvanctl/fields.h"
#include "zelvanctl/row_check.h"

namespace zelvan::ctl {

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
