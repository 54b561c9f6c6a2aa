// Loading the user and the token: every column, the lock, the first moving factor.
#include <atomic>
#include <chrono>
#include <cstring>
#include <future>

#include "auth_fixture.h"
#include "base/text.h"
#include "config/settings.h"
#include "db/OTPDatabase.h"
#include "db/statements.h"
#include "mail/notifier.h"

using namespace zelvan::test;  // NOLINT: the fixture's words
using ::testing::Test;

namespace {

using Statements = std::vector<std::string>;

class Parameters : public AuthTest {
 protected:
  int load() {
    account.publish();
    std::strcpy(analyser.user_name, "alice");
    std::strcpy(analyser.client_text, "10.0.0.7");
    return analyser.otp_initparams();
  }

  [[nodiscard]] std::uint64_t moving_factor() const {
    std::uint64_t factor = 0;
    for (const unsigned char byte : analyser.moving_factor) factor = factor << 8U | byte;
    return factor;
  }

  CAnalyseAuthData analyser;
};

}  // namespace

TEST_F(Parameters, AnalyserStartsEmptyWithAuthTypeOneAndAUserThatExists) {
  EXPECT_EQ(analyser.locked, 0);
  EXPECT_EQ(analyser.user_found, 0);
  EXPECT_EQ(analyser.matched, 0);
  EXPECT_EQ(analyser.auth_type, 1);
  EXPECT_EQ(analyser.user_exists, 1);
  EXPECT_EQ(moving_factor(), 0U);
  EXPECT_STREQ(analyser.user_name, "");
}

TEST_F(Parameters, LoadsUserAndTokenWithOneSelectEach) {
  account.user.failaccum = "3";
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_EQ(executed(), (Statements{sql::select_user(), sql::select_token()}));
  EXPECT_EQ(analyser.user_found, 1);
  EXPECT_STREQ(analyser.serial_number, "SN1");
  EXPECT_EQ(analyser.failure_count, 3);
  EXPECT_EQ(analyser.last_use_date, date(kNow - 60));
  EXPECT_STREQ(analyser.user_mail, "alice@example.org");
  EXPECT_EQ(analyser.auth_type, 1);
  EXPECT_STREQ(analyser.token_key, "12345678901234567890");
  EXPECT_EQ(analyser.token_type, TOKEN_EVENT);
  EXPECT_EQ(analyser.high_counter, 0U);
  EXPECT_EQ(analyser.low_counter, 5U);
  EXPECT_EQ(analyser.token_date, date(kNow - 95));
  EXPECT_EQ(analyser.code_digits, 6);
  EXPECT_EQ(analyser.token_window, 3);
  EXPECT_EQ(analyser.time_step, 30);
}

TEST_F(Parameters, NoStatementHandleStaysBehind) {
  EXPECT_EQ(load(), INITPARAMS_READY);
  account.token.diglen = std::nullopt;
  EXPECT_EQ(load(), INITPARAMS_UNREADABLE);
  EXPECT_EQ(odbc_live(SQL_HANDLE_STMT), 0);
}

TEST_F(Parameters, DialectsWrapTheDateColumns) {
  ng_dbtype = 3;
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_NE(executed()[0].find("failaccum, CONVERT(VARCHAR, preusedate, 120) preusedate, user_email"),
            std::string::npos);
  EXPECT_NE(executed()[1].find("lcounter, CONVERT(VARCHAR, predate, 120) predate, diglen"), std::string::npos);
  ng_dbtype = 4;
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_NE(executed()[2].find("failaccum, to_char(preusedate,'yyyy-mm-dd hh24:mi:ss'), user_email"),
            std::string::npos);
  EXPECT_NE(executed()[3].find("lcounter, to_char(predate,'yyyy-mm-dd hh24:mi:ss'), diglen"), std::string::npos);
}

TEST_F(Parameters, QuotesInTheNameAndTheSerialNumberAreDoubled) {
  account.user.serialnum = "S'1";
  account.publish();
  std::strcpy(analyser.user_name, "x' or '1'='1");
  EXPECT_EQ(analyser.otp_initparams(), INITPARAMS_READY);
  EXPECT_EQ(executed(), (Statements{sql::select_user("x'' or ''1''=''1"), sql::select_token("S''1")}));
}

// ---- the user's row

TEST_F(Parameters, UserSelectThatCannotExecuteLeavesNoTrace) {
  odbc_answer("select serialnum", {{}, SQL_ERROR, 0});
  EXPECT_EQ(load(), INITPARAMS_STATEMENT);
  EXPECT_EQ(analyser.user_found, 0);
  EXPECT_EQ(analyser.user_exists, 1);
  EXPECT_EQ(executed().size(), 1U);
}

TEST_F(Parameters, UserWithoutAnActiveRowDoesNotExist) {
  account.has_user = false;
  EXPECT_EQ(load(), INITPARAMS_NO_ROW);
  EXPECT_EQ(analyser.user_exists, 0);
  EXPECT_EQ(analyser.user_found, 0);
  EXPECT_EQ(executed().size(), 1U);
}

TEST_F(Parameters, UserWhoseNameTheDbmsCannotStoreDoesNotExist) {
  ASSERT_TRUE(zelvan::copy_text(analyser.user_name, "\xFF"));
  zelvan::set_utf8_only(true);
  EXPECT_EQ(analyser.otp_initparams(), INITPARAMS_NO_ROW);
  zelvan::set_utf8_only(false);
  EXPECT_EQ(analyser.user_exists, 0);
  EXPECT_TRUE(executed().empty());
}

TEST_F(Parameters, UserFetchThatFailsIsNotAUserFound) {
  for (const SQLRETURN code : {SQLRETURN{SQL_ERROR}, SQLRETURN{SQL_INVALID_HANDLE}, SQLRETURN{SQL_STILL_EXECUTING}}) {
    odbc_return(OdbcCall::fetch, code);
    EXPECT_EQ(load(), INITPARAMS_UNREADABLE);
    EXPECT_EQ(analyser.user_found, 0);
    EXPECT_EQ(analyser.user_exists, 1);
  }
}

namespace {

// How a column can be missing.
enum class Missing { null, failed };

struct UserColumn {
  int number;
  const char* name;
  OdbcCell UserRow::*cell;
};

class RequiredUserColumn : public Parameters, public ::testing::WithParamInterface<std::tuple<UserColumn, Missing>> {};

std::string missing_name(const char* column, Missing how) {
  return std::string(column) + (how == Missing::null ? "Null" : "Failed");
}

}  // namespace

TEST_P(RequiredUserColumn, MissingIsUnreadableWithTheUserFound) {
  const auto [column, how] = GetParam();
  account.user.authtype = "2";  // so that the PIN is needed
  if (how == Missing::null) {
    account.user.*column.cell = std::nullopt;
  } else {
    odbc_return(OdbcCall::get_data, SQL_ERROR, column.number);
  }
  EXPECT_EQ(load(), INITPARAMS_UNREADABLE);
  EXPECT_EQ(analyser.user_found, 1);
  EXPECT_EQ(analyser.user_exists, 1);
  EXPECT_EQ(executed(), Statements{sql::select_user()});
}

INSTANTIATE_TEST_SUITE_P(Columns, RequiredUserColumn,
                         ::testing::Combine(::testing::Values(UserColumn{1, "serialnum", &UserRow::serialnum},
                                                              UserColumn{2, "islocked", &UserRow::islocked},
                                                              UserColumn{3, "failaccum", &UserRow::failaccum},
                                                              UserColumn{6, "authtype", &UserRow::authtype},
                                                              UserColumn{7, "pin", &UserRow::pin}),
                                            ::testing::Values(Missing::null, Missing::failed)),
                         [](const auto& test) {
                           return missing_name(std::get<0>(test.param).name, std::get<1>(test.param));
                         });

TEST_F(Parameters, LastUseDateThatIsNullReadsAsNow) {
  account.user.preusedate = std::nullopt;
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_STREQ(analyser.last_use_date, kNowText);
}

TEST_F(Parameters, LastUseDateThatCannotBeReadIsNow) {
  odbc_return(OdbcCall::get_data, SQL_ERROR, 4);
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_STREQ(analyser.last_use_date, kNowText);
}

TEST_F(Parameters, MailAddressThatIsNullOrCannotBeReadIsEmpty) {
  odbc_return(OdbcCall::get_data, SQL_ERROR, 5);
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_STREQ(analyser.user_mail, "");
  account.user.user_email = std::nullopt;
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_STREQ(analyser.user_mail, "");
}

TEST_F(Parameters, PinIsReadForAuthTypeTwoOnly) {
  account.user.pin = std::nullopt;
  for (const char* type : {"0", "1", "3", "x"}) {
    account.user.authtype = type;
    EXPECT_EQ(load(), INITPARAMS_READY) << type;
    EXPECT_STREQ(analyser.pin, "");
  }
  account.user.authtype = "2";
  account.user.pin = "9876";
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_STREQ(analyser.pin, "9876");
}

TEST_F(Parameters, UserColumnsAreCutToTheirFields) {
  account.user = {std::string(29, 's'), "0", "100", std::string(55, '2'), std::string(56, 'm'), "29",
                  std::string(19, 'p')};
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_EQ(analyser.serial_number, std::string(28, 's'));
  EXPECT_EQ(analyser.failure_count, 10);
  EXPECT_EQ(analyser.last_use_date, std::string(54, '2'));
  EXPECT_EQ(analyser.user_mail, std::string(55, 'm'));
  EXPECT_EQ(analyser.auth_type, 2);
  EXPECT_EQ(analyser.pin, std::string(18, 'p'));
  EXPECT_EQ(executed()[1], sql::select_token(std::string(28, 's')));
}

TEST_F(Parameters, UserColumnsAsLongAsTheirFieldsComeWhole) {
  account.user = {std::string(28, 's'), "0", "99", std::string(54, '2'), std::string(55, 'm'), "2",
                  std::string(18, 'p')};
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_EQ(analyser.serial_number, std::string(28, 's'));
  EXPECT_EQ(analyser.failure_count, 99);
  EXPECT_EQ(analyser.last_use_date, std::string(54, '2'));
  EXPECT_EQ(analyser.user_mail, std::string(55, 'm'));
  EXPECT_EQ(analyser.pin, std::string(18, 'p'));
}

TEST_F(Parameters, SerialNumberFullOfQuotesStillFitsItsStatement) {
  account.user.serialnum = std::string(28, '\'');
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_EQ(executed()[1], sql::select_token(std::string(56, '\'')));
}

// ---- the lock

namespace {

class Lock : public Parameters {
 protected:
  Lock() {
    account.user.islocked = "1";
    account.user.failaccum = "4";
  }
};

}  // namespace

TEST_F(Lock, HoldsFor599Seconds) {
  for (const int seconds : {0, 1, 598, 599}) {
    account.user.preusedate = date(kNow - seconds);
    EXPECT_EQ(load(), INITPARAMS_LOCKED) << seconds;
    EXPECT_EQ(analyser.locked, 1);
  }
  for (const std::string& statement : executed()) EXPECT_EQ(statement, sql::select_user());
}

TEST_F(Lock, IsLiftedAfter600SecondsAndTheFieldStays) {
  account.user.preusedate = date(kNow - 600);
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_EQ(executed(), (Statements{sql::select_user(), sql::unlock_user(), sql::select_token()}));
  EXPECT_EQ(analyser.locked, 1);
  EXPECT_EQ(analyser.failure_count, 0);
}

TEST_F(Lock, HoldsWhenTheLastAttemptLiesInTheFuture) {
  account.user.preusedate = date(kNow + 100'000);
  EXPECT_EQ(load(), INITPARAMS_LOCKED);
}

TEST_F(Lock, HoldsWhenTheLastAttemptIsNullOrCannotBeRead) {
  account.user.preusedate = std::nullopt;
  EXPECT_EQ(load(), INITPARAMS_LOCKED);
  account.user.preusedate = date(kNow - 100'000);
  odbc_return(OdbcCall::get_data, SQL_ERROR, 4);
  EXPECT_EQ(load(), INITPARAMS_LOCKED);
}

// mktime(3) reports this very second with its error code.
TEST_F(Lock, HoldsWhenTheDifferenceCannotBeComputed) {
  account.user.preusedate = "1969-12-31 23:59:59";
  EXPECT_EQ(load(), INITPARAMS_LOCKED);
}

TEST_F(Lock, AnyDigitButZeroLocks) {
  account.user.preusedate = date(kNow);
  for (const char* text : {"1", "2", "9", "10"}) {
    account.user.islocked = text;
    EXPECT_EQ(load(), INITPARAMS_LOCKED) << text;
  }
  for (const char* text : {"0", "", "x", "01"}) {  // one character counts
    account.user.islocked = text;
    EXPECT_EQ(load(), INITPARAMS_READY) << text;
    EXPECT_EQ(analyser.locked, 0);
  }
}

TEST_F(Lock, UnlockThatFailsIsAnAuditRowWithoutALog) {
  account.user.preusedate = date(kNow - 600);
  odbc_answer("update userinfo set islocked = 0", {{}, SQL_ERROR, 0});
  EXPECT_EQ(load(), INITPARAMS_STATEMENT);
  EXPECT_EQ(executed(), (Statements{sql::select_user(), sql::unlock_user(), sql::audit("Update userinfo failed.")}));
  EXPECT_EQ(analyser.locked, 1);
  EXPECT_EQ(analyser.failure_count, 4);
}

TEST_F(Lock, UnlockThatFailsIsALogLineWithALog) {
  start_log();
  account.user.preusedate = date(kNow - 600);
  odbc_answer("update userinfo set islocked = 0", {{}, SQL_ERROR, 0});
  EXPECT_EQ(load(), INITPARAMS_STATEMENT);
  EXPECT_EQ(executed(), (Statements{sql::select_user(), sql::unlock_user()}));
  EXPECT_EQ(log_text(), std::string(kNowText) + "\tUpdate userinfo failed.Username:alice.\n");
}

// A log whose disk is full keeps a line, and its thread, until there is room.
TEST_F(Lock, LogLineOfAnUnlockThatFailsKeepsNobodyFromTheDatabase) {
  start_log();
  account.user.preusedate = date(kNow - 600);
  odbc_answer("update userinfo set islocked = 0", {{}, SQL_ERROR, 0});
  std::atomic<bool> failed{false};
  odbc_on_execute([&](const std::string& sql) { failed = sql.starts_with("update"); });
  std::vector<std::future<void>> others;
  bool reached = false;
  on_clock_read([&] {  // the reconnect reads it, with the connection held, and then the log
    if (!failed) return;
    others.push_back(std::async(std::launch::async, [] { (void)otp_database.hold(); }));
    reached = reached || others.back().wait_for(std::chrono::milliseconds(200)) == std::future_status::ready;
  });
  EXPECT_EQ(load(), INITPARAMS_STATEMENT);
  on_clock_read(nullptr);
  EXPECT_TRUE(reached);
}

// ---- the token's row

TEST_F(Parameters, TokenSelectThatCannotExecute) {
  odbc_answer("select userkey", {{}, SQL_ERROR, 0});
  EXPECT_EQ(load(), INITPARAMS_STATEMENT);
  EXPECT_EQ(analyser.user_found, 1);
}

TEST_F(Parameters, UserWithoutATokenExistsAllTheSame) {
  account.has_token = false;
  EXPECT_EQ(load(), INITPARAMS_NO_ROW);
  EXPECT_EQ(analyser.user_exists, 1);
  EXPECT_EQ(analyser.user_found, 1);
}

TEST_F(Parameters, TokenFetchThatFails) {
  for (const SQLRETURN code : {SQLRETURN{SQL_ERROR}, SQLRETURN{SQL_INVALID_HANDLE}}) {
    odbc_return(OdbcCall::fetch, code, 2);
    EXPECT_EQ(load(), INITPARAMS_UNREADABLE);
    EXPECT_EQ(analyser.user_found, 1);
  }
}

namespace {

struct TokenColumn {
  int number;
  const char* name;
  OdbcCell TokenRow::*cell;
};

class EveryTokenColumn : public Parameters, public ::testing::WithParamInterface<std::tuple<TokenColumn, Missing>> {};

}  // namespace

TEST_P(EveryTokenColumn, MissingIsUnreadable) {
  const auto [column, how] = GetParam();
  if (how == Missing::null) {
    account.token.*column.cell = std::nullopt;
  } else {
    odbc_return(OdbcCall::get_data, SQL_ERROR, 6 + column.number);  // behind the user's columns without a PIN
  }
  EXPECT_EQ(load(), INITPARAMS_UNREADABLE);
  EXPECT_EQ(analyser.user_found, 1);
}

INSTANTIATE_TEST_SUITE_P(Columns, EveryTokenColumn,
                         ::testing::Combine(::testing::Values(TokenColumn{1, "userkey", &TokenRow::userkey},
                                                              TokenColumn{2, "tktype", &TokenRow::tktype},
                                                              TokenColumn{3, "hcounter", &TokenRow::hcounter},
                                                              TokenColumn{4, "lcounter", &TokenRow::lcounter},
                                                              TokenColumn{5, "predate", &TokenRow::predate},
                                                              TokenColumn{6, "diglen", &TokenRow::diglen},
                                                              TokenColumn{7, "authwnd", &TokenRow::authwnd},
                                                              TokenColumn{8, "tmstep", &TokenRow::tmstep}),
                                            ::testing::Values(Missing::null, Missing::failed)),
                         [](const auto& test) {
                           return missing_name(std::get<0>(test.param).name, std::get<1>(test.param));
                         });

TEST_F(Parameters, EmptyKeyIsUnreadable) {
  account.token.userkey = "";
  EXPECT_EQ(load(), INITPARAMS_UNREADABLE);
}

TEST_F(Parameters, KeyAndTokenDateAreCutToTheirFields) {
  account.token.userkey = std::string(55, 'k');
  account.token.predate = std::string(56, '2');
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_EQ(analyser.token_key, std::string(54, 'k'));
  EXPECT_EQ(analyser.token_date, std::string(55, '2'));
}

TEST_F(Parameters, NumberTextIsCutTo127Characters) {
  account.token.diglen = std::string(126, '0') + "67";
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_EQ(analyser.code_digits, 6);
}

TEST_F(Parameters, CountersAreReadModulo32Bits) {
  account.token.hcounter = "4294967296";
  account.token.lcounter = "4294967297";
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_EQ(analyser.high_counter, 0U);
  EXPECT_EQ(analyser.low_counter, 1U);
  account.token.hcounter = "4294967295";
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_EQ(analyser.high_counter, 4294967295U);
}

TEST_F(Parameters, MovingFactorIsBigEndianHighWordFirst) {
  account.token.hcounter = "16909060";  // 0x01020304
  account.token.lcounter = "84281096";  // 0x05060708
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_EQ(moving_factor(), 0x0102030405060708U);
}

TEST_F(Parameters, TokenTypeThatNobodyKnowsLoads) {
  for (const char* type : {"0", "4", "-1", "x"}) {
    account.token.tktype = type;
    EXPECT_EQ(load(), INITPARAMS_READY) << type;
  }
}

TEST_F(Parameters, OnlyTimeSteppedTokensAdvanceOrNeedATimeStep) {
  account.token.predate = date(kNow - 100'000);
  account.token.tmstep = "0";
  for (const char* type : {"1", "3"}) {
    account.token.tktype = type;
    EXPECT_EQ(load(), INITPARAMS_READY);
    EXPECT_EQ(moving_factor(), 5U);
  }
}

// ---- the advance of time-stepped tokens

namespace {

struct Advance {
  int elapsed;  // seconds since the last success
  const char* step;
  const char* token_window;
  int window;  // setting
  unsigned int steps;
};

class TimeStepped : public Parameters, public ::testing::WithParamInterface<Advance> {};

}  // namespace

TEST_P(TimeStepped, AdvancesByTheStepsPassedLessHalfTheWindow) {
  const Advance& row = GetParam();
  account.token.tktype = "2";
  account.token.predate = date(kNow - row.elapsed);
  account.token.tmstep = row.step;
  account.token.authwnd = row.token_window;
  ng_wnd = row.window;
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_EQ(moving_factor(), 5U + row.steps);
}

INSTANTIATE_TEST_SUITE_P(Elapsed, TimeStepped,
                         ::testing::Values(Advance{95, "30", "10", 30, 0},      // 3 steps, half a window 5
                                           Advance{149, "30", "10", 30, 0},     // 4
                                           Advance{150, "30", "10", 30, 0},     // 5
                                           Advance{179, "30", "10", 30, 0},     // 5
                                           Advance{180, "30", "10", 30, 1},     // 6
                                           Advance{300, "30", "10", 30, 5},     // 10
                                           Advance{0, "30", "10", 30, 0},       //
                                           Advance{0, "30", "1", 30, 0},        //
                                           Advance{300, "60", "10", 30, 0},     // 5
                                           Advance{300, "1", "10", 30, 295},    //
                                           Advance{300, "30", "10", 4, 8},      // the setting is smaller
                                           Advance{300, "30", "4", 10, 8},      // the token's is smaller
                                           Advance{300, "30", "3", 30, 9},      // odd windows round down
                                           Advance{300, "30", "11", 30, 5},     //
                                           Advance{300, "30", "1", 30, 10},     //
                                           Advance{300, "30", "0", 30, 10},     //
                                           Advance{300, "30", "10", 0, 10},     //
                                           Advance{300, "30", "-1", 30, 0},     // rounded down to minus one
                                           Advance{300, "30", "-4", 30, 0},     // a huge half, compared unsigned
                                           Advance{-1, "30", "1", 30, 0},       // less than a step ahead of the clock
                                           Advance{-29, "30", "10", 30, 0},     //
                                           Advance{-30, "30", "1", 30, 0},      //
                                           Advance{-100'000, "30", "1", 30, 0}  //
                                           ));

TEST_F(Parameters, TimeStepOfZeroOrLessIsUnreadable) {
  account.token.tktype = "2";
  for (const char* step : {"0", "-1", "-30", "", "x"}) {
    account.token.tmstep = step;
    EXPECT_EQ(load(), INITPARAMS_UNREADABLE) << step;
  }
}

TEST_F(Parameters, AdvanceCarriesIntoTheHighWord) {
  account.token.tktype = "2";
  account.token.hcounter = "7";
  account.token.lcounter = "4294967295";
  account.token.predate = date(kNow - 300);
  account.token.authwnd = "10";
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_EQ(moving_factor(), (8ULL << 32U) + 4U);
}

TEST_F(Parameters, DecadesOfStepsAdvanceAtOnce) {
  account.token.tktype = "2";
  account.token.predate = "1990-01-01 00:00:00";
  account.token.tmstep = "1";
  account.token.authwnd = "2";
  EXPECT_EQ(load(), INITPARAMS_READY);
  EXPECT_EQ(moving_factor(), 5U + static_cast<std::uint64_t>(kNow - 631'152'000) - 1U);
}
