#include "server/startup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <string>

#include "config/ConfigFile.h"
#include "config/settings.h"
#include "db/OTPDatabase.h"
#include "mail/notifier.h"
#include "server/duplicate_filter.h"
#include "server/sender.h"
#include "support/fake_odbc.h"
#include "support/fake_sleep.h"
#include "unit/server/temporary_folder.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using zelvan::test::OdbcCall;

constexpr const char* kDown = "Zelvan down...";
constexpr const char* kNoSettings = "Zelvan server stop.Function CConfigFile::config_init failed.";
constexpr const char* kNoLogin = "Zelvan server stop.Get database connection params failed.";
constexpr const char* kNoDatabase = "Zelvan server stop.Can not connect to database.";

constexpr const char* kDatabase = "[DataBase]\notp_dsn=source\notp_uid=user\notp_pwd=password\n";

std::optional<int> connect_answer;  // what DBConnect returns in place of its own result

}  // namespace

// COTPDatabase::DBConnect, called through the linker's --wrap.
extern "C" {
int __real__ZN12COTPDatabase9DBConnectEPKhsS1_sS1_s(COTPDatabase* self, const SQLCHAR* dsn, SQLSMALLINT dsn_length,
                                                    const SQLCHAR* uid, SQLSMALLINT uid_length, const SQLCHAR* pwd,
                                                    SQLSMALLINT pwd_length);
int __wrap__ZN12COTPDatabase9DBConnectEPKhsS1_sS1_s(COTPDatabase* self, const SQLCHAR* dsn, SQLSMALLINT dsn_length,
                                                    const SQLCHAR* uid, SQLSMALLINT uid_length, const SQLCHAR* pwd,
                                                    SQLSMALLINT pwd_length) {
  EXPECT_THAT((std::array{dsn_length, uid_length, pwd_length}), Each(SQL_NTS));
  const int result =
      __real__ZN12COTPDatabase9DBConnectEPKhsS1_sS1_s(self, dsn, dsn_length, uid, uid_length, pwd, pwd_length);
  return connect_answer.value_or(result);
}
}

namespace {

// Every server of these tests ends: none gets past servicemain, which refuses a log path of 129 characters.
class Startup : public testing::Test {
 protected:
  void SetUp() override {
    zelvan::test::odbc_reset();
    zelvan::test::clear_sleeps();
    connect_answer.reset();
    std::destroy_at(&configfile);
    std::construct_at(&configfile);
    ng_packetchecktime = usg_radiusport = 0;
    ng_mail_need = ng_Authneed = ng_smtp_port = 0;
    for (char* text : {g_smtp_server, g_mail_from, g_mail_subject, g_smtp_user, g_smtp_pass}) text[0] = '\0';
  }

  // Runs a server whose settings file holds these lines besides the log path.
  int serve(const std::string& settings) {
    folder_.write("config/otp_conf.con", settings + "[options]\notp_logpath=" + std::string(129, 'p') + "\n");
    return zelvan::serve(folder_.path());
  }

  int serve_with_mail(const std::string& mail) { return serve(std::string(kDatabase) + "[mail]\n" + mail); }

  [[nodiscard]] std::vector<std::string> log() const { return startup_log(folder_); }

  zelvan::test::TemporaryFolder folder_;
};

}  // namespace

TEST_F(Startup, WithoutSettingsFileSaysSo) {
  EXPECT_EQ(zelvan::serve(folder_.path()), zelvan::EXIT_DONE);
  EXPECT_THAT(log(), ElementsAre(kNoSettings));
  EXPECT_EQ(zelvan::test::odbc_count(OdbcCall::connect), 0);
}

TEST_F(Startup, EmptySettingsFileIsLoadedAndLacksTheLogin) {
  folder_.write("config/otp_conf.con", "");
  EXPECT_EQ(zelvan::serve(folder_.path()), zelvan::EXIT_DONE);
  EXPECT_THAT(log(), ElementsAre(kNoLogin));
}

TEST_F(Startup, LogLineBeginsWithTheTime) {
  EXPECT_EQ(zelvan::serve(folder_.path()), zelvan::EXIT_DONE);
  EXPECT_THAT(folder_.lines("srvlog.txt"), ElementsAre(MatchesRegex("[0-9-]{10} [0-9:]{8} Zelvan server stop[.].*")));
}

TEST_F(Startup, EachPartOfTheLoginIsDemanded) {
  for (const char* key : {"otp_dsn", "otp_uid", "otp_pwd"}) {
    SetUp();
    std::string settings = kDatabase;
    settings.replace(settings.find(key), 3, "old");
    EXPECT_EQ(serve(settings), zelvan::EXIT_DONE);
    EXPECT_EQ(log().back(), kNoLogin) << key;
    EXPECT_EQ(zelvan::test::odbc_count(OdbcCall::connect), 0);
  }
  EXPECT_EQ(log().size(), 3U);
}

TEST_F(Startup, LoginOf37CharactersIsRefused) {
  EXPECT_EQ(serve("[DataBase]\notp_dsn=d\notp_uid=u\notp_pwd=" + std::string(37, 'p') + "\n"), zelvan::EXIT_DONE);
  EXPECT_THAT(log(), ElementsAre(kNoLogin));
}

TEST_F(Startup, LoginOf36CharactersReachesTheDatabaseWhole) {
  const std::string dsn(36, 'd');
  const std::string uid(36, 'u');
  const std::string pwd(36, 'p');
  EXPECT_EQ(
      serve("[mail]\notp_mail_need=0\n[DataBase]\notp_dsn=" + dsn + "\notp_uid=" + uid + "\notp_pwd=" + pwd + "\n"),
      zelvan::EXIT_DONE);
  EXPECT_THAT(log(), ElementsAre(kDown));
  const zelvan::test::OdbcLogin login = zelvan::test::odbc_login();
  EXPECT_EQ(login.dsn, dsn);
  EXPECT_EQ(login.uid, uid);
  EXPECT_EQ(login.pwd, pwd);
}

TEST_F(Startup, DatabaseThatStaysDownIsTriedElevenTimesWithTenPauses) {
  zelvan::test::odbc_return_always(OdbcCall::connect, SQL_ERROR);
  EXPECT_EQ(serve(kDatabase), zelvan::EXIT_DONE);
  EXPECT_THAT(log(), ElementsAre(kNoDatabase));
  EXPECT_EQ(zelvan::test::odbc_count(OdbcCall::connect), 11);
  EXPECT_EQ(zelvan::test::sleeps(), std::vector<unsigned long>(10, 5000));
  EXPECT_EQ(zelvan::test::odbc_live(), 0);
}

TEST_F(Startup, DatabaseThatComesUpIsTakenAtEveryAttempt) {
  for (int failures = 0; failures <= 10; ++failures) {
    SetUp();
    for (int nth = 1; nth <= failures; ++nth) zelvan::test::odbc_return(OdbcCall::connect, SQL_ERROR, nth);
    EXPECT_EQ(serve(std::string(kDatabase) + "[mail]\notp_mail_need=0\n"), zelvan::EXIT_DONE);
    EXPECT_EQ(log().back(), kDown);
    EXPECT_EQ(zelvan::test::odbc_count(OdbcCall::connect), failures + 1);
    EXPECT_EQ(zelvan::test::sleeps(), std::vector<unsigned long>(static_cast<std::size_t>(failures), 5000));
  }
}

TEST_F(Startup, ConnectResultCountsByItsLow16Bits) {
  connect_answer = 0x10000;
  EXPECT_EQ(serve(std::string(kDatabase) + "[mail]\notp_mail_need=0\n"), zelvan::EXIT_DONE);
  EXPECT_THAT(log(), ElementsAre(kDown));
  EXPECT_THAT(zelvan::test::sleeps(), IsEmpty());
}

TEST_F(Startup, PositiveConnectResultIsAFailure) {
  connect_answer = 1;
  EXPECT_EQ(serve(kDatabase), zelvan::EXIT_DONE);
  EXPECT_THAT(log(), ElementsAre(kNoDatabase));
}

TEST_F(Startup, DuplicateIntervalIsReadBehindTheLoginAndBeforeConnecting) {
  const std::string intervals = "[Radius Server]\notp_packetchecktime=7\nradius_port=99\n";
  EXPECT_EQ(serve("[DataBase]\notp_dsn=d\n" + intervals), zelvan::EXIT_DONE);
  EXPECT_THAT(log(), ElementsAre(kNoLogin));
  EXPECT_EQ(ng_packetchecktime, 0);

  SetUp();
  zelvan::test::odbc_return_always(OdbcCall::connect, SQL_ERROR);
  EXPECT_EQ(serve(kDatabase + intervals), zelvan::EXIT_DONE);
  EXPECT_EQ(ng_packetchecktime, 7);
  EXPECT_EQ(usg_radiusport, 0);
}

TEST_F(Startup, OtherSettingsAreReadBehindTheConnect) {
  EXPECT_EQ(serve(std::string(kDatabase) + "[Radius Server]\nradius_port=70000\n[mail]\notp_mail_need=0\n"),
            zelvan::EXIT_DONE);
  EXPECT_EQ(usg_radiusport, 4464);
  EXPECT_THAT(log(), ElementsAre(kDown));
}

TEST_F(Startup, MailIsWantedUnlessSwitchedOff) {
  EXPECT_EQ(serve(kDatabase), zelvan::EXIT_DONE);
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_EQ(ng_mail_need, 1);
}

TEST_F(Startup, WithoutMailNoMailSettingIsRead) {
  EXPECT_EQ(serve_with_mail("otp_mail_need=0\nmail_from=" + std::string(56, 'f') + "\notp_smtp_port=26\n"),
            zelvan::EXIT_DONE);
  EXPECT_THAT(log(), ElementsAre(kDown));
  EXPECT_EQ(ng_smtp_port, 0);
}

TEST_F(Startup, CompleteMailSettingsAreTaken) {
  EXPECT_EQ(serve_with_mail("otp_smtp_server=s\nmail_from=f\n"), zelvan::EXIT_DONE);
  EXPECT_THAT(log(), ElementsAre(kDown));
  EXPECT_STREQ(g_mail_subject, "Notice");
  EXPECT_EQ(ng_smtp_port, 25);
}

TEST_F(Startup, MailNeedOf2DemandsTheStringsToo) {
  EXPECT_EQ(serve_with_mail("otp_mail_need=2\notp_smtp_server=s\n"), zelvan::EXIT_DONE);
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(Startup, MissingMailServerEndsSilentlyBeforeTheSender) {
  EXPECT_EQ(serve_with_mail("smtp_auth_need=3\nmail_from=f\notp_smtp_port=26\n"), zelvan::EXIT_DONE);
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_EQ(ng_Authneed, 3);
  EXPECT_STREQ(g_mail_from, "");
}

TEST_F(Startup, MissingSenderEndsSilentlyBeforeTheSubject) {
  EXPECT_EQ(serve_with_mail("otp_smtp_server=s\nmail_subject=t\n"), zelvan::EXIT_DONE);
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_STREQ(g_smtp_server, "s");
  EXPECT_STREQ(g_mail_subject, "");
}

TEST_F(Startup, SubjectThatIsTooLongEndsSilentlyBeforeThePort) {
  EXPECT_EQ(serve_with_mail("otp_smtp_server=s\nmail_from=f\nmail_subject=" + std::string(56, 't') + "\n"),
            zelvan::EXIT_DONE);
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_STREQ(g_mail_from, "f");
  EXPECT_EQ(ng_smtp_port, 0);
}

TEST_F(Startup, MailLoginIsDemandedOnlyWhenNeeded) {
  const std::string mail = "otp_smtp_server=s\nmail_from=f\n";
  EXPECT_EQ(serve_with_mail(mail + "smtp_auth_need=1\nsmtp_auth_pwd=p\n"), zelvan::EXIT_DONE);
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_STREQ(g_smtp_pass, "");

  SetUp();
  EXPECT_EQ(serve_with_mail(mail + "smtp_auth_need=1\nsmtp_auth_user=u\n"), zelvan::EXIT_DONE);
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_STREQ(g_smtp_user, "u");

  SetUp();
  EXPECT_EQ(serve_with_mail(mail + "smtp_auth_need=1\nsmtp_auth_user=u\nsmtp_auth_pwd=p\n"), zelvan::EXIT_DONE);
  EXPECT_THAT(log(), ElementsAre(kDown));
}

TEST_F(Startup, MutexesAreReadyEvenWhenItEndsEarly) {
  for (pthread_mutex_t* mutex : {&pack_mutex, &sendqueue_mutex, &sendmail_mutex, &dbrecon_mutex}) {
    std::fill_n(reinterpret_cast<unsigned char*>(mutex), sizeof *mutex, 0xA5);
  }
  EXPECT_EQ(zelvan::serve(folder_.path()), zelvan::EXIT_DONE);
  for (pthread_mutex_t* mutex : {&pack_mutex, &sendqueue_mutex, &sendmail_mutex, &dbrecon_mutex}) {
    EXPECT_EQ(pthread_mutex_trylock(mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
  }
}
