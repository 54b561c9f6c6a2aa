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

TEST(Resync, ReadingsTellWhenTheStepBegan) {
  EXPECT_EQ(reading_of_clock(30, 3019).factor, 100U);
  EXPECT_EQ(reading_of_clock(30, 3019).since, 3000);
  EXPECT_EQ(reading_of_row(7, 1005, 30, 1064).factor, 8U);
  EXPECT_EQ(reading_of_row(7, 1005, 30, 1064).since, 1035);
  EXPECT_EQ(reading_of_row(7, 2000, 30, 1064).factor, 7U);  // a time in the future
  EXPECT_EQ(reading_of_row(7, 2000, 30, 1064).since, 1064);
}

TEST(Resync, TheNearerReadingCounts) {
  EXPECT_EQ(nearer_reading({100, 1}, {90, 2}, 96).since, 1);
  EXPECT_EQ(nearer_reading({100, 1}, {90, 2}, 94).since, 2);
  EXPECT_EQ(nearer_reading({100, 1}, {90, 2}, 95).since, 1);
}

TEST(Resync, CodesBehindTheWindowHaveNoDate) {
  EXPECT_TRUE(resync_date(90, {100, 3000}, 10, 30));
  EXPECT_FALSE(resync_date(89, {100, 3000}, 10, 30));
  EXPECT_TRUE(resync_date(kMost - 1, {100, 3000}, 10, 30));
}

namespace {

// Whether the server takes a factor `steps` after the beginning of the present step, as it advances and searches.
bool in_window(std::uint64_t counter, std::int64_t date, std::int64_t now, std::int64_t window, std::uint64_t factor) {
  const std::int64_t steps = (now - date) / 30;
  if (steps >= window / 2) counter += static_cast<std::uint64_t>(steps - window / 2);
  return factor >= counter && factor < counter + static_cast<std::uint64_t>(window);
}

}  // namespace

// The token shows the expected step, or it has just shown `last` and goes on from there.
TEST(Resync, BothReadingsOfOldCodesStayWithinTheWindow) {
  constexpr std::int64_t kSince = 1'800'000'000;
  for (std::int64_t window = 1; window <= 12; ++window) {
    for (std::int64_t behind = 0; behind <= window; ++behind) {
      const std::uint64_t last = 500;
      const auto expected = last + static_cast<std::uint64_t>(behind);
      const auto date = resync_date(last, {expected, kSince}, window, 30);
      ASSERT_TRUE(date);
      EXPECT_LE(*date, kSince + 30);
      for (std::uint64_t later = 1; later < 100; ++later) {
        const std::int64_t now = kSince + static_cast<std::int64_t>(later) * 30 + 7;
        EXPECT_TRUE(in_window(last + 1, *date, now, window, expected + later)) << window << " " << behind;
        if (behind == window) continue;
        EXPECT_TRUE(in_window(last + 1, *date, now, window, last + later)) << window << " " << behind;
      }
    }
  }
}
