#include "zelvanctl/resync.h"

#include <gtest/gtest.h>

using namespace zelvan::ctl;

namespace {

constexpr std::uint64_t kMost = ~std::uint64_t{0};
const Secret kKey("12345678901234567890");  // RFC 4226 appendix D

}  // namespace

// RFC 4226 appendix D.
TEST(Resync, CodesAreThoseOfTheStandard) {
  EXPECT_EQ(hotp_code(kKey, 0, 6), "755224");
  EXPECT_EQ(hotp_code(kKey, 1, 6), "287082");
  EXPECT_EQ(hotp_code(kKey, 9, 6), "520489");
}

TEST(Resync, FindsTwoCodesInARow) { EXPECT_EQ(find_pair(kKey, 6, {0, 100}, "254676", "287922"), 5U); }

TEST(Resync, CodesInTheWrongOrderAreNotFound) { EXPECT_FALSE(find_pair(kKey, 6, {0, 100}, "287922", "254676")); }

TEST(Resync, CodesThatAreNotInARowAreNotFound) { EXPECT_FALSE(find_pair(kKey, 6, {0, 100}, "755224", "359152")); }

TEST(Resync, BothEndsOfTheRangeAreSearched) {
  EXPECT_EQ(find_pair(kKey, 6, {5, 5}, "254676", "287922"), 5U);
  EXPECT_FALSE(find_pair(kKey, 6, {6, 100}, "254676", "287922"));
  EXPECT_FALSE(find_pair(kKey, 6, {0, 4}, "254676", "287922"));
}

TEST(Resync, TheSearchEndsWithSixtyFourBits) {
  EXPECT_FALSE(find_pair(kKey, 6, {kMost - 10, kMost}, "000000", "000000"));
  EXPECT_EQ(find_pair(kKey, 6, {kMost - 10, kMost}, hotp_code(kKey, kMost - 1, 6), hotp_code(kKey, kMost, 6)),
            kMost - 1);
}

TEST(Resync, RangesAreCutToSixtyFourBits) {
  EXPECT_EQ(range_around(5, 10, 10).first, 0U);
  EXPECT_EQ(range_around(5, 10, 10).last, 15U);
  EXPECT_EQ(range_around(kMost - 1, 1, 10).last, kMost);
  EXPECT_EQ(range_around(kMost - 1, 1, 10).first, kMost - 2);
}

TEST(Resync, TheExpectedFactorCountsTheStepsSinceTheStoredTime) {
  EXPECT_EQ(expected_factor(100, 1000, 30, 1029), 100U);
  EXPECT_EQ(expected_factor(100, 1000, 30, 1030), 101U);
  EXPECT_EQ(expected_factor(100, 1000, 30, 900), 100U);  // a time in the future
}

// The server's difference of two times ends at 2^31 - 1 seconds.
TEST(Resync, TheExpectedFactorStandsStillAfterSixtyEightYears) {
  EXPECT_EQ(expected_factor(0, 0, 30, 2147483647), 71582788U);
  EXPECT_EQ(expected_factor(0, 0, 30, 3000000000), 71582788U);
}
