#include "zelvanctl/next_attempt.h"

#include <gtest/gtest.h>

#include "unit/tools/rows.h"
#include "zelvanctl/utc_time.h"

using namespace zelvan::ctl;
using zelvan::ctl::test::good_token;
using zelvan::ctl::test::good_user;

namespace {

constexpr std::time_t kNow = 1'800'000'000;

NextAttempt attempt_of(const User& user, const Token& token = good_token()) {
  return next_attempt(user, &token, {30, 5}, kNow);
}

User locked_user(std::time_t seconds_ago) {
  User user = good_user();
  user.locked = Number{1};
  user.last_use = time_text(kNow - seconds_ago);
  return user;
}

}  // namespace

TEST(NextAttempt, AGoodUserIsAccepted) {
  EXPECT_FALSE(attempt_of(good_user()).refused());
  EXPECT_TRUE(attempt_of(good_user()).remarks.empty());
}

TEST(NextAttempt, ADisabledUserIsRefused) {
  User user = good_user();
  user.deleted = Number{2};
  EXPECT_TRUE(attempt_of(user).refused());
  ASSERT_EQ(attempt_of(user).remarks.size(), 1U);
  EXPECT_NE(attempt_of(user).remarks.front().find("8801"), std::string::npos);
}

TEST(NextAttempt, ALockHoldsForFiveHundredNinetyNineSeconds) {
  EXPECT_EQ(attempt_of(locked_user(0)).lock_seconds, 600);
  EXPECT_EQ(attempt_of(locked_user(599)).lock_seconds, 1);
  EXPECT_TRUE(attempt_of(locked_user(599)).refused());
  EXPECT_FALSE(attempt_of(locked_user(600)).refused());
  EXPECT_FALSE(attempt_of(locked_user(600)).remarks.empty());
}

TEST(NextAttempt, ALockWithoutATimeHolds) {
  User user = locked_user(0);
  user.last_use.reset();
  EXPECT_TRUE(attempt_of(user).refused());
  user.last_use = "today";
  EXPECT_TRUE(attempt_of(user).refused());
}

TEST(NextAttempt, AMissingTokenIsRefused) { EXPECT_TRUE(next_attempt(good_user(), nullptr, {30, 5}, kNow).refused()); }

TEST(NextAttempt, ABadTokenIsRefused) {
  Token token = good_token();
  token.digits = Number{5};
  EXPECT_TRUE(attempt_of(good_user(), token).refused());
}

TEST(NextAttempt, AWindowSettingOfZeroRefusesCodesButNoChallengeAnswers) {
  const Token event = good_token();
  const Token challenge = good_token(kChallengeToken);
  EXPECT_TRUE(next_attempt(good_user(), &event, {0, 5}, kNow).refused());
  EXPECT_FALSE(next_attempt(good_user(), &challenge, {0, 5}, kNow).refused());
}

TEST(NextAttempt, TheLastFailureBeforeALockIsTold) {
  User user = good_user();
  user.last_use = time_text(kNow - 10);
  user.failures = Number{3};
  EXPECT_TRUE(attempt_of(user).remarks.empty());
  user.failures = Number{4};
  EXPECT_EQ(attempt_of(user).remarks.size(), 1U);
}

TEST(NextAttempt, FailuresAreForgottenAfterTenMinutes) {
  User user = good_user();
  user.failures = Number{4};
  user.last_use = time_text(kNow - 600);
  EXPECT_TRUE(attempt_of(user).remarks.empty());
}

TEST(NextAttempt, ATimeMoreThanAStepInTheFutureIsRefused) {
  Token token = good_token(kTimeToken);
  token.date = time_text(kNow + 30);
  EXPECT_FALSE(attempt_of(good_user(), token).refused());
  EXPECT_TRUE(attempt_of(good_user(), token).remarks.empty());
  token.date = time_text(kNow + 31);
  EXPECT_TRUE(attempt_of(good_user(), token).refused());
}

TEST(NextAttempt, APendingChallengeIsTold) {
  Token token = good_token(kChallengeToken);
  token.high = Number{1};
  token.low = Number{4711};
  token.date = time_text(kNow - 599);
  ASSERT_EQ(attempt_of(good_user(), token).remarks.size(), 1U);
  EXPECT_NE(attempt_of(good_user(), token).remarks.front().find("4711"), std::string::npos);
  token.date = time_text(kNow - 600);
  EXPECT_TRUE(attempt_of(good_user(), token).remarks.empty());
}
