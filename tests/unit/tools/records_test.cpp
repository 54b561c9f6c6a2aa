#include "zelvanctl/records.h"

#include <gtest/gtest.h>

#include "zelvanctl/failure.h"
#include "zelvanctl/fields.h"
#include "zelvanctl/resync.h"
#include "zelvanctl/row_check.h"
#include "zelvanctl/utc_time.h"

using namespace zelvan::ctl;

namespace {

std::uint64_t expected_at(const Token& token, std::time_t now) {
  return expected_factor(token.counter(), *parse_time(*token.date), value_of(token.step), now);
}

}  // namespace

TEST(Records, APlanOutsideTheLimitsIsRefused) {
  TokenPlan plan;
  EXPECT_NO_THROW(check_plan(plan));
  plan.digits = 5;
  EXPECT_THROW(check_plan(plan), Failure);
  plan.digits = 6;
  plan.step = 0;
  EXPECT_THROW(check_plan(plan), Failure);
  plan.type = kEventToken;
  EXPECT_NO_THROW(check_plan(plan));
  plan.serial = std::string(29, 'x');
  EXPECT_THROW(check_plan(plan), Failure);
}

TEST(Records, TheCounterIsSplitIntoTwoWords) {
  Token token;
  token.set_counter(0x123456789ABCDEF0);
  EXPECT_EQ(value_of(token.high), 0x12345678);
  EXPECT_EQ(value_of(token.low), 0x9ABCDEF0);
  EXPECT_EQ(token.counter(), 0x123456789ABCDEF0U);
}

TEST(Records, NewTokensOfEveryTypeAreAsTheServerNeedsThem) {
  for (const int type : {kEventToken, kTimeToken, kChallengeToken}) {
    TokenPlan plan;
    plan.type = type;
    EXPECT_TRUE(token_problems(make_token(plan, 1'800'000'000)).empty()) << type;
  }
}

TEST(Records, AnEventTokenBeginsAtTheCounterOfThePlan) {
  TokenPlan plan;
  plan.type = kEventToken;
  plan.counter = 1ULL << 40U;
  EXPECT_EQ(make_token(plan, 1'800'000'000).counter(), 1ULL << 40U);
}

// RFC 6238 section 4.2: T is the number of steps since 1970.
TEST(Records, ATimeTokenAgreesWithTheStandardAtEveryMoment) {
  for (const int step : {1, 30, 60, 3600}) {
    for (const std::time_t made : {1'800'000'000L, 1'800'000'001L, 1'800'000'029L, 2'147'483'640L, 4'000'000'007L}) {
      TokenPlan plan;
      plan.step = step;
      const Token token = make_token(plan, made);
      for (const std::time_t later : {0L, 1L, 29L, 30L, 31L, 86'400L, 400'000'000L}) {
        EXPECT_EQ(expected_at(token, made + later), static_cast<std::uint64_t>((made + later) / step));
      }
    }
  }
}

TEST(Records, ATimeTokenServesAPhoneWhoseClockIsBehind) {
  const Token token = make_token({}, 1'800'000'000);
  EXPECT_LE(token.counter(), 1'800'000'000U / 30 - 100);
}

TEST(Records, ATimeTokenOfTheFirstHourBeginsAtZero) {
  const Token token = make_token({}, 100);
  EXPECT_EQ(token.counter(), 0U);
  EXPECT_EQ(token.date, "1970-01-01 00:00:00");
}
