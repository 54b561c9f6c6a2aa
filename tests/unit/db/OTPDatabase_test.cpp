#include "db/OTPDatabase.h"

#include <gtest/gtest.h>
#include <sqlext.h>

#include <atomic>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "db/statements.h"
#include "support/fake_clock.h"
#include "support/fake_odbc.h"

using namespace zelvan::test;

namespace {

constexpr std::time_t kStart = 1'000'000;

const SQLCHAR* text(const char* characters) { return reinterpret_cast<const SQLCHAR*>(characters); }

int connect(COTPDatabase& database) { return database.DBConnect(text("dsn"), 3, text("user"), 4, text("secret"), 6); }

class OTPDatabase : public testing::Test {
 protected:
  OTPDatabase() {
    odbc_reset();
    set_clock(kStart);
    zelvan::set_backslash_escapes(false);
  }
};

}  // namespace

TEST_F(OTPDatabase, StartsUnconnected) {
  const COTPDatabase database;
  EXPECT_EQ(database.connection(), nullptr);
  EXPECT_TRUE(odbc_calls().empty());
}

TEST_F(OTPDatabase, ConnectTakesItsSixStepsInOrder) {
  COTPDatabase database;
  EXPECT_EQ(connect(database), zelvan::kConnected);
  EXPECT_EQ(odbc_calls(), (std::vector<std::string>{"set_env_attr", "alloc_env", "set_env_attr", "alloc_dbc", "connect",
                                                    "get_info"}));
  EXPECT_NE(database.connection(), nullptr);
}

TEST_F(OTPDatabase, ConnectSetsPoolingForTheProcessAndTheVersionOfTheEnvironment) {
  COTPDatabase database;
  connect(database);
  const auto attributes = odbc_attributes();
  ASSERT_EQ(attributes.size(), 2U);
  EXPECT_FALSE(attributes[0].on_environment);
  EXPECT_EQ(attributes[0].attribute, 201);
  EXPECT_EQ(attributes[0].value, 2);
  EXPECT_TRUE(attributes[1].on_environment);
  EXPECT_EQ(attributes[1].attribute, 200);
  EXPECT_EQ(attributes[1].value, 3);
}

TEST_F(OTPDatabase, ConnectIgnoresTheLengthsAndTakesTheWholeTexts) {
  COTPDatabase database;
  database.DBConnect(text("source name"), 1, text("user name"), -7, text("password"), 0);
  EXPECT_EQ(odbc_login().dsn, "source name");
  EXPECT_EQ(odbc_login().uid, "user name");
  EXPECT_EQ(odbc_login().pwd, "password");
}

TEST_F(OTPDatabase, ConnectTakesANullTextAsEmpty) {
  COTPDatabase database;
  EXPECT_EQ(database.DBConnect(text("dsn"), 3, nullptr, 0, nullptr, 0), zelvan::kConnected);
  EXPECT_EQ(odbc_login().uid, "");
}

TEST_F(OTPDatabase, ConnectKeepsCopiesOfTheTextsForTheReconnect) {
  COTPDatabase database;
  std::string dsn = "first";
  database.DBConnect(text(dsn.c_str()), 5, text("user"), 4, text("secret"), 6);
  dsn = "other";
  advance_clock(61);
  EXPECT_EQ(database.DBReConnect(), zelvan::kReconnected);
  EXPECT_EQ(odbc_login().dsn, "first");
  EXPECT_EQ(odbc_login().pwd, "secret");
}

TEST_F(OTPDatabase, ConnectWithInfoIsASuccess) {
  COTPDatabase database;
  odbc_return(OdbcCall::connect, SQL_SUCCESS_WITH_INFO);
  EXPECT_EQ(connect(database), 0);
  EXPECT_NE(database.connection(), nullptr);
}

TEST_F(OTPDatabase, ConnectHandsAnUnexpectedCodeThroughAndCountsAsConnected) {
  COTPDatabase database;
  odbc_return(OdbcCall::connect, SQL_INVALID_HANDLE);
  EXPECT_EQ(connect(database), -2);
  EXPECT_NE(database.connection(), nullptr);
}

TEST_F(OTPDatabase, ConnectAfterAnUnexpectedCodeGivesTheFirstHandlesBack) {
  COTPDatabase database;
  odbc_return(OdbcCall::connect, SQL_INVALID_HANDLE);
  connect(database);
  EXPECT_EQ(connect(database), zelvan::kConnected);
  EXPECT_EQ(odbc_live(SQL_HANDLE_DBC), 1);
  EXPECT_EQ(odbc_live(SQL_HANDLE_ENV), 1);
}

TEST_F(OTPDatabase, EveryFailedStepOfConnectReportsFailureAndLeavesNoHandle) {
  const std::vector<std::pair<OdbcCall, int>> steps{{OdbcCall::set_env_attr, 1},
                                                    {OdbcCall::alloc_env, 1},
                                                    {OdbcCall::set_env_attr, 2},
                                                    {OdbcCall::alloc_dbc, 1},
                                                    {OdbcCall::connect, 1}};
  for (const auto& [call, nth] : steps) {
    odbc_reset();
    COTPDatabase database;
    odbc_return(call, SQL_ERROR, nth);
    EXPECT_EQ(connect(database), -1) << static_cast<int>(call) << " " << nth;
    EXPECT_EQ(database.connection(), nullptr) << static_cast<int>(call) << " " << nth;
    EXPECT_EQ(odbc_live(), 0) << static_cast<int>(call) << " " << nth;
  }
}

TEST_F(OTPDatabase, AFailedStepEndsConnectAtOnce) {
  COTPDatabase database;
  odbc_return(OdbcCall::set_env_attr, SQL_ERROR, 1);
  connect(database);
  EXPECT_EQ(odbc_calls(), std::vector<std::string>{"set_env_attr"});
}

TEST_F(OTPDatabase, ElevenFailedAttemptsLeakNothingAndTheTwelfthMayWork) {
  COTPDatabase database;
  odbc_return_always(OdbcCall::connect, SQL_ERROR);
  for (int attempt = 0; attempt < 11; ++attempt) {
    EXPECT_EQ(connect(database), -1);
    EXPECT_EQ(odbc_live(), 0);
  }
  odbc_return_normally(OdbcCall::connect);
  EXPECT_EQ(connect(database), 0);
  EXPECT_EQ(odbc_live(), 2);
}

TEST_F(OTPDatabase, ConnectNotesADbmsThatEscapesWithABackslash) {
  for (const char* const name : {"MariaDB", "mysql", "MySQL Server 8", "mariadb fork"}) {
    COTPDatabase database;
    zelvan::set_backslash_escapes(false);
    odbc_set_dbms_name(name);
    connect(database);
    EXPECT_TRUE(zelvan::backslash_escapes()) << name;
  }
}

TEST_F(OTPDatabase, ADbmsThatDoesNotTellItsNameGetsItsBackslashesDoubled) {
  COTPDatabase database;
  zelvan::set_backslash_escapes(false);
  odbc_return(OdbcCall::get_info, SQL_ERROR);
  connect(database);
  EXPECT_TRUE(zelvan::backslash_escapes());
}

TEST_F(OTPDatabase, ConnectNotesADbmsThatDoesNot) {
  for (const char* const name : {"SQLite", "PostgreSQL", "Oracle", "", "My SQL"}) {
    COTPDatabase database;
    zelvan::set_backslash_escapes(true);
    odbc_set_dbms_name(name);
    connect(database);
    EXPECT_FALSE(zelvan::backslash_escapes()) << name;
  }
}

TEST_F(OTPDatabase, ANameOfTheDbmsThatIsTooLongIsCutAndUsed) {
  COTPDatabase database;
  odbc_set_dbms_name("MariaDB" + std::string(500, 'x'));
  connect(database);
  EXPECT_TRUE(zelvan::backslash_escapes());
}

TEST_F(OTPDatabase, AnUnknownNameOfTheDbmsFailsNothing) {
  COTPDatabase database;
  zelvan::set_backslash_escapes(true);
  odbc_return(OdbcCall::get_info, SQL_ERROR);
  EXPECT_EQ(connect(database), zelvan::kConnected);
  EXPECT_TRUE(zelvan::backslash_escapes());
}

TEST_F(OTPDatabase, DisconnectOfAnUnconnectedObjectTouchesNothing) {
  COTPDatabase database;
  EXPECT_EQ(database.DBDisconnect(), 0);
  EXPECT_TRUE(odbc_calls().empty());
}

TEST_F(OTPDatabase, DisconnectGivesEverythingBackInOrder) {
  COTPDatabase database;
  connect(database);
  const std::size_t before = odbc_calls().size();
  EXPECT_EQ(database.DBDisconnect(), 0);
  auto calls = odbc_calls();
  calls.erase(calls.begin(), calls.begin() + static_cast<long>(before));
  EXPECT_EQ(calls, (std::vector<std::string>{"disconnect", "free_dbc", "free_env"}));
  EXPECT_EQ(odbc_live(), 0);
  EXPECT_EQ(database.connection(), nullptr);
}

TEST_F(OTPDatabase, DisconnectReportsAFailedDisconnectAndStaysConnected) {
  COTPDatabase database;
  connect(database);
  odbc_return(OdbcCall::disconnect, SQL_ERROR);
  EXPECT_EQ(database.DBDisconnect(), -1);
  EXPECT_NE(database.connection(), nullptr);
  EXPECT_EQ(odbc_count(OdbcCall::free_dbc), 0);
}

TEST_F(OTPDatabase, DisconnectReportsAConnectionHandleThatCannotBeFreed) {
  COTPDatabase database;
  connect(database);
  odbc_return(OdbcCall::free_dbc, SQL_ERROR);
  EXPECT_EQ(database.DBDisconnect(), -1);
  EXPECT_EQ(database.connection(), nullptr);
  EXPECT_EQ(odbc_count(OdbcCall::free_env), 0);
}

TEST_F(OTPDatabase, DisconnectReturnsTheCodeOfTheEnvironmentsRelease) {
  for (const SQLRETURN code : std::initializer_list<SQLRETURN>{SQL_SUCCESS_WITH_INFO, SQL_ERROR, SQL_INVALID_HANDLE}) {
    odbc_reset();
    COTPDatabase database;
    connect(database);
    odbc_return(OdbcCall::free_env, code);
    EXPECT_EQ(database.DBDisconnect(), code);
  }
}

TEST_F(OTPDatabase, TheDestructorDisconnects) {
  {
    COTPDatabase database;
    connect(database);
  }
  EXPECT_EQ(odbc_live(), 0);
}

TEST_F(OTPDatabase, NoReconnectInTheFirstSixtySeconds) {
  COTPDatabase database;
  connect(database);
  const SQLHDBC before = database.connection();
  for (const std::time_t elapsed : {0, 1, 59, 60}) {
    set_clock(kStart + elapsed);
    EXPECT_EQ(database.DBReConnect(), zelvan::kReconnectTooSoon) << elapsed;
  }
  EXPECT_EQ(database.connection(), before);
  EXPECT_EQ(odbc_count(OdbcCall::connect), 1);
}

TEST_F(OTPDatabase, ReconnectAfterMoreThanSixtySecondsReplacesTheConnection) {
  COTPDatabase database;
  connect(database);
  const SQLHDBC before = database.connection();
  set_clock(kStart + 61);
  EXPECT_EQ(database.DBReConnect(), zelvan::kReconnected);
  EXPECT_NE(database.connection(), before);
  EXPECT_EQ(odbc_live(SQL_HANDLE_DBC), 1);
  EXPECT_EQ(odbc_live(SQL_HANDLE_ENV), 1);
  EXPECT_EQ(odbc_count(OdbcCall::alloc_env), 1);
}

TEST_F(OTPDatabase, ReconnectCountsFromTheConstructionNotTheConnect) {
  COTPDatabase database;
  advance_clock(61);
  connect(database);
  EXPECT_EQ(database.DBReConnect(), zelvan::kReconnected);
}

TEST_F(OTPDatabase, ASuccessfulReconnectHoldsTheNextBackForSixtySeconds) {
  COTPDatabase database;
  connect(database);
  set_clock(kStart + 100);
  EXPECT_EQ(database.DBReConnect(), zelvan::kReconnected);
  set_clock(kStart + 110);
  EXPECT_EQ(database.DBReConnect(), zelvan::kReconnectTooSoon);
  set_clock(kStart + 160);
  EXPECT_EQ(database.DBReConnect(), zelvan::kReconnectTooSoon);
  set_clock(kStart + 161);
  EXPECT_EQ(database.DBReConnect(), zelvan::kReconnected);
}

TEST_F(OTPDatabase, AReconnectWithInfoIsASuccess) {
  COTPDatabase database;
  connect(database);
  advance_clock(61);
  odbc_return(OdbcCall::connect, SQL_SUCCESS_WITH_INFO);
  EXPECT_EQ(database.DBReConnect(), zelvan::kReconnected);
  EXPECT_EQ(database.DBReConnect(), zelvan::kReconnectTooSoon);
}

TEST_F(OTPDatabase, AFailedReconnectReturnsItsCodeAndIsTriedAgainWithoutWaiting) {
  COTPDatabase database;
  connect(database);
  advance_clock(61);
  odbc_return(OdbcCall::connect, SQL_ERROR);
  EXPECT_EQ(database.DBReConnect(), SQL_ERROR);
  odbc_return(OdbcCall::connect, SQL_STILL_EXECUTING);
  EXPECT_EQ(database.DBReConnect(), SQL_STILL_EXECUTING);
  EXPECT_NE(database.connection(), nullptr);
  EXPECT_EQ(database.DBReConnect(), zelvan::kReconnected);
  EXPECT_EQ(odbc_live(SQL_HANDLE_DBC), 1);
}

TEST_F(OTPDatabase, AReconnectWithoutANewHandleLeavesTheConnectionNull) {
  for (const SQLRETURN code : std::initializer_list<SQLRETURN>{SQL_ERROR, SQL_INVALID_HANDLE, SQL_NO_DATA}) {
    odbc_reset();
    set_clock(kStart);
    COTPDatabase database;
    connect(database);
    advance_clock(61);
    odbc_return(OdbcCall::alloc_dbc, code);
    EXPECT_EQ(database.DBReConnect(), zelvan::kReconnectNoHandle);
    EXPECT_EQ(database.connection(), nullptr);
    EXPECT_EQ(odbc_live(SQL_HANDLE_DBC), 0);
  }
}

TEST_F(OTPDatabase, AReconnectIgnoresWhatBecomesOfTheOldHandle) {
  COTPDatabase database;
  connect(database);
  advance_clock(61);
  odbc_return(OdbcCall::disconnect, SQL_ERROR);
  EXPECT_EQ(database.DBReConnect(), zelvan::kReconnected);
}

TEST_F(OTPDatabase, AReconnectGivesTheMutexBackInEveryCase) {
  COTPDatabase database;
  connect(database);
  const auto mutex_is_free = [] {
    const bool free = pthread_mutex_trylock(&dbrecon_mutex) == 0;
    if (free) pthread_mutex_unlock(&dbrecon_mutex);
    return free;
  };
  database.DBReConnect();
  EXPECT_TRUE(mutex_is_free());
  advance_clock(61);
  odbc_return(OdbcCall::connect, SQL_ERROR);
  database.DBReConnect();
  EXPECT_TRUE(mutex_is_free());
  database.DBReConnect();
  EXPECT_TRUE(mutex_is_free());
  advance_clock(61);
  odbc_return(OdbcCall::alloc_dbc, SQL_ERROR);
  database.DBReConnect();
  EXPECT_TRUE(mutex_is_free());
}

TEST_F(OTPDatabase, AReconnectAfterTheDisconnectOpensNothing) {
  COTPDatabase database;
  connect(database);
  database.DBDisconnect();
  advance_clock(61);
  EXPECT_EQ(database.DBReConnect(), zelvan::kReconnectNoHandle);
  EXPECT_EQ(odbc_live(), 0);
}

TEST_F(OTPDatabase, OfManyThreadsThatAskOneReconnects) {
  COTPDatabase database;
  connect(database);
  advance_clock(61);
  std::atomic<int> reconnects{0};
  std::atomic<int> refusals{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      const int result = database.DBReConnect();
      if (result == zelvan::kReconnected) ++reconnects;
      if (result == zelvan::kReconnectTooSoon) ++refusals;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(reconnects, 1);
  EXPECT_EQ(refusals, 7);
  EXPECT_EQ(odbc_live(SQL_HANDLE_DBC), 1);
}

TEST_F(OTPDatabase, IsPolymorphicAndNotCopied) {
  EXPECT_TRUE(std::has_virtual_destructor_v<COTPDatabase>);
  EXPECT_FALSE(std::is_copy_constructible_v<COTPDatabase>);
  EXPECT_FALSE(std::is_copy_assignable_v<COTPDatabase>);
}
