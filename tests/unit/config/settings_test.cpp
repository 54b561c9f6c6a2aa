#include "config/settings.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <utility>

#include "temporary_file.h"

namespace {

using zelvan::Setting;
using zelvan::SettingGroup;
using zelvan::SettingKind;

// ---- what every key is meant to be

struct KeyRow {
  const char* section;
  const char* key;
  SettingKind kind;
  SettingGroup group;
  int number;
  const char* text;
  int limit;
};

constexpr auto kNumber = SettingKind::kNumber;
constexpr auto kText = SettingKind::kText;

constexpr KeyRow kRows[] = {
    {"DataBase", "otp_dsn", kText, SettingGroup::kDatabaseLogin, 0, nullptr, 36},
    {"DataBase", "otp_uid", kText, SettingGroup::kDatabaseLogin, 0, nullptr, 36},
    {"DataBase", "otp_pwd", kText, SettingGroup::kDatabaseLogin, 0, nullptr, 36},
    {"Radius Server", "otp_packetchecktime", kNumber, SettingGroup::kDuplicateCheck, 0, nullptr, 0},
    {"Radius Server", "radius_port", kNumber, SettingGroup::kServer, 1812, nullptr, 0},
    {"options", "otp_qent100", kNumber, SettingGroup::kServer, 6, nullptr, 0},
    {"options", "otp_qent200", kNumber, SettingGroup::kServer, 6, nullptr, 0},
    {"options", "otp_qent300", kNumber, SettingGroup::kServer, 6, nullptr, 0},
    {"options", "otp_wnd", kNumber, SettingGroup::kServer, 30, nullptr, 0},
    {"options", "otp_keylen", kNumber, SettingGroup::kServer, 20, nullptr, 0},
    {"options", "otp_logmode", kNumber, SettingGroup::kServer, 1, nullptr, 0},
    {"options", "otp_logcond", kNumber, SettingGroup::kServer, 1, nullptr, 0},
    {"DataBase", "otp_dbtype", kNumber, SettingGroup::kServer, 1, nullptr, 0},
    {"options", "otp_max_accum", kNumber, SettingGroup::kServer, 5, nullptr, 0},
    {"mail", "otp_mail_need", kNumber, SettingGroup::kServer, 1, nullptr, 0},
    {"mail", "smtp_auth_need", kNumber, SettingGroup::kMail, 0, nullptr, 0},
    {"mail", "otp_smtp_server", kText, SettingGroup::kMail, 0, nullptr, 127},
    {"mail", "mail_from", kText, SettingGroup::kMail, 0, nullptr, 55},
    {"mail", "mail_subject", kText, SettingGroup::kMail, 0, "Notice", 55},
    {"mail", "otp_smtp_port", kNumber, SettingGroup::kMail, 25, nullptr, 0},
    {"mail", "smtp_auth_user", kText, SettingGroup::kMailLogin, 0, nullptr, 55},
    {"mail", "smtp_auth_pwd", kText, SettingGroup::kMailLogin, 0, nullptr, 55},
    {"options", "otp_logpath", kText, SettingGroup::kLog, 0, "log/otplog.log", 128},
    {"options", "otp_logsize", kNumber, SettingGroup::kLog, 1, nullptr, 0},
    {"Radius Server", "otp_maxthread", kNumber, SettingGroup::kPool, 10, nullptr, 0},
    {"Radius Server", "otp_maxidletime", kNumber, SettingGroup::kPool, 60, nullptr, 0},
    {"share", "0.0.0.0", kText, SettingGroup::kShare, 0, nullptr, 56},
};

// ---- the globals by key, written down a second time, so that a wrong target in the table shows

struct NumberGlobal {
  const char* section;
  const char* key;
  int* target;
  int fallback;
};

const NumberGlobal kNumberGlobals[] = {
    {"options", "otp_qent100", &ng_pwdlen[0], 6},  {"options", "otp_qent200", &ng_pwdlen[1], 6},
    {"options", "otp_qent300", &ng_pwdlen[2], 6},  {"options", "otp_wnd", &ng_wnd, 30},
    {"options", "otp_keylen", &ng_otpkeylen, 20},  {"options", "otp_logmode", &ng_logmode, 1},
    {"options", "otp_logcond", &ng_logcond, 1},    {"DataBase", "otp_dbtype", &ng_dbtype, 1},
    {"options", "otp_max_accum", &ng_maxaccum, 5}, {"mail", "otp_mail_need", &ng_mail_need, 1},
    {"mail", "smtp_auth_need", &ng_Authneed, 0},   {"mail", "otp_smtp_port", &ng_smtp_port, 25},
};

struct TextGlobal {
  const char* key;
  char* target;
  std::size_t limit;
};

const TextGlobal kTextGlobals[] = {
    {"otp_smtp_server", g_smtp_server, 127}, {"mail_from", g_mail_from, 55},     {"mail_subject", g_mail_subject, 55},
    {"smtp_auth_user", g_smtp_user, 55},     {"smtp_auth_pwd", g_smtp_pass, 55},
};

void clear_settings() {
  for (const auto& each : kNumberGlobals) *each.target = 0;
  for (const auto& each : kTextGlobals) std::memset(each.target, 0, each.limit + 1);
  ng_packetchecktime = 0;
  usg_radiusport = 0;
  std::memset(szabsolute, 0, sizeof szabsolute);
}

using Key = std::pair<std::string, std::string>;

// The text of a settings file with these values.
std::string settings_text(const std::map<Key, std::string>& values) {
  std::string text;
  for (const auto& [key, value] : values) text += "[" + key.first + "]\n" + key.second + "=" + value + "\n";
  return text;
}

std::unique_ptr<CConfigFile> read_text(std::string_view text) {
  const zelvan::test::TemporaryFile source(text);
  auto file = std::make_unique<CConfigFile>();
  EXPECT_EQ(file->config_init(source.path()), CONFIG_INIT_OK);
  return file;
}

// A file that holds what is demanded and nothing else, mail and mail login included.
std::map<Key, std::string> demanded() {
  return {{{"DataBase", "otp_dsn"}, "dsn"},        {{"DataBase", "otp_uid"}, "uid"},
          {{"DataBase", "otp_pwd"}, "pwd"},        {{"mail", "smtp_auth_need"}, "1"},
          {{"mail", "otp_smtp_server"}, "mx"},     {{"mail", "mail_from"}, "otp@example.org"},
          {{"mail", "smtp_auth_user"}, "postman"}, {{"mail", "smtp_auth_pwd"}, "letter"}};
}

class Settings : public testing::Test {
 protected:
  void SetUp() override { clear_settings(); }
  void TearDown() override { clear_settings(); }

  bool load(const std::map<Key, std::string>& values) {
    return zelvan::load_settings(*read_text(settings_text(values)));
  }
};

}  // namespace

// ---- the table

TEST(SettingsTable, ListsEveryKeyInTheOrderOfReading) {
  ASSERT_EQ(zelvan::kSettings.size(), std::size(kRows));
  for (std::size_t i = 0; i < std::size(kRows); ++i) {
    const Setting& setting = zelvan::kSettings[i];
    SCOPED_TRACE(kRows[i].key);
    EXPECT_STREQ(setting.section, kRows[i].section);
    EXPECT_STREQ(setting.key, kRows[i].key);
    EXPECT_EQ(setting.kind, kRows[i].kind);
    EXPECT_EQ(setting.group, kRows[i].group);
    EXPECT_EQ(setting.number, kRows[i].number);
    EXPECT_STREQ(setting.text, kRows[i].text);
    EXPECT_EQ(setting.limit, kRows[i].limit);
  }
}

TEST(SettingsTable, NoKeyOccursTwice) {
  std::set<std::string> keys;
  for (const Setting& setting : zelvan::kSettings) EXPECT_TRUE(keys.insert(setting.key).second) << setting.key;
}

TEST(SettingsTable, DefaultsFitTheirLimits) {
  for (const Setting& setting : zelvan::kSettings) {
    const std::string text = setting.text != nullptr ? setting.text : "";
    EXPECT_LE(text.size(), static_cast<std::size_t>(setting.limit)) << setting.key;
  }
}

TEST(SettingsTable, NamesTheSharedSecrets) {
  EXPECT_STREQ(zelvan::kShareSection, "share");
  EXPECT_STREQ(zelvan::kShareCatchAllKey, "0.0.0.0");
  EXPECT_EQ(zelvan::kShareLimit, 56);
  EXPECT_EQ(zelvan::kShareSyncLimit, 24);
}

// No fixture: run alone, as CTest runs it, it sees the globals as the program starts with them.
TEST(SettingsGlobals, AreZeroBeforeTheyAreLoaded) {
  for (const auto& each : kNumberGlobals) EXPECT_EQ(*each.target, 0) << each.key;
  for (const auto& each : kTextGlobals) EXPECT_STREQ(each.target, "") << each.key;
  EXPECT_EQ(ng_packetchecktime, 0);
  EXPECT_EQ(usg_radiusport, 0);
}

TEST(SettingsGlobals, HaveTheSizesOthersRelyOn) {
  EXPECT_EQ(sizeof g_smtp_server, 128U);
  EXPECT_EQ(sizeof g_mail_from, 56U);
  EXPECT_EQ(sizeof g_mail_subject, 56U);
  EXPECT_EQ(sizeof g_smtp_user, 56U);
  EXPECT_EQ(sizeof g_smtp_pass, 56U);
  EXPECT_EQ(sizeof szabsolute, 261U);
}

TEST(SettingsGlobals, ServiceNameIsFixed) {
  EXPECT_STREQ(SERVICE_NAME, "OTP_RadSrv");
  EXPECT_EQ(sizeof SERVICE_NAME, 11U);
}

// Deliberate behaviour: nothing fills the directory text, so the default log path is relative.
TEST_F(Settings, LoadingLeavesTheDirectoryTextEmpty) {
  ASSERT_TRUE(load(demanded()));
  EXPECT_STREQ(szabsolute, "");
}

// ---- database login

TEST_F(Settings, EmptyFileHasNoDatabaseLogin) {
  zelvan::DatabaseLogin login;
  EXPECT_FALSE(zelvan::load_database_login(CConfigFile(), login));
}

TEST_F(Settings, DatabaseLoginIsRead) {
  zelvan::DatabaseLogin login;
  ASSERT_TRUE(zelvan::load_database_login(*read_text(settings_text(demanded())), login));
  EXPECT_STREQ(login.dsn.data(), "dsn");
  EXPECT_STREQ(login.uid.data(), "uid");
  EXPECT_STREQ(login.pwd.data(), "pwd");
}

TEST_F(Settings, EachPartOfTheDatabaseLoginIsDemanded) {
  for (const char* key : {"otp_dsn", "otp_uid", "otp_pwd"}) {
    auto values = demanded();
    values.erase({"DataBase", key});
    zelvan::DatabaseLogin login;
    EXPECT_FALSE(zelvan::load_database_login(*read_text(settings_text(values)), login)) << key;
  }
}

TEST_F(Settings, EachPartOfTheDatabaseLoginTakes36Characters) {
  for (const char* key : {"otp_dsn", "otp_uid", "otp_pwd"}) {
    for (const std::size_t length : {0U, 35U, 36U, 37U}) {
      auto values = demanded();
      values[{"DataBase", key}] = std::string(length, 'x');
      zelvan::DatabaseLogin login;
      EXPECT_EQ(zelvan::load_database_login(*read_text(settings_text(values)), login), length <= 36) << key << length;
    }
  }
}

TEST_F(Settings, DatabaseLoginStopsAtTheFirstFailure) {
  auto values = demanded();
  values.erase({"DataBase", "otp_uid"});
  zelvan::DatabaseLogin login;
  EXPECT_FALSE(zelvan::load_database_login(*read_text(settings_text(values)), login));
  EXPECT_STREQ(login.dsn.data(), "dsn");
  EXPECT_STREQ(login.pwd.data(), "");
}

TEST_F(Settings, DatabaseLoginIsWipedWhenItEnds) {
  alignas(zelvan::DatabaseLogin) std::array<unsigned char, sizeof(zelvan::DatabaseLogin)> room{};
  auto* login = new (room.data()) zelvan::DatabaseLogin;
  login->dsn.fill('x');
  login->uid.fill('x');
  login->pwd.fill('x');
  login->~DatabaseLogin();
  for (const unsigned char byte : room) ASSERT_EQ(byte, 0);
}

// ---- numbers

TEST_F(Settings, DuplicateIntervalHasADefaultOfNone) {
  ng_packetchecktime = 5;
  zelvan::load_duplicate_interval(CConfigFile());
  EXPECT_EQ(ng_packetchecktime, 0);
}

TEST_F(Settings, DuplicateIntervalIsReadAloneAndInSeconds) {
  zelvan::load_duplicate_interval(*read_text("[Radius Server]\notp_packetchecktime=7\nradius_port=1\n"));
  EXPECT_EQ(ng_packetchecktime, 7);
  EXPECT_EQ(usg_radiusport, 0);
}

TEST_F(Settings, EveryNumberHasItsDefault) {
  auto values = demanded();
  values.erase({"mail", "smtp_auth_need"});
  ASSERT_TRUE(load(values));
  for (const auto& each : kNumberGlobals) EXPECT_EQ(*each.target, each.fallback) << each.key;
  EXPECT_EQ(usg_radiusport, 1812);
  EXPECT_EQ(ng_packetchecktime, 0);
}

TEST_F(Settings, EveryNumberReachesItsOwnGlobal) {
  auto values = demanded();
  int number = 101;
  for (const auto& each : kNumberGlobals) values[{each.section, each.key}] = std::to_string(number++);
  ASSERT_TRUE(load(values));
  number = 101;
  for (const auto& each : kNumberGlobals) EXPECT_EQ(*each.target, number++) << each.key;
}

TEST_F(Settings, NumberThatIsNoneIsZeroNotTheDefault) {
  for (const char* text : {"many", ""}) {
    std::map<Key, std::string> values;
    for (const auto& each : kNumberGlobals) values[{each.section, each.key}] = text;
    values[{"Radius Server", "radius_port"}] = text;
    clear_settings();
    for (const auto& each : kNumberGlobals) *each.target = 77;
    usg_radiusport = 77;
    ASSERT_TRUE(load(values));  // no mail is needed: its settings are not read
    for (const auto& each : kNumberGlobals) {
      const bool read = each.target != &ng_Authneed && each.target != &ng_smtp_port;
      EXPECT_EQ(*each.target, read ? 0 : 77) << each.key;
    }
    EXPECT_EQ(usg_radiusport, 0);
  }
}

TEST_F(Settings, PortIsCutToSixteenBits) {
  const std::map<std::string, unsigned> ports = {{"0", 0},     {"1645", 1645},  {"65535", 65535},
                                                 {"65536", 0}, {"70000", 4464}, {"-1", 65535}};
  for (const auto& [text, port] : ports) {
    auto values = demanded();
    values[{"Radius Server", "radius_port"}] = text;
    ASSERT_TRUE(load(values));
    EXPECT_EQ(usg_radiusport, port) << text;
  }
}

// ---- mail

TEST_F(Settings, WithoutMailNoMailSettingIsRead) {
  EXPECT_TRUE(
      load({{{"mail", "otp_mail_need"}, "0"}, {{"mail", "smtp_auth_need"}, "1"}, {{"mail", "mail_from"}, "a"}}));
  EXPECT_EQ(ng_mail_need, 0);
  EXPECT_EQ(ng_Authneed, 0);
  EXPECT_EQ(ng_smtp_port, 0);
  EXPECT_STREQ(g_mail_from, "");
}

TEST_F(Settings, MailIsNeededByDefault) { EXPECT_FALSE(zelvan::load_settings(CConfigFile())); }

TEST_F(Settings, AnyOtherNumberDemandsTheMailSettings) {
  for (const char* need : {"1", "2", "-1"}) {
    EXPECT_FALSE(load({{{"mail", "otp_mail_need"}, need}})) << need;
    auto values = demanded();
    values[{"mail", "otp_mail_need"}] = need;
    EXPECT_TRUE(load(values)) << need;
  }
}

TEST_F(Settings, MailTextsReachTheirOwnGlobals) {
  auto values = demanded();
  for (const auto& each : kTextGlobals) values[{"mail", each.key}] = std::string("the ") + each.key;
  ASSERT_TRUE(load(values));
  for (const auto& each : kTextGlobals) EXPECT_EQ(each.target, std::string("the ") + each.key);
}

TEST_F(Settings, MailTextsAreDemandedButForTheSubject) {
  for (const auto& each : kTextGlobals) {
    auto values = demanded();
    values.erase({"mail", each.key});
    EXPECT_EQ(load(values), each.target == g_mail_subject) << each.key;
  }
  EXPECT_STREQ(g_mail_subject, "Notice");
}

TEST_F(Settings, MailTextsAreRefusedBeyondTheirLimits) {
  for (const auto& each : kTextGlobals) {
    for (const std::size_t length : {std::size_t{0}, each.limit - 1, each.limit, each.limit + 1}) {
      SCOPED_TRACE(each.key + std::to_string(length));
      clear_settings();
      auto values = demanded();
      const std::string text(length, 'x');
      values[{"mail", each.key}] = text;
      EXPECT_EQ(load(values), length <= each.limit);
      EXPECT_EQ(each.target, length <= each.limit ? text : "");
    }
  }
}

TEST_F(Settings, MailLoginIsReadOnlyWhenItIsNeeded) {
  for (const char* need : {"0", "no"}) {
    auto values = demanded();
    values[{"mail", "smtp_auth_need"}] = need;
    ASSERT_TRUE(load(values));
    EXPECT_STREQ(g_smtp_user, "");
    EXPECT_STREQ(g_smtp_pass, "");
    values.erase({"mail", "smtp_auth_user"});
    EXPECT_TRUE(load(values));
  }
}

TEST_F(Settings, MailLoginIsDemandedForAnyOtherNumber) {
  for (const char* need : {"1", "2", "-1"}) {
    auto values = demanded();
    values[{"mail", "smtp_auth_need"}] = need;
    EXPECT_TRUE(load(values));
    values.erase({"mail", "smtp_auth_user"});
    EXPECT_FALSE(load(values));
  }
}

TEST_F(Settings, ReadingStopsAtTheFirstFailureAndKeepsWhatCameBefore) {
  auto values = demanded();
  values[{"mail", "mail_subject"}] = std::string(56, 'x');
  values[{"mail", "otp_smtp_port"}] = "26";
  EXPECT_FALSE(load(values));
  EXPECT_EQ(ng_maxaccum, 5);
  EXPECT_EQ(ng_Authneed, 1);
  EXPECT_STREQ(g_mail_from, "otp@example.org");
  EXPECT_EQ(ng_smtp_port, 0);
  EXPECT_STREQ(g_smtp_user, "");
}

TEST_F(Settings, FailureIsSilent) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  EXPECT_FALSE(zelvan::load_settings(CConfigFile()));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Settings, LoadingAgainReplacesLongerTexts) {
  auto values = demanded();
  values[{"mail", "mail_from"}] = std::string(55, 'x');
  ASSERT_TRUE(load(values));
  ASSERT_TRUE(load(demanded()));
  EXPECT_STREQ(g_mail_from, "otp@example.org");
}

// ---- operation log

TEST_F(Settings, LogHasADefaultPathAndSize) {
  zelvan::LogSettings log;
  ASSERT_TRUE(zelvan::load_log_settings(CConfigFile(), log));
  EXPECT_STREQ(log.path.data(), "log/otplog.log");
  EXPECT_EQ(log.megabytes, 1);
}

TEST_F(Settings, LogPathAndSizeAreRead) {
  zelvan::LogSettings log;
  ASSERT_TRUE(zelvan::load_log_settings(*read_text("[options]\notp_logpath=/var/log/otp.log\notp_logsize=0\n"), log));
  EXPECT_STREQ(log.path.data(), "/var/log/otp.log");
  EXPECT_EQ(log.megabytes, 0);
}

TEST_F(Settings, EmptyLogPathIsTheDefault) {
  zelvan::LogSettings log;
  log.path.fill('x');
  ASSERT_TRUE(zelvan::load_log_settings(*read_text("[options]\notp_logpath=\n"), log));
  EXPECT_STREQ(log.path.data(), "log/otplog.log");
}

TEST_F(Settings, LogPathTakes128Characters) {
  for (const std::size_t length : {127U, 128U, 129U}) {
    zelvan::LogSettings log;
    const std::string path(length, 'p');
    const bool loaded = zelvan::load_log_settings(*read_text("[options]\notp_logpath=" + path + "\n"), log);
    EXPECT_EQ(loaded, length <= 128);
    EXPECT_EQ(log.path.data(), length <= 128 ? path : "");
  }
}

TEST_F(Settings, DefaultLogPathFollowsTheDirectoryText) {
  // 246 characters and the 14 of the default fill the 260 that a path may have.
  for (const std::size_t length : {5U, 115U, 246U, 247U, 260U}) {
    std::memset(szabsolute, 0, sizeof szabsolute);
    std::memset(szabsolute, 'd', length);
    zelvan::LogSettings log;
    const bool fits = length <= 246;
    EXPECT_EQ(zelvan::load_log_settings(CConfigFile(), log), fits) << length;
    EXPECT_EQ(log.path.data(), fits ? std::string(length, 'd') + "log/otplog.log" : "") << length;
  }
}

TEST_F(Settings, DirectoryTextIsNotPutBeforeAConfiguredPath) {
  std::memset(szabsolute, 'd', 260);
  zelvan::LogSettings log;
  ASSERT_TRUE(zelvan::load_log_settings(*read_text("[options]\notp_logpath=a.log\n"), log));
  EXPECT_STREQ(log.path.data(), "a.log");
}

// ---- worker pool

TEST_F(Settings, PoolHasDefaults) {
  const auto pool = zelvan::load_pool_settings(CConfigFile());
  EXPECT_EQ(pool.max_threads, 10);
  EXPECT_EQ(pool.idle_seconds, 60);
}

TEST_F(Settings, PoolIsRead) {
  const auto pool = zelvan::load_pool_settings(*read_text("[Radius Server]\notp_maxthread=4\notp_maxidletime=none\n"));
  EXPECT_EQ(pool.max_threads, 4);
  EXPECT_EQ(pool.idle_seconds, 0);
}
