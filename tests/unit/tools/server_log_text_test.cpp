#include "zelvanctl/server_log_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace zelvan::ctl;
using testing::HasSubstr;

namespace {

const std::string kTime = "2026-01-02 03:04:05 ";

std::optional<Finding> judged(const std::string& log, bool server_runs = false) {
  return judge_server_log(last_server_lines(log, 3), server_runs);
}

}  // namespace

TEST(ServerLogText, TakesTheLastLines) {
  const auto lines = last_server_lines(kTime + "a\n" + kTime + "b\n" + kTime + "c\n" + kTime + "d\n", 3);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines.front().text, "b");
  EXPECT_EQ(lines.back().text, "d");
  EXPECT_EQ(lines.back().time, "2026-01-02 03:04:05");
}

TEST(ServerLogText, ALastLineWithoutLineFeedCounts) {
  EXPECT_EQ(last_server_lines(kTime + "a\n" + kTime + "b", 1).front().text, "b");
}

TEST(ServerLogText, OtherLinesAreKeptAsTheyAre) {
  const auto lines = last_server_lines("\nrubbish\n", 5);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].text, "");
  EXPECT_EQ(lines[1].text, "rubbish");
  EXPECT_EQ(lines[1].time, "");
}

TEST(ServerLogText, AnEmptyLogTellsNothing) {
  EXPECT_TRUE(last_server_lines("", 3).empty());
  EXPECT_FALSE(judged(""));
}

class FailureLine : public testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(FailureLine, IsExplained) {
  const auto finding = judged(kTime + "server starting...\n" + kTime + GetParam().first + "\n");
  ASSERT_TRUE(finding);
  EXPECT_EQ(finding->level, Finding::Level::error);
  EXPECT_THAT(finding->text, HasSubstr(GetParam().second));
}

INSTANTIATE_TEST_SUITE_P(
    ServerLogText, FailureLine,
    testing::Values(std::pair{"Zelvan Server stop.Get module path failed.", "/proc"},
                    std::pair{"Zelvan server stop.Function CConfigFile::config_init failed.", "could not be opened"},
                    std::pair{"Zelvan server stop.Get database connection params failed.", "otp_dsn"},
                    std::pair{"Zelvan server stop.Can not connect to database.", "11 attempts"}));

TEST(ServerLogText, AStartWithoutAServerPointsToTheMailSettings) {
  EXPECT_THAT(judged(kTime + "server starting...\n")->text, HasSubstr("otp_mail_need"));
}

TEST(ServerLogText, AStartWithAServerIsFine) { EXPECT_FALSE(judged(kTime + "server starting...\n", true)); }

TEST(ServerLogText, AnOrderlyStopIsFine) { EXPECT_FALSE(judged(kTime + "Zelvan down...\n")); }
