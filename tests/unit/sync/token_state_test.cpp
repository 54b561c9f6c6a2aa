#include "sync/token_state.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>

#include "support/fake_clock.h"

using zelvan::advance_counter;
using zelvan::steps_to_advance;
using zelvan::stored_time;
using zelvan::sync_challenge;

namespace {

struct Counter {
  unsigned long high;
  unsigned long low;
  bool operator==(const Counter&) const = default;
};

Counter added(Counter counter) {
  countadd(counter.high, counter.low);
  return counter;
}

Counter advanced(Counter counter, std::uint64_t steps) {
  advance_counter(counter.high, counter.low, steps);
  return counter;
}

// A time zone for the length of a test.
class TimeZone {
 public:
  explicit TimeZone(const char* name) {
    setenv("TZ", name, 1);
    tzset();
  }
  ~TimeZone() {
    unsetenv("TZ");
    tzset();
  }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;
};

}  // namespace

TEST(Countadd, AddsOneToTheLowHalf) { EXPECT_EQ(added({7, 41}), (Counter{7, 42})); }

TEST(Countadd, ReachesTheLargestLowHalf) { EXPECT_EQ(added({0, 0xFFFFFFFE}), (Counter{0, 0xFFFFFFFF})); }

TEST(Countadd, CarriesIntoTheHighHalf) { EXPECT_EQ(added({7, 0xFFFFFFFF}), (Counter{8, 0})); }

TEST(Countadd, LargestCounterBecomesZero) { EXPECT_EQ(added({0xFFFFFFFF, 0xFFFFFFFF}), (Counter{0, 0})); }

TEST(AdvanceCounter, EqualsThatManyAdditions) {
  for (const Counter start :
       {Counter{0, 0}, Counter{3, 0xFFFFFFF0}, Counter{0xFFFFFFFF, 0xFFFFFFF0}, Counter{0xFFFFFFFE, 0xFFFFFFFF}}) {
    Counter counter = start;
    for (std::uint64_t steps = 0; steps < 40; ++steps) {
      ASSERT_EQ(advanced(start, steps), counter) << start.high << ' ' << start.low << ' ' << steps;
      countadd(counter.high, counter.low);
    }
  }
}

TEST(AdvanceCounter, TakesMoreStepsThanFitTheLowHalf) {
  EXPECT_EQ(advanced({1, 5}, std::uint64_t{3} << 32U | 10U), (Counter{4, 15}));
}

TEST(StepsToAdvance, WindowZeroMovesAllSteps) { EXPECT_EQ(steps_to_advance(600, 60, 0), 10U); }

TEST(StepsToAdvance, LeavesHalfTheWindow) { EXPECT_EQ(steps_to_advance(600, 60, 4), 8U); }

TEST(StepsToAdvance, HalfAnOddWindowIsRoundedDown) { EXPECT_EQ(steps_to_advance(600, 60, 5), 8U); }

TEST(StepsToAdvance, OneStepBeyondHalfTheWindowMovesOne) { EXPECT_EQ(steps_to_advance(180, 60, 5), 1U); }

TEST(StepsToAdvance, ExactlyHalfTheWindowMovesNothing) { EXPECT_EQ(steps_to_advance(120, 60, 5), 0U); }

TEST(StepsToAdvance, LessThanHalfTheWindowMovesNothing) { EXPECT_EQ(steps_to_advance(60, 60, 5), 0U); }

TEST(StepsToAdvance, BrokenStepsDoNotCount) {
  EXPECT_EQ(steps_to_advance(59, 60, 0), 0U);
  EXPECT_EQ(steps_to_advance(60, 60, 0), 1U);
  EXPECT_EQ(steps_to_advance(119, 60, 0), 1U);
}

TEST(StepsToAdvance, NegativeTimeMovesNothing) {
  EXPECT_EQ(steps_to_advance(-6000, 60, 0), 0U);
  EXPECT_EQ(steps_to_advance(std::numeric_limits<std::time_t>::min(), 1, 255), 0U);
}

TEST(StepsToAdvance, TakesTheLongestTime) {
  EXPECT_EQ(steps_to_advance(std::numeric_limits<std::time_t>::max(), 1, 0), 0x7FFFFFFFFFFFFFFFU);
}

TEST(SyncChallenge, SmallestIs1000) { EXPECT_EQ(sync_challenge({0, 0}), 1000U); }

TEST(SyncChallenge, LargestIs999998) { EXPECT_EQ(sync_challenge({998, 998}), 999998U); }

TEST(SyncChallenge, TakesBothNumbersModulo999) {
  EXPECT_EQ(sync_challenge({999, 999}), 1000U);
  EXPECT_EQ(sync_challenge({1000, 1001}), 2002U);
}

TEST(SyncChallenge, StaysInItsRangeForEveryNumber) {
  for (const int r : {0, 1, 998, 999, 1000, RAND_MAX - 1, RAND_MAX}) {
    EXPECT_GE(sync_challenge({r, RAND_MAX - r}), 1000U);
    EXPECT_LE(sync_challenge({r, RAND_MAX - r}), 999998U);
  }
}

TEST(Getcurtime, IsTheUtcCalendarReadAsLocalTime) {
  zelvan::test::set_clock(1'700'000'000);
  const TimeZone zone("XYZ-5");  // five hours ahead of UTC
  EXPECT_EQ(getcurtime(), 1'700'000'000 - 5 * 3600);
}

TEST(Getcurtime, LiesOnTheScaleOfStoredTime) {
  zelvan::test::set_clock(1'700'000'000);
  for (const char* name : {"UTC", "XYZ-5", "ABC11", "CET-1CEST,M3.5.0,M10.5.0/3"}) {
    const TimeZone zone(name);
    EXPECT_EQ(getcurtime() - stored_time("2023-11-14 22:13:10"), 10) << name;
  }
}

TEST(Getcurtime, SummerTimeDoesNotMoveTheDifference) {
  const TimeZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  zelvan::test::set_clock(1'720'000'000);  // 2024-07-03 09:46:40 UTC
  EXPECT_EQ(getcurtime() - stored_time("2024-07-03 09:46:00"), 40);
}

TEST(Getcurtime, ClockBeyondTheCalendarIsMinusOne) {
  zelvan::test::set_clock(std::numeric_limits<std::time_t>::max());
  EXPECT_EQ(getcurtime(), -1);
  zelvan::test::set_clock(1'700'000'000);
}

TEST(StoredTime, ReadsTheCalendar) {
  const TimeZone zone("UTC");
  EXPECT_EQ(stored_time("2023-11-14 22:13:20"), 1'700'000'000);
}

TEST(StoredTime, TakesAnyText) {
  const TimeZone zone("UTC");
  // 2000, no month, no day: the last of November 1999.
  EXPECT_EQ(stored_time(""), 943'920'000);
  EXPECT_EQ(stored_time("rubbish"), 943'920'000);
  EXPECT_EQ(stored_time("9999-99-99 99:99:99"), 253'637'152'839);
}
