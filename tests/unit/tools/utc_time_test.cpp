#include "zelvanctl/utc_time.h"

#include <gtest/gtest.h>

using zelvan::ctl::duration_words;
using zelvan::ctl::parse_moment;
using zelvan::ctl::parse_time;
using zelvan::ctl::time_text;

TEST(UtcTime, WhatIsNoTimeIsRefused) {
  for (const char* text : {"", "2024", "2024-02-30", "2024-13-01", "2023-02-29 00:00:00", "2024-01-01 24:00:00",
                           "2024-01-01 00:60:00", "2024-01-01 00:00:61", "2024/01/01", "2024-01-01x00:00:00",
                           "2024-01-01 00:00:0x", "-024-01-01", "2024-01-01 00:00:00 "}) {
    EXPECT_FALSE(parse_time(text)) << text;
  }
}

TEST(UtcTime, ReadsWhatItWrites) {
  EXPECT_EQ(time_text(0), "1970-01-01 00:00:00");
  EXPECT_EQ(time_text(1709658249), "2024-03-05 17:04:09");
  EXPECT_EQ(parse_time("2024-03-05 17:04:09"), 1709658249);
  EXPECT_EQ(parse_time("2038-01-19 03:14:08"), 2147483648);
}

TEST(UtcTime, TakesTheOtherWaysToWriteATime) {
  EXPECT_EQ(parse_time("2024-03-05"), 1709596800);
  EXPECT_EQ(parse_time("2024-03-05T17:04:09Z"), 1709658249);
  EXPECT_EQ(parse_time("2024-03-05 17:04:09.123456"), 1709658249);
  EXPECT_EQ(parse_time("2024-02-29 00:00:00"), 1709164800);
}

TEST(UtcTime, AMomentMayBeSoLongAgo) {
  EXPECT_EQ(parse_moment("90s", 1000), 910);
  EXPECT_EQ(parse_moment("2m", 1000), 880);
  EXPECT_EQ(parse_moment("1h", 10000), 6400);
  EXPECT_EQ(parse_moment("1d", 100000), 13600);
  EXPECT_EQ(parse_moment("1w", 1000000), 395200);
  EXPECT_EQ(parse_moment("2024-03-05", 0), 1709596800);
}

TEST(UtcTime, OtherWordsAreNoMoment) {
  for (const char* text : {"", "h", "-5m", "5x", "5.5h", "yesterday", "99999999999h"}) {
    EXPECT_FALSE(parse_moment(text, 0)) << text;
  }
}

TEST(UtcTime, LengthsAreTold) {
  EXPECT_EQ(duration_words(0), "0 seconds");
  EXPECT_EQ(duration_words(1), "1 second");
  EXPECT_EQ(duration_words(59), "59 seconds");
  EXPECT_EQ(duration_words(60), "1 minute");
  EXPECT_EQ(duration_words(7199), "1 hour");
  EXPECT_EQ(duration_words(2 * 86400), "2 days");
}
