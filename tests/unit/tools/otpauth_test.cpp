#include "zelvanctl/otpauth.h"

#include <gtest/gtest.h>

#include "zelvanctl/fields.h"

using namespace zelvan::ctl;

namespace {

Token token_of(int type) {
  Token token;
  token.serial = "T1";
  token.key = Secret("12345678901234567890");
  token.type = Number{type};
  token.digits = Number{6};
  token.window = Number{10};
  token.step = Number{type == kTimeToken ? 30 : 0};
  token.date = "2026-01-01 00:00:00";
  token.set_counter(7);
  return token;
}

}  // namespace

TEST(Otpauth, ChallengeTokensDoNotSuitApps) { EXPECT_NE(app_problem(token_of(kChallengeToken)), ""); }

TEST(Otpauth, TenDigitsDoNotSuitApps) {
  Token token = token_of(kEventToken);
  token.digits = Number{9};
  EXPECT_EQ(app_problem(token), "");
  token.digits = Number{10};
  EXPECT_NE(app_problem(token), "");
}

TEST(Otpauth, ATokenThatTheServerRefusesDoesNotSuitApps) {
  Token token = token_of(kEventToken);
  token.key.reset();
  EXPECT_NE(app_problem(token), "");
}

TEST(Otpauth, AnEventTokenCarriesItsCounter) {
  EXPECT_EQ(otpauth_uri(token_of(kEventToken), "Zelvan", "alice").reveal(),
            "otpauth://hotp/Zelvan:alice?secret=GEZDGNBVGY3TQOJQGEZDGNBVGY3TQOJQ&issuer=Zelvan&algorithm=SHA1&digits=6"
            "&counter=7");
}

TEST(Otpauth, ATimeTokenCarriesItsPeriod) {
  EXPECT_EQ(otpauth_uri(token_of(kTimeToken), "", "alice").reveal(),
            "otpauth://totp/alice?secret=GEZDGNBVGY3TQOJQGEZDGNBVGY3TQOJQ&algorithm=SHA1&digits=6&period=30");
}

TEST(Otpauth, NamesAreEncoded) {
  EXPECT_EQ(percent_encoded("a b&c=d/ü~.-_"), "a%20b%26c%3Dd%2F%C3%BC~.-_");
  const Secret uri = otpauth_uri(token_of(kTimeToken), "My VPN", "o'neil@x");
  EXPECT_TRUE(uri.reveal().starts_with("otpauth://totp/My%20VPN:o%27neil%40x?"));
  EXPECT_NE(uri.reveal().find("&issuer=My%20VPN&"), std::string::npos);
}

TEST(Otpauth, ATokenBesideTheClockDoesNotSuitApps) {
  Token token = token_of(kTimeToken);
  const std::uint64_t clock = 1767225600 / 30;  // 2026-01-01
  const auto suits = [&](std::uint64_t counter) {
    token.set_counter(counter);
    return app_problem(token).empty();
  };
  EXPECT_TRUE(suits(clock));
  EXPECT_TRUE(suits(clock - 4));  // the last code of the window
  EXPECT_FALSE(suits(clock - 5));
  EXPECT_TRUE(suits(clock + 6));  // the first one, late in the step
  EXPECT_FALSE(suits(clock + 7));
  EXPECT_FALSE(suits(0));
  EXPECT_FALSE(suits(~std::uint64_t{0}));
}
