#include "zelvanctl/fields.h"

#include <gtest/gtest.h>

#include "zelvanctl/failure.h"

using namespace zelvan::ctl;

namespace {

std::string of(std::size_t count) { return std::string(count, 'x'); }

}  // namespace

TEST(Fields, UserNamesHaveOneToNineteenBytes) {
  EXPECT_NE(user_name_problem(""), "");
  EXPECT_EQ(user_name_problem("a"), "");
  EXPECT_EQ(user_name_problem(of(19)), "");
  EXPECT_EQ(user_name_problem(of(20)), "has 20 bytes; the server reads 19 at most");
  EXPECT_NE(user_name_problem("ÄÄÄÄÄÄÄÄÄÄ"), "");  // 10 characters, 20 bytes
}

TEST(Fields, ControlCharactersAndOuterBlanksAreRefusedInNames) {
  EXPECT_NE(user_name_problem("a\nb"), "");
  EXPECT_NE(user_name_problem("a\xFF"), "");
  EXPECT_NE(user_name_problem(" a"), "");
  EXPECT_NE(serial_problem("a "), "");
  EXPECT_EQ(user_name_problem("O'Neil \\ co"), "");
}

TEST(Fields, SerialNumbersHaveOneToTwentyEightBytes) {
  EXPECT_NE(serial_problem(""), "");
  EXPECT_EQ(serial_problem(of(28)), "");
  EXPECT_NE(serial_problem(of(29)), "");
}

TEST(Fields, KeysHaveSixteenToFiftyFourBytes) {
  EXPECT_NE(key_problem(""), "");
  EXPECT_NE(key_problem(of(15)), "");
  EXPECT_EQ(key_problem(of(16)), "");
  EXPECT_EQ(key_problem(of(54)), "");
  EXPECT_NE(key_problem(of(55)), "");
  EXPECT_NE(key_problem("0123456789abcde\t"), "");
}

TEST(Fields, PinsHaveOneToEighteenBytes) {
  EXPECT_NE(pin_problem(""), "");
  EXPECT_EQ(pin_problem(of(18)), "");
  EXPECT_NE(pin_problem(of(19)), "");
}

TEST(Fields, MailAddressesAreEmptyOrHaveAtMostFiftyFiveBytes) {
  EXPECT_EQ(mail_problem(""), "");
  EXPECT_EQ(mail_problem("a@b"), "");
  EXPECT_EQ(mail_problem("a@" + of(53)), "");
  EXPECT_NE(mail_problem("a@" + of(54)), "");
  for (const char* text : {"a", "@b", "a@", "a b@c", "<a@b>", "a@b,c@d"}) EXPECT_NE(mail_problem(text), "") << text;
}

TEST(Fields, NumbersKeepToWhatTheServerComputes) {
  EXPECT_NE(digits_problem(5), "");
  EXPECT_EQ(digits_problem(6), "");
  EXPECT_EQ(digits_problem(10), "");
  EXPECT_NE(digits_problem(11), "");
  EXPECT_NE(window_problem(0), "");
  EXPECT_EQ(window_problem(1), "");
  EXPECT_EQ(window_problem(2147483647), "");
  EXPECT_NE(window_problem(2147483648), "");
  EXPECT_NE(step_problem(0), "");
  EXPECT_EQ(step_problem(1), "");
  EXPECT_NE(step_problem(2147483648), "");
}

TEST(Fields, TokenTypesHaveWordsAndNumbers) {
  EXPECT_EQ(parse_token_type("event"), kEventToken);
  EXPECT_EQ(parse_token_type("2"), kTimeToken);
  EXPECT_EQ(parse_token_type("challenge"), kChallengeToken);
  for (const char* word : {"", "0", "4", "Event", "12"}) EXPECT_EQ(parse_token_type(word), 0) << word;
  EXPECT_EQ(token_type_word(9), "9");
}

TEST(Fields, AProblemEndsTheCommandAsWrongUsage) {
  EXPECT_NO_THROW(require("x", ""));
  try {
    require("--digits", "is 5");
    FAIL();
  } catch (const Failure& failure) {
    EXPECT_STREQ(failure.what(), "--digits is 5");
    EXPECT_EQ(failure.code(), kUsage);
  }
}
