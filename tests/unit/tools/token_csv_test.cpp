#include "zelvanctl/token_csv.h"

#include <gtest/gtest.h>

#include "unit/tools/rows.h"

using namespace zelvan::ctl;
using zelvan::ctl::test::good_token;
using zelvan::ctl::test::good_user;

namespace {

constexpr std::time_t kNow = 1'800'000'000;
const std::string kKey = "0123456789abcdef";

TokenImport parse(const std::string& text) { return parse_tokens(text, kNow); }

// The reason why one line behind good titles is bad; empty when it is good.
std::string reason(const std::string& titles, const std::string& line) {
  const TokenImport import = parse(titles + "\n" + line + "\n");
  if (import.bad_lines.empty()) return {};
  EXPECT_EQ(import.bad_lines.front().number, 2U);
  return import.bad_lines.front().reason;
}

}  // namespace

TEST(TokenCsv, BadTitlesAreRefused) {
  EXPECT_EQ(parse("").bad_lines.size(), 1U);
  EXPECT_EQ(parse("serial,key\n").bad_lines.front().reason, "column 'type' is missing");
  EXPECT_EQ(parse("serial,key,type,colour\n").bad_lines.front().reason, "there is no column 'colour'");
  EXPECT_EQ(parse("serial,key,type,key\n").bad_lines.front().reason, "column 'key' comes twice");
}

TEST(TokenCsv, EveryBadLineIsToldWithItsNumber) {
  const TokenImport import =
      parse("serial,key,type\nA," + kKey + ",event\nB,short,event\n\nC," + kKey + ",what\nD," + kKey + "\n");
  ASSERT_EQ(import.bad_lines.size(), 3U);
  EXPECT_EQ(import.bad_lines[0].number, 3U);
  EXPECT_EQ(import.bad_lines[1].number, 5U);
  EXPECT_EQ(import.bad_lines[2].number, 6U);
}

TEST(TokenCsv, ValuesOutsideTheLimitsAreRefused) {
  const std::string titles = "serial,key,type,digits,window,step,user,mail,pin";
  EXPECT_EQ(reason(titles, "A," + kKey + ",time,,,,,,"), "");
  EXPECT_NE(reason(titles, "," + kKey + ",time,,,,,,"), "");
  EXPECT_NE(reason(titles, "A,,time,,,,,,"), "");
  EXPECT_NE(reason(titles, "A," + kKey + ",time,5,,,,,"), "");
  EXPECT_NE(reason(titles, "A," + kKey + ",time,x,,,,,"), "");
  EXPECT_NE(reason(titles, "A," + kKey + ",time,,0,,,,"), "");
  EXPECT_NE(reason(titles, "A," + kKey + ",time,,,0,,,"), "");
  EXPECT_NE(reason(titles, "A," + kKey + ",time,,,,12345678901234567890,,"), "");
  EXPECT_NE(reason(titles, "A," + kKey + ",time,,,,bob,nowhere,"), "");
  EXPECT_NE(reason(titles, "A," + kKey + ",time,,,,bob,,1234567890123456789"), "");
  EXPECT_NE(reason(titles, "A," + kKey + ",time,,,,,a@b,"), "");
}

TEST(TokenCsv, DuplicatesWithinTheFileAreRefused) {
  const TokenImport import =
      parse("serial,key,type,user\nA," + kKey + ",1,bob\nA," + kKey + ",1,eve\nB," + kKey + ",1,bob\n");
  ASSERT_EQ(import.bad_lines.size(), 2U);
  EXPECT_EQ(import.bad_lines[0].reason, "serial A stands in line 2 already");
  EXPECT_EQ(import.bad_lines[1].reason, "user bob stands in line 2 already");
}

TEST(TokenCsv, AbsentValuesHaveDefaults) {
  const TokenImport import = parse("type,key,serial\nevent," + kKey + ",A\n");
  ASSERT_EQ(import.tokens.size(), 1U);
  const Token& token = import.tokens.front().token;
  EXPECT_EQ(token.serial, "A");
  EXPECT_EQ(value_of(token.digits), 6);
  EXPECT_EQ(value_of(token.window), 10);
  EXPECT_EQ(token.counter(), 0U);
  EXPECT_FALSE(import.tokens.front().user);
}

TEST(TokenCsv, ATimeTokenNeedsCounterAndDateTogether) {
  const std::string titles = "serial,key,type,counter,date";
  EXPECT_NE(reason(titles, "A," + kKey + ",time,5,"), "");
  EXPECT_NE(reason(titles, "A," + kKey + ",time,,2026-01-01 00:00:00"), "");
  EXPECT_NE(reason(titles, "A," + kKey + ",time,5,yesterday"), "");
  EXPECT_EQ(reason(titles, "A," + kKey + ",time,5,2026-01-01 00:00:00"), "");
}

TEST(TokenCsv, APinMakesTheUserNeedIt) {
  const TokenImport import = parse("serial,key,type,user,pin\nA," + kKey + ",1,bob,1234\nB," + kKey + ",1,eve,\n");
  ASSERT_EQ(import.tokens.size(), 2U);
  EXPECT_TRUE(import.tokens[0].user->needs_pin());
  EXPECT_FALSE(import.tokens[1].user->needs_pin());
}

TEST(TokenCsv, WithoutSecretsNeitherKeyNorPinIsWritten) {
  User user = good_user();
  user.auth_type = Number{2};
  user.pin = Secret("4711");
  const std::string text = token_csv_titles(false) + token_csv_line(good_token(), &user, false);
  EXPECT_EQ(text.find("12345678901234567890"), std::string::npos);
  EXPECT_EQ(text.find("4711"), std::string::npos);
  EXPECT_EQ(text.find("key"), std::string::npos);
}

TEST(TokenCsv, WhatIsExportedIsImportedAgain) {
  Token token = good_token(kTimeToken);
  token.set_counter((1ULL << 32U) + 5);
  User user = good_user();
  user.auth_type = Number{2};
  user.pin = Secret("a,\"b");
  const TokenImport import = parse(token_csv_titles(true) + token_csv_line(token, &user, true));
  ASSERT_TRUE(import.bad_lines.empty()) << import.bad_lines.front().reason;
  const ImportedToken& back = import.tokens.front();
  EXPECT_EQ(back.token.key->reveal(), token.key->reveal());
  EXPECT_EQ(back.token.counter(), token.counter());
  EXPECT_EQ(back.token.date, token.date);
  EXPECT_EQ(back.user->pin->reveal(), "a,\"b");
  EXPECT_EQ(back.user->mail, user.mail);
}

TEST(TokenCsv, StatesAreRead) {
  const std::string titles = "serial,key,type,user,state";
  const auto user = [&](const std::string& state) {
    const TokenImport import = parse(titles + "\nA," + kKey + ",1,bob," + state + "\n");
    return import.bad_lines.empty() ? import.tokens.front().user : std::nullopt;
  };
  for (const char* state : {"", "active", "locked", "disabled", "disabled locked"}) {
    const auto read = user(state);
    ASSERT_TRUE(read) << state;
    const std::string_view text(state);
    EXPECT_EQ(read->is_locked(), text.ends_with("locked"));
    EXPECT_EQ(read->is_disabled(), text.starts_with("disabled"));
    EXPECT_EQ(read->last_use.has_value(), read->is_locked());
  }
  EXPECT_FALSE(user("gone"));
  EXPECT_FALSE(user("locked disabled"));
  EXPECT_EQ(reason(titles, "A," + kKey + ",1,,locked"), "mail, pin or state without a user");
}

TEST(TokenCsv, StatesAreWritten) {
  User user = good_user();
  user.locked = Number{1};
  user.deleted = Number{1};
  const TokenImport import = parse(token_csv_titles(true) + token_csv_line(good_token(), &user, true));
  ASSERT_TRUE(import.bad_lines.empty()) << import.bad_lines.front().reason;
  EXPECT_TRUE(import.tokens.front().user->is_locked() && import.tokens.front().user->is_disabled());
}
