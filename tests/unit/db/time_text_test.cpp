#include "db/time_text.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "config/settings.h"
#include "support/fake_clock.h"

namespace {

using zelvan::kStoredDateFormat;

constexpr const char* kTime = "2024-03-05 17:04:09";

// A dialect for one test.
class Dialect {
 public:
  explicit Dialect(int dialect) { ng_dbtype = dialect; }
  ~Dialect() { ng_dbtype = 0; }
  Dialect(const Dialect&) = delete;
  Dialect& operator=(const Dialect&) = delete;
};

// A time zone for one test.
class TimeZone {
 public:
  explicit TimeZone(const char* name) {
    if (const char* before = std::getenv("TZ")) before_ = before;
    set(name);
  }
  ~TimeZone() { set(before_.empty() ? nullptr : before_.c_str()); }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;

 private:
  static void set(const char* name) {
    if (name != nullptr) setenv("TZ", name, 1);
    if (name == nullptr) unsetenv("TZ");
    tzset();
  }
  std::string before_;
};

std::string wrapped(int (*wrap)(char*, int), int dialect, const char* text, int limit) {
  const Dialect set(dialect);
  std::array<char, 256> buffer{};
  std::snprintf(buffer.data(), buffer.size(), "%s", text);
  const int result = wrap(buffer.data(), limit);
  return std::to_string(result) + " " + buffer.data();
}

struct tm parsed(const char* text, const char* format) {
  struct tm out {};
  EXPECT_EQ(str2time(text, format, out), 1) << text;
  return out;
}

// Year, month, day, hour, minute and second, as a reader counts them.
std::array<int, 6> parts(const struct tm& time) {
  return {time.tm_year + 1900, time.tm_mon + 1, time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec};
}

std::string utc_text(std::time_t seconds) {
  struct tm time {};
  gmtime_r(&seconds, &time);
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &time);
  return text.data();
}

}  // namespace

// ---- date literals and column expressions

TEST(TimeText, WrappingNothingIsReported) {
  EXPECT_EQ(otp_todate(nullptr, 56), TIME_WRAP_NULL);
  EXPECT_EQ(otp_tochar(nullptr, 99), TIME_WRAP_NULL);
  EXPECT_EQ(TIME_WRAP_NULL, 0);
  EXPECT_EQ(TIME_WRAP_OK, 1);
  EXPECT_EQ(TIME_WRAP_TOO_LONG, -1);
}

TEST(TimeText, LimitsOfTheCallersAreNamed) {
  EXPECT_EQ(zelvan::kDateLiteralLimit, 56);
  EXPECT_EQ(zelvan::kColumnExpressionLimit, 99);
  EXPECT_STREQ(kStoredDateFormat, "YYYY-MM-DD hh24:mi:ss");
}

TEST(TimeText, FunctionDialectConverts) {
  EXPECT_EQ(wrapped(otp_todate, 4, kTime, 56), "1 to_date('2024-03-05 17:04:09','yyyy-mm-dd hh24:mi:ss')");
  EXPECT_EQ(wrapped(otp_tochar, 4, "preusedate", 99), "1 to_char(preusedate,'yyyy-mm-dd hh24:mi:ss')");
}

TEST(TimeText, ConvertDialectKeepsTheColumnName) {
  EXPECT_EQ(wrapped(otp_todate, 3, kTime, 56), "1 '2024-03-05 17:04:09'");
  EXPECT_EQ(wrapped(otp_tochar, 3, "preusedate", 99), "1 CONVERT(VARCHAR, preusedate, 120) preusedate");
}

TEST(TimeText, EveryOtherDialectIsPlain) {
  for (const int dialect : {0, 1, 2, 5, 7, -1, INT_MAX}) {
    EXPECT_EQ(wrapped(otp_todate, dialect, kTime, 56), "1 '2024-03-05 17:04:09'") << dialect;
    EXPECT_EQ(wrapped(otp_tochar, dialect, "preusedate", 99), "1 preusedate") << dialect;
  }
}

TEST(TimeText, TextIsNotEscaped) { EXPECT_EQ(wrapped(otp_todate, 1, "a'b", 56), "1 'a'b'"); }

TEST(TimeText, EmptyTextIsWrapped) {
  EXPECT_EQ(wrapped(otp_todate, 1, "", 2), "1 ''");
  EXPECT_EQ(wrapped(otp_tochar, 1, "", 0), "1 ");
}

TEST(TimeText, ResultOfExactlyTheLimitFits) {
  EXPECT_EQ(wrapped(otp_todate, 4, kTime, 54), "1 to_date('2024-03-05 17:04:09','yyyy-mm-dd hh24:mi:ss')");
  EXPECT_EQ(wrapped(otp_todate, 1, kTime, 21), "1 '2024-03-05 17:04:09'");
  EXPECT_EQ(wrapped(otp_tochar, 3, "c", 26), "1 CONVERT(VARCHAR, c, 120) c");
  EXPECT_EQ(wrapped(otp_tochar, 1, "column", 6), "1 column");
}

TEST(TimeText, ResultBeyondTheLimitLeavesTheBufferAlone) {
  EXPECT_EQ(wrapped(otp_todate, 4, kTime, 53), std::string("-1 ") + kTime);
  EXPECT_EQ(wrapped(otp_todate, 1, kTime, 20), std::string("-1 ") + kTime);
  EXPECT_EQ(wrapped(otp_tochar, 3, "c", 25), "-1 c");
  EXPECT_EQ(wrapped(otp_tochar, 1, "column", 5), "-1 column");
  for (const int limit : {0, -1, INT_MIN}) EXPECT_EQ(wrapped(otp_todate, 1, kTime, limit), std::string("-1 ") + kTime);
}

TEST(TimeText, BufferNeedsTheLimitPlusOneByte) {
  const Dialect plain(1);
  for (const std::size_t length : {54U, 55U}) {
    const auto buffer = std::make_unique<char[]>(57);  // on the heap, where an overrun is seen
    std::memset(buffer.get(), 'x', length);
    EXPECT_EQ(otp_todate(buffer.get(), 56), length == 54 ? TIME_WRAP_OK : TIME_WRAP_TOO_LONG);
  }
}

// ---- the current time

TEST(TimeText, CurrentTimeIsUtc) {
  const TimeZone berlin("Europe/Berlin");
  zelvan::test::set_clock(1'709'658'249);
  std::array<char, zelvan::kTimeTextSize> buffer{};
  EXPECT_EQ(otp_getcurdate(buffer.data()), 19);
  EXPECT_STREQ(buffer.data(), kTime);
}

TEST(TimeText, CurrentTimeBeyondTheCalendarIsEmpty) {
  zelvan::test::set_clock(std::numeric_limits<std::time_t>::max());
  std::array<char, zelvan::kTimeTextSize> buffer{"old"};
  EXPECT_EQ(otp_getcurdate(buffer.data()), 0);
  EXPECT_STREQ(buffer.data(), "");
  zelvan::test::set_clock(1'700'000'000);
}

TEST(TimeText, ManyThreadsMayAskForTheTime) {
  zelvan::test::set_clock(1'709'658'249);
  std::array<std::thread, 4> threads;
  std::atomic<int> wrong{0};
  for (auto& thread : threads) {
    thread = std::thread([&wrong] {
      std::array<char, zelvan::kTimeTextSize> buffer{};
      for (int i = 0; i < 1000; ++i) {
        if (otp_getcurdate(buffer.data()) != 19 || std::strcmp(buffer.data(), kTime) != 0) ++wrong;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

// ---- format names

TEST(TimeText, FormatNamesAreRated) {
  EXPECT_EQ(checktm(nullptr), 0);
  for (const char* name : {"YYYY-MM-DD hh24:mi:ss", "YYYY-MM-DD hh:mi:ss", "Y-M-D h:m:s", "YYYY/MM/DD hh24:mi:ss",
                           "Y/M/D h:m:s", "yyyy-mm-dd HH24:MI:SS", "y/m/d H:M:S"}) {
    EXPECT_EQ(checktm(name), 1) << name;
  }
  EXPECT_EQ(checktm("YYYY-MM-DD"), 2);
  EXPECT_EQ(checktm("yyyy-mm-dd"), 2);
}

TEST(TimeText, ShortDateNameIsUnusable) {
  EXPECT_EQ(checktm("Y-M-D"), 0);
  EXPECT_EQ(checktm("y-m-d"), 0);
}

TEST(TimeText, UnknownFormatNameIsADate) {
  for (const char* name : {"DD.MM.YYYY", "", "YYYY-MM-DD hh24:mi:ss ", "Y/M/D", "YYYY-MM-DD hh24:mi"}) {
    EXPECT_EQ(checktm(name), 2) << name;
  }
}

// ---- parsing

TEST(TimeText, ParsingNothingLeavesTheTimeAlone) {
  struct tm out {};
  out.tm_year = 7;
  EXPECT_EQ(str2time(nullptr, kStoredDateFormat, out), 0);
  EXPECT_EQ(str2time(kTime, nullptr, out), 0);
  EXPECT_EQ(str2time(kTime, "Y-M-D", out), 0);
  EXPECT_EQ(out.tm_year, 7);
}

struct ParseCase {
  const char* text;
  const char* format;
  std::array<int, 6> parts;
};

class TimeTextParse : public testing::TestWithParam<ParseCase> {};

TEST_P(TimeTextParse, TakesTheFieldsApart) {
  EXPECT_EQ(parts(parsed(GetParam().text, GetParam().format)), GetParam().parts) << GetParam().text;
}

constexpr const char* kDateTime = "YYYY-MM-DD hh24:mi:ss";
constexpr const char* kSlashDateTime = "YYYY/MM/DD hh24:mi:ss";
constexpr const char* kDate = "YYYY-MM-DD";

INSTANTIATE_TEST_SUITE_P(TimeText, TimeTextParse,
                         testing::Values(ParseCase{kTime, kDateTime, {2024, 3, 5, 17, 4, 9}},
                                         ParseCase{kTime, "YYYY-MM-DD hh:mi:ss", {2024, 3, 5, 17, 4, 9}},
                                         ParseCase{"24-3-5 1:2:3", kDateTime, {2024, 3, 5, 1, 2, 3}},
                                         // The year runs on to the blank: the time lands in month, day and hour.
                                         ParseCase{"2024/03/05 10:11:12", kSlashDateTime, {2024, 10, 11, 12, 0, 0}},
                                         ParseCase{"2024/03/05 10:11:12", kDateTime, {2024, 10, 11, 12, 0, 0}},
                                         // Behind the year a slash ends a field, and in a date it ends the year too.
                                         ParseCase{"2024-03/05/17/04/09", kDateTime, {2024, 3, 5, 17, 4, 9}},
                                         ParseCase{"2024/03/05", kDate, {2024, 3, 5, 0, 0, 0}},
                                         ParseCase{"2024/03/05", "unknown", {2024, 3, 5, 0, 0, 0}},
                                         ParseCase{kTime, kDate, {2024, 3, 5, 0, 0, 0}},
                                         ParseCase{"2024 03 05 17 04 09", kDateTime, {2024, 3, 5, 17, 4, 9}},
                                         ParseCase{"2024:03:05:17:04:09", kDateTime, {2024, 3, 5, 17, 4, 9}},
                                         ParseCase{"2024-03-05 17:04:09.123", kDateTime, {2024, 3, 5, 17, 4, 9}},
                                         ParseCase{"99-1-1 0:0:0", kDateTime, {2099, 1, 1, 0, 0, 0}},
                                         ParseCase{"100-1-1 0:0:0", kDateTime, {100, 1, 1, 0, 0, 0}},
                                         ParseCase{"0-1-1 0:0:0", kDateTime, {2000, 1, 1, 0, 0, 0}},
                                         // Exactly one separator is skipped: a second one is an empty field.
                                         ParseCase{"2024--05 17:04:09", kDateTime, {2024, 0, 5, 17, 4, 9}},
                                         ParseCase{"2024-03-05  17:04:09", kDateTime, {2024, 3, 5, 0, 17, 4}},
                                         ParseCase{"-03-05 17:04:09", kDateTime, {2000, 3, 5, 17, 4, 9}},
                                         // Missing fields.
                                         ParseCase{"", kDateTime, {2000, 0, 0, 0, 0, 0}},
                                         ParseCase{"", kDate, {2000, 0, 0, 0, 0, 0}},
                                         ParseCase{"2024", kDateTime, {2024, 0, 0, 0, 0, 0}},
                                         ParseCase{"2024-", kDateTime, {2024, 0, 0, 0, 0, 0}},
                                         ParseCase{"2024-03-05", kDateTime, {2024, 3, 5, 0, 0, 0}},
                                         ParseCase{"2024-03-05 17:04", kDateTime, {2024, 3, 5, 17, 4, 0}},
                                         // Fields beyond their width are cut, and the rest of them is passed over.
                                         ParseCase{"20245-031-059 170:045:099", kDateTime, {2024, 3, 5, 17, 4, 9}},
                                         // No number and out of range: zero, and as it stands.
                                         ParseCase{"year-mm-dd hh:mi:ss", kDateTime, {2000, 0, 0, 0, 0, 0}},
                                         ParseCase{"2024-13-45 25:75:99", kDateTime, {2024, 13, 45, 25, 75, 99}},
                                         ParseCase{"+24-+3-\t5 1x:2:3", kDateTime, {2024, 3, 5, 1, 2, 3}}));

TEST(TimeText, DateLeavesTheTimeOfDayAsItWas) {
  struct tm out {};
  out.tm_hour = 1;
  out.tm_min = 2;
  out.tm_sec = 3;
  out.tm_isdst = 1;
  out.tm_wday = 4;
  EXPECT_EQ(str2time(kTime, "YYYY-MM-DD", out), 1);
  EXPECT_EQ(parts(out), (std::array<int, 6>{2024, 3, 5, 1, 2, 3}));
  EXPECT_EQ(out.tm_isdst, 1);
  EXPECT_EQ(out.tm_wday, 4);
}

TEST(TimeText, DateAndTimeTurnsDaylightSavingOffAndSetsNothingElse) {
  struct tm out {};
  out.tm_isdst = 1;
  out.tm_wday = 4;
  out.tm_yday = 5;
  EXPECT_EQ(str2time(kTime, kStoredDateFormat, out), 1);
  EXPECT_EQ(out.tm_isdst, 0);
  EXPECT_EQ(out.tm_wday, 4);
  EXPECT_EQ(out.tm_yday, 5);
}

// ---- differences

TEST(TimeText, DifferenceIsFirstMinusSecond) {
  EXPECT_EQ(otp_diff_time("2024-03-05 17:14:09", kDateTime, kTime, kDateTime), 600);
  EXPECT_EQ(otp_diff_time(kTime, kDateTime, "2024-03-05 17:14:09", kDateTime), -600);
  EXPECT_EQ(otp_diff_time(kTime, kDateTime, kTime, kDateTime), 0);
  EXPECT_EQ(otp_diff_time("2024-03-01 00:00:00", kDateTime, "2024-02-28 23:59:59", kDateTime), 86'401);
}

TEST(TimeText, DifferenceOfNothingIsMinusOne) {
  EXPECT_EQ(otp_diff_time(nullptr, kDateTime, kTime, kDateTime), -1);
  EXPECT_EQ(otp_diff_time(kTime, nullptr, kTime, kDateTime), -1);
  EXPECT_EQ(otp_diff_time(kTime, kDateTime, nullptr, kDateTime), -1);
  EXPECT_EQ(otp_diff_time(kTime, kDateTime, kTime, nullptr), -1);
  EXPECT_EQ(otp_diff_time(kTime, "Y-M-D", kTime, kDateTime), -1);
  EXPECT_EQ(otp_diff_time(kTime, kDateTime, kTime, "Y-M-D"), -1);
}

TEST(TimeText, TimeThatReadsAsAFailedConversionGivesMinusOne) {
  const TimeZone utc("UTC");
  EXPECT_EQ(otp_diff_time("1969-12-31 23:59:59", kDateTime, "1970-01-01 00:00:09", kDateTime), -1);
  EXPECT_EQ(otp_diff_time("1970-01-01 00:00:09", kDateTime, "1969-12-31 23:59:59", kDateTime), -1);
  EXPECT_EQ(otp_diff_time("1970-01-01 00:00:09", kDateTime, "1969-12-31 23:59:58", kDateTime), 11);
}

TEST(TimeText, EachSideHasItsOwnFormat) {
  EXPECT_EQ(otp_diff_time("2024-03-05 00:00:07", kDateTime, "2024/03/05", "YYYY-MM-DD"), 7);
}

TEST(TimeText, DatesCountFromMidnight) {
  EXPECT_EQ(otp_diff_time("2024-03-06 23:00:00", "YYYY-MM-DD", "2024-03-05 01:00:00", "YYYY-MM-DD"), 86'400);
}

TEST(TimeText, OutOfRangeFieldsAreNormalised) {
  EXPECT_EQ(otp_diff_time("2024-13-01 00:75:00", kDateTime, "2025-01-01 01:15:00", kDateTime), 0);
}

TEST(TimeText, DifferenceBeyond32BitsIsClamped) {
  const TimeZone utc("UTC");
  EXPECT_EQ(otp_diff_time("9999-12-31 23:59:59", kDateTime, "2000-01-01 00:00:00", kDateTime), INT_MAX);
  EXPECT_EQ(otp_diff_time("2000-01-01 00:00:00", kDateTime, "9999-12-31 23:59:59", kDateTime), INT_MIN);
  EXPECT_EQ(otp_diff_time("2038-01-19 03:14:07", kDateTime, "1970-01-01 00:00:00", kDateTime), INT_MAX);
  EXPECT_EQ(otp_diff_time("2038-01-19 03:14:06", kDateTime, "1970-01-01 00:00:00", kDateTime), INT_MAX - 1);
}

class TimeTextZone : public testing::TestWithParam<const char*> {};

TEST_P(TimeTextZone, DifferenceOfWrittenTimesIsTheTimeBetweenThem) {
  const TimeZone zone(GetParam());
  std::mt19937_64 random(42);
  std::uniform_int_distribution<std::time_t> moment(820'454'400, 4'102'444'799);  // 1996 to 2099
  for (int round = 0; round < 20'000; ++round) {
    const std::time_t first = moment(random);
    const std::time_t apart = static_cast<std::time_t>(random() % 63'000'000);  // up to two years
    const std::time_t second = first - apart;
    ASSERT_EQ(otp_diff_time(utc_text(first).c_str(), kDateTime, utc_text(second).c_str(), kDateTime), apart)
        << utc_text(first) << " " << utc_text(second);
  }
}

TEST_P(TimeTextZone, ChangeOfTheClocksDoesNotShow) {
  const TimeZone zone(GetParam());
  // Across 2024-03-31 02:30, which Berlin's clocks skip, and 2024-10-27 02:30, which they show twice.
  EXPECT_EQ(otp_diff_time("2024-03-31 04:00:00", kDateTime, "2024-03-31 01:00:00", kDateTime), 10'800);
  EXPECT_EQ(otp_diff_time("2024-03-31 02:30:00", kDateTime, "2024-03-31 01:30:00", kDateTime), 3'600);
  EXPECT_EQ(otp_diff_time("2024-10-27 04:00:00", kDateTime, "2024-10-27 01:00:00", kDateTime), 10'800);
}

INSTANTIATE_TEST_SUITE_P(TimeText, TimeTextZone,
                         testing::Values("UTC", "Europe/Berlin", "America/New_York", "Australia/Lord_Howe"));

// The buffers are of exactly the text's size, so that the address sanitizer sees a read past the end.
TEST(TimeText, RandomTextIsNeverReadPastItsEnd) {
  std::mt19937 random(7);
  constexpr std::string_view kBytes = "0123456789-- ::/+x\t\xFF";
  for (int round = 0; round < 50'000; ++round) {
    const std::size_t length = random() % 26;
    const auto text = std::make_unique<char[]>(length + 1);
    for (std::size_t i = 0; i < length; ++i) text[i] = kBytes[random() % kBytes.size()];
    for (const char* format : {kDateTime, kSlashDateTime, kDate}) {
      const struct tm out = parsed(text.get(), format);
      ASSERT_TRUE(out.tm_year >= 100 - 1900 && out.tm_year <= 9999 - 1900) << text.get();
      ASSERT_TRUE(out.tm_mon >= -1 && out.tm_mon <= 98 && out.tm_mday >= 0 && out.tm_mday <= 99) << text.get();
      (void)otp_diff_time(text.get(), format, kTime, kDateTime);
    }
  }
}
