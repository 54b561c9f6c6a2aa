#include "zelvan_token/words.h"

#include <gmock/gmock.h>

#include "token_fixture.h"

namespace zelvan::token {
namespace {

using test::event_token;
using test::timed_token;
using testing::HasSubstr;
using testing::Not;

TEST(Words, ShowNoSecretUnlessAsked) {
  for (const SoftToken& token : {event_token(), timed_token()}) {
    for (const std::string& text : {describe(token, false), json_text(as_json(token, false))}) {
      EXPECT_THAT(text, Not(HasSubstr(test::kKey.data())));
      EXPECT_THAT(text, Not(HasSubstr("4711")));
    }
  }
}

TEST(Words, ShowKeyAndPinWhenAsked) {
  for (const std::string& text : {describe(event_token(), true), json_text(as_json(event_token(), true))}) {
    EXPECT_THAT(text, HasSubstr(test::kKey.data()));
    EXPECT_THAT(text, HasSubstr("4711"));
  }
}

TEST(Words, SayWhatTheServerExpects) {
  SoftToken token = event_token();
  EXPECT_THAT(describe(token, false), HasSubstr("directly followed by the PIN\n"));
  token.pin = Secret();
  EXPECT_THAT(describe(token, false), HasSubstr("directly followed by the PIN (not kept here)\n"));
  token.pin_follows = false;
  EXPECT_THAT(describe(token, false), HasSubstr("the code alone\n"));
}

TEST(Words, SayWhenTheTokenWasFetched) {
  EXPECT_THAT(describe(event_token(), false), HasSubstr("2023-11-14 22:13:20 UTC"));
}

TEST(Words, CountSeconds) {
  EXPECT_EQ("1 second", seconds_text(1));
  EXPECT_EQ("0 seconds", seconds_text(0));
  EXPECT_EQ("2 seconds", seconds_text(2));
}

TEST(Words, WarnOfAClockThatIsWrong) {
  SoftToken token = timed_token();
  for (const int offset : {-4, 0, 4}) {
    token.clock_offset = offset;
    EXPECT_EQ("", clock_warning(token));
  }
  token.clock_offset = 5;
  EXPECT_THAT(clock_warning(token), HasSubstr("5 seconds behind the server's"));
  token.clock_offset = -60;
  EXPECT_THAT(clock_warning(token), HasSubstr("60 seconds ahead of the server's"));
}

TEST(Words, WarnOfNoClockWhereNoneCounts) {
  SoftToken token = event_token();
  token.clock_offset = 1000;
  EXPECT_EQ("", clock_warning(token));
}

TEST(Words, AreJsonInAsciiWhateverTheBytes) {
  SoftToken token = event_token();
  for (int byte = 1; byte < 256; ++byte) {
    token.key = Secret(std::string(1, static_cast<char>(byte)));
    token.pin = Secret("\xC2" + token.key.reveal());
    const std::string text = json_text(as_json(token, true));
    EXPECT_TRUE(Json::accept(text)) << byte;
    EXPECT_TRUE(std::ranges::all_of(text, [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); })) << byte;
  }
}

TEST(Words, GiveNoOrdersToATerminal) {
  EXPECT_EQ("", visible(""));
  EXPECT_EQ("plain ~ text \\", visible("plain ~ text \\"));
  EXPECT_EQ("\\x1b[2J\\x07\\x7f\\x9b\\xff\\x0a", visible("\x1B[2J\x07\x7F\x9B\xFF\n"));
  SoftToken token = event_token();
  token.key = Secret("k\x1B");
  token.pin = Secret("p\x9B");
  EXPECT_THAT(describe(token, true), HasSubstr("k\\x1b\n"));
  EXPECT_THAT(describe(token, true), HasSubstr("p\\x9b\n"));
}

}  // namespace
}  // namespace zelvan::token
