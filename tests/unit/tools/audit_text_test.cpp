#include "zelvanctl/audit_text.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>

#include "zelvanctl/utc_time.h"

using namespace zelvan::ctl;

namespace {

namespace fs = std::filesystem;

class AuditFiles : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "zelvan-audit-XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder_ = name;
  }
  void TearDown() override { fs::remove_all(folder_); }

  void make(const std::string& name) const { std::ofstream(folder_ / name) << "x\n"; }

  std::vector<std::string> found() const {
    std::vector<std::string> names;
    for (const auto& file : log_files(folder_ / "otp.log")) names.push_back(file.filename().string());
    return names;
  }

  fs::path folder_;
};

}  // namespace

TEST(AuditText, ASuccessNamesItsUser) {
  const AuditEvent event = parse_log_line("2026-01-31 08:00:00\talice auth succeeded.");
  EXPECT_EQ(event.time, "2026-01-31 08:00:00");
  EXPECT_EQ(event.user, "alice");
  EXPECT_EQ(event.outcome, Outcome::success);
}

TEST(AuditText, AFailureNamesItsUserAndClient) {
  const AuditEvent event = parse_log_line("2026-01-31 08:00:00\tb ob auth failed.Request from:192.0.2.1");
  EXPECT_EQ(event.user, "b ob");
  EXPECT_EQ(event.client, "192.0.2.1");
  EXPECT_EQ(event.outcome, Outcome::failure);
}

TEST(AuditText, AFailedUpdateNamesItsUser) {
  const AuditEvent event = parse_log_line("2026-01-31 08:00:00\tUpdate userinfo failed.Username:a.b.");
  EXPECT_EQ(event.user, "a.b");
  EXPECT_EQ(event.outcome, Outcome::update_failed);
}

TEST(AuditText, AUserCannotForgeAnOutcome) {
  const AuditEvent event = parse_log_line("2026-01-31 08:00:00\tx auth succeeded. auth failed.Request from:192.0.2.1");
  EXPECT_EQ(event.outcome, Outcome::failure);
  EXPECT_EQ(event.user, "x auth succeeded.");
}

TEST(AuditText, OtherLinesAreKept) {
  EXPECT_EQ(parse_log_line("").outcome, Outcome::other);
  const AuditEvent event = parse_log_line("no time here");
  EXPECT_EQ(event.time, "");
  EXPECT_EQ(event.text, "no time here");
}

TEST(AuditText, RowsHaveTheSameOutcomes) {
  EXPECT_EQ(audit_row("t", "u", "auth succeed", "c").outcome, Outcome::success);
  EXPECT_EQ(audit_row("t", "u", "auth failed.", "c").outcome, Outcome::failure);
  EXPECT_EQ(audit_row("t", "u", "Update userinfo failed.", "c").outcome, Outcome::update_failed);
  EXPECT_EQ(audit_row("t", "u", "else", "c").outcome, Outcome::other);
}

TEST(AuditText, TheFilterKnowsUserTimeAndOutcome) {
  const AuditEvent event = audit_row("2026-01-31 08:00:00", "alice", "auth succeed", "c");
  EXPECT_TRUE(AuditFilter{}.wants(event));
  EXPECT_FALSE((AuditFilter{"bob", {}, false}).wants(event));
  EXPECT_FALSE((AuditFilter{"", {}, true}).wants(event));
  const std::time_t time = *parse_time("2026-01-31 08:00:00");
  EXPECT_TRUE((AuditFilter{"alice", time, false}).wants(event));
  EXPECT_FALSE((AuditFilter{"alice", time + 1, false}).wants(event));
}

TEST_F(AuditFiles, NoFileIsNoList) { EXPECT_TRUE(found().empty()); }

TEST_F(AuditFiles, AMissingFolderIsNoList) { EXPECT_TRUE(log_files(folder_ / "none" / "otp.log").empty()); }

TEST_F(AuditFiles, TheOldestComesFirstAndTheCurrentLast) {
  for (const char* name : {"otp.log", "otp.log1000.bak.log", "otp.log999.bak.log", "otp.log20000.bak.log"}) make(name);
  EXPECT_EQ(found(),
            (std::vector<std::string>{"otp.log999.bak.log", "otp.log1000.bak.log", "otp.log20000.bak.log", "otp.log"}));
}

TEST_F(AuditFiles, OtherFilesAreLeftAlone) {
  for (const char* name :
       {"otp.log.bak.log", "otp.logx.bak.log", "other.log1.bak.log", "otp.log12.bak", "otp.log1 .bak.log"}) {
    make(name);
  }
  EXPECT_TRUE(found().empty());
}
