#include "zelvanctl/settings_file.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>

#include "zelvanctl/failure.h"

using namespace zelvan::ctl;

namespace {

namespace fs = std::filesystem;

class Settings : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "zelvan-settings-XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder_ = name;
  }
  void TearDown() override { fs::remove_all(folder_); }

  [[nodiscard]] SettingsFile with(const std::string& text) const {
    std::ofstream(folder_ / "otp_conf.con") << text;
    return SettingsFile(folder_ / "otp_conf.con");
  }

  fs::path folder_;
};

// What the failure of an action says; empty when it does not fail.
template <typename Action>
std::string complaint(Action action) {
  try {
    action();
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.code(), kUnreachable);
    return failure.what();
  }
  return {};
}

}  // namespace

TEST_F(Settings, AMissingFileIsTold) {
  EXPECT_NE(complaint([&] { SettingsFile file(folder_ / "none"); }).find("there is no settings file"),
            std::string::npos);
}

TEST_F(Settings, AFolderIsNoFile) {
  EXPECT_NE(complaint([&] { SettingsFile file(folder_); }).find("is a folder"), std::string::npos);
}

TEST_F(Settings, NumbersHaveTheDefaultsOfTheServer) {
  const SettingsFile file = with("[options]\notp_wnd=7\n");
  EXPECT_EQ(file.number("otp_wnd"), 7);
  EXPECT_EQ(file.number("otp_max_accum"), 5);
  EXPECT_THROW((void)file.number("no_such_key"), Failure);
}

TEST_F(Settings, TheMissingKeyOfTheLoginIsNamed) {
  const SettingsFile file = with("[DataBase]\notp_dsn=x\notp_uid=\n");
  zelvan::DatabaseLogin login;
  EXPECT_NE(complaint([&] { file.database_login(login); }).find("otp_pwd"), std::string::npos);
}

TEST_F(Settings, TheLongKeyOfTheLoginIsNamed) {
  const SettingsFile file = with("[DataBase]\notp_dsn=x\notp_uid=" + std::string(37, 'u') + "\notp_pwd=\n");
  zelvan::DatabaseLogin login;
  EXPECT_NE(complaint([&] { file.database_login(login); }).find("otp_uid"), std::string::npos);
}

TEST_F(Settings, TheLoginIsRead) {
  const SettingsFile file = with("[DataBase]\notp_dsn=x\notp_uid=u\notp_pwd=p\n");
  zelvan::DatabaseLogin login;
  file.database_login(login);
  EXPECT_STREQ(login.dsn.data(), "x");
  EXPECT_STREQ(login.pwd.data(), "p");
}

TEST_F(Settings, TheLogPathHasTheServersDefaultAndLimit) {
  EXPECT_EQ(with("").log_path(), "log/otplog.log");
  EXPECT_EQ(with("[options]\notp_logpath=/x\n").log_path(), "/x");
  const SettingsFile file = with("[options]\notp_logpath=" + std::string(129, 'x') + "\n");
  EXPECT_NE(complaint([&] { (void)file.log_path(); }), "");
}
