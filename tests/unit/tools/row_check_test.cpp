#include "zelvanctl/row_check.h"

#include <gtest/gtest.h>

#include "unit/tools/rows.h"

using namespace zelvan::ctl;
using zelvan::ctl::test::good_token;
using zelvan::ctl::test::good_user;

namespace {

// Whether exactly one problem is found, and whether it is fatal.
testing::AssertionResult finds_one(const std::vector<Problem>& problems, bool fatal) {
  if (problems.size() == 1 && problems.front().fatal == fatal) return testing::AssertionSuccess();
  auto result = testing::AssertionFailure() << problems.size() << " problems";
  for (const Problem& problem : problems) result << "\n" << problem.fatal << " " << problem.text;
  return result;
}

template <typename Change>
std::vector<Problem> changed_user(Change change) {
  User user = good_user();
  change(user);
  return user_problems(user);
}

template <typename Change>
std::vector<Problem> changed_token(int type, Change change) {
  Token token = good_token(type);
  change(token);
  return token_problems(token);
}

}  // namespace

TEST(RowCheck, GoodRowsHaveNoProblem) {
  EXPECT_TRUE(user_problems(good_user()).empty());
  for (const int type : {kEventToken, kTimeToken, kChallengeToken})
    EXPECT_TRUE(token_problems(good_token(type)).empty());
}

TEST(RowCheck, ColumnsThatTheServerNeedsMustNotBeNull) {
  EXPECT_TRUE(finds_one(changed_user([](User& user) { user.serial.reset(); }), true));
  EXPECT_TRUE(finds_one(changed_user([](User& user) { user.locked.reset(); }), true));
  EXPECT_TRUE(finds_one(changed_user([](User& user) { user.failures.reset(); }), true));
  EXPECT_TRUE(finds_one(changed_user([](User& user) { user.auth_type.reset(); }), true));
  EXPECT_TRUE(finds_one(changed_user([](User& user) { user.deleted.reset(); }), true));
  EXPECT_TRUE(finds_one(changed_token(1, [](Token& token) { token.key.reset(); }), true));
  EXPECT_TRUE(finds_one(changed_token(1, [](Token& token) { token.high.reset(); }), true));
  EXPECT_TRUE(finds_one(changed_token(1, [](Token& token) { token.low.reset(); }), true));
  EXPECT_TRUE(finds_one(changed_token(1, [](Token& token) { token.date.reset(); }), true));
  EXPECT_TRUE(finds_one(changed_token(1, [](Token& token) { token.digits.reset(); }), true));
  EXPECT_TRUE(finds_one(changed_token(1, [](Token& token) { token.window.reset(); }), true));
  EXPECT_TRUE(finds_one(changed_token(1, [](Token& token) { token.step.reset(); }), true));
}

TEST(RowCheck, MailAndLastUseMayBeNull) {
  EXPECT_TRUE(changed_user([](User& user) { user.mail.reset(); }).empty());
  EXPECT_TRUE(changed_user([](User& user) { user.last_use.reset(); }).empty());
}

TEST(RowCheck, APinIsNeededWithItsAuthTypeOnly) {
  EXPECT_TRUE(finds_one(changed_user([](User& user) { user.auth_type = Number{2}; }), true));
  EXPECT_TRUE(changed_user([](User& user) {
                user.auth_type = Number{2};
                user.pin = Secret("1234");
              }).empty());
}

TEST(RowCheck, KeysOutsideTheLimitsAreFatalAndShortOnesAreOdd) {
  EXPECT_TRUE(finds_one(changed_token(1, [](Token& token) { token.key = Secret(""); }), true));
  EXPECT_TRUE(finds_one(changed_token(1, [](Token& token) { token.key = Secret(std::string(55, 'x')); }), true));
  EXPECT_TRUE(finds_one(changed_token(1, [](Token& token) { token.key = Secret("short"); }), false));
}

TEST(RowCheck, NumbersOutsideTheirRangesAreFound) {
  EXPECT_TRUE(finds_one(changed_token(1, [](Token& token) { token.type = Number{4}; }), true));
  EXPECT_TRUE(finds_one(changed_token(1, [](Token& token) { token.digits = Number{11}; }), true));
  EXPECT_TRUE(finds_one(changed_token(1, [](Token& token) { token.window = Number{0}; }), true));
  EXPECT_TRUE(finds_one(changed_token(2, [](Token& token) { token.step = Number{0}; }), true));
  EXPECT_TRUE(finds_one(changed_token(1, [](Token& token) { token.low = Number{4294967296}; }), false));
  EXPECT_TRUE(finds_one(changed_user([](User& user) { user.failures = Number{100}; }), false));
}

TEST(RowCheck, TheWindowOfAChallengeTokenDoesNotMatter) {
  EXPECT_TRUE(changed_token(3, [](Token& token) { token.window = Number{0}; }).empty());
}

TEST(RowCheck, WhatIsNoNumberIsTold) {
  EXPECT_TRUE(finds_one(changed_user([](User& user) { user.failures = Number{0, false}; }), false));
}

TEST(RowCheck, WhatIsNoTimeIsTold) {
  EXPECT_TRUE(finds_one(changed_user([](User& user) { user.last_use = "today"; }), false));
  EXPECT_TRUE(finds_one(changed_token(1, [](Token& token) { token.date = "today"; }), false));
}
