#include "db/QENTDatabase.h"

#include <gtest/gtest.h>
#include <sqlext.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/fake_clock.h"
#include "support/fake_odbc.h"

using namespace zelvan::test;
using zelvan::ColumnRead;
using zelvan::read_text;

namespace {

constexpr std::time_t kStart = 1'000'000;
constexpr const char* kSelect = "select a from t";
constexpr const char* kUpdate = "update t set a = 1";

const SQLCHAR* text(const char* characters) { return reinterpret_cast<const SQLCHAR*>(characters); }

// A shared connection that is open, 100 seconds after the start: a failing statement reconnects.
class QENTDatabase : public testing::Test {
 protected:
  QENTDatabase() {
    odbc_reset();
    set_clock(kStart);
    shared_ = std::make_unique<COTPDatabase>();
    shared_->DBConnect(text("dsn"), 3, text("user"), 4, text("secret"), 6);
    advance_clock(100);
  }

  static int reconnects() { return odbc_count(OdbcCall::connect) - 1; }

  std::unique_ptr<COTPDatabase> shared_;
};

}  // namespace

TEST_F(QENTDatabase, AnObjectWithoutASourceExecutesNothing) {
  CQENTDatabase of_null(nullptr);
  CQENTDatabase of_nothing;
  EXPECT_EQ(of_null.ExecuteDirect(kSelect), 0);
  EXPECT_EQ(of_nothing.ExecuteDirect(kUpdate), 0);
  EXPECT_EQ(odbc_count(OdbcCall::alloc_stmt), 0);
}

TEST_F(QENTDatabase, ANullTextIsNotExecuted) {
  CQENTDatabase database(shared_.get());
  EXPECT_EQ(database.ExecuteDirect(nullptr), 0);
  EXPECT_EQ(odbc_count(OdbcCall::alloc_stmt), 0);
}

TEST_F(QENTDatabase, AnObjectOfAnUnconnectedSourceNeverTouchesOdbc) {
  COTPDatabase unconnected;
  CQENTDatabase database(&unconnected);
  const std::size_t before = odbc_calls().size();
  EXPECT_EQ(database.ExecuteDirect(kSelect), 0);
  EXPECT_EQ(odbc_calls().size(), before);
}

TEST_F(QENTDatabase, AnObjectMadeWhileTheHandleIsNullNeverTouchesOdbcAndAsksForNoReconnect) {
  odbc_return(OdbcCall::alloc_dbc, SQL_ERROR);
  ASSERT_EQ(shared_->DBReConnect(), zelvan::kReconnectNoHandle);
  CQENTDatabase database(shared_.get());
  const std::size_t before = odbc_calls().size();
  EXPECT_EQ(database.ExecuteDirect(kSelect), 0);
  EXPECT_EQ(database.ExecuteDirect(kUpdate), 0);
  EXPECT_EQ(odbc_calls().size(), before);
}

TEST_F(QENTDatabase, BorrowsTheHandleOfTheSource) {
  const CQENTDatabase database(shared_.get());
  EXPECT_EQ(database.connection(), shared_->connection());
}

TEST_F(QENTDatabase, EveryReadWithoutAStatementSaysSo) {
  CQENTDatabase database(shared_.get());
  std::array<char, 8> buffer{};
  std::array<unsigned char, 8> name{};
  EXPECT_EQ(database.FetchRow(), -1);
  EXPECT_EQ(database.GetData(1, buffer.data(), 8, nullptr, SQL_C_CHAR), -1);
  EXPECT_EQ(database.DescribeCol(1, name.data(), 8, nullptr, nullptr, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(database.ColuminRow(), -1);
}

TEST_F(QENTDatabase, ASelectYieldsItsRowsAndThenNoData) {
  odbc_answer("select", {.rows = {{"one"}, {"two"}}});
  CQENTDatabase database(shared_.get());
  std::array<char, 8> buffer{};
  ASSERT_EQ(database.ExecuteDirect(kSelect), 1);
  EXPECT_EQ(database.FetchRow(), 1);
  EXPECT_EQ(database.GetData(1, buffer.data(), 8, nullptr, SQL_C_CHAR), 1);
  EXPECT_STREQ(buffer.data(), "one");
  EXPECT_EQ(database.FetchRow(), 1);
  EXPECT_EQ(database.GetData(1, buffer.data(), 8, nullptr, SQL_C_CHAR), 1);
  EXPECT_STREQ(buffer.data(), "two");
  EXPECT_EQ(database.FetchRow(), 100);
}

TEST_F(QENTDatabase, SelectIsRecognisedInAnyCase) {
  for (const char* const sql : {"select 1", "SELECT 1", "SeLeCt 1", "selection"}) {
    CQENTDatabase database(shared_.get());
    EXPECT_EQ(database.ExecuteDirect(sql), 1) << sql;
    EXPECT_EQ(database.FetchRow(), zelvan::kNoData) << sql;
  }
}

TEST_F(QENTDatabase, ASelectThatBeginsWithABlankRunsAsANonSelect) {
  odbc_answer(" select", {.rows = {{"lost"}}});
  CQENTDatabase database(shared_.get());
  EXPECT_EQ(database.ExecuteDirect(" select a from t"), 1);
  EXPECT_EQ(database.FetchRow(), zelvan::kFetchNoStatement);
}

TEST_F(QENTDatabase, ATextShorterThanTheWordIsANonSelect) {
  CQENTDatabase database(shared_.get());
  for (const char* const sql : {"", "s", "selec"}) {
    EXPECT_EQ(database.ExecuteDirect(sql), 1) << sql;
    EXPECT_EQ(database.FetchRow(), zelvan::kFetchNoStatement) << sql;
  }
}

TEST_F(QENTDatabase, ANonSelectLeavesNoStatementOpen) {
  CQENTDatabase database(shared_.get());
  EXPECT_EQ(database.ExecuteDirect(kUpdate), 1);
  EXPECT_EQ(odbc_live(SQL_HANDLE_STMT), 0);
  EXPECT_EQ(database.FetchRow(), -1);
}

TEST_F(QENTDatabase, CodesOtherThanErrorCountAsExecuted) {
  for (const SQLRETURN code :
       std::initializer_list<SQLRETURN>{SQL_SUCCESS_WITH_INFO, SQL_NO_DATA, SQL_NEED_DATA, SQL_STILL_EXECUTING}) {
    CQENTDatabase database(shared_.get());
    odbc_return(OdbcCall::exec_direct, code);
    EXPECT_EQ(database.ExecuteDirect(kSelect), 1) << code;
    EXPECT_EQ(odbc_live(SQL_HANDLE_STMT), 1) << code;
    odbc_return(OdbcCall::exec_direct, code);
    EXPECT_EQ(database.ExecuteDirect(kUpdate), 1) << code;
    EXPECT_EQ(odbc_live(SQL_HANDLE_STMT), 0) << code;
  }
  EXPECT_EQ(reconnects(), 0);
}

TEST_F(QENTDatabase, AnInvalidHandleFromASelectCountsAsExecutedAndTheFetchFails) {
  CQENTDatabase database(shared_.get());
  odbc_return(OdbcCall::exec_direct, SQL_INVALID_HANDLE);
  EXPECT_EQ(database.ExecuteDirect(kSelect), 1);
  odbc_return(OdbcCall::fetch, SQL_INVALID_HANDLE);
  EXPECT_EQ(database.FetchRow(), -3);
}

TEST_F(QENTDatabase, ASecondSelectClosesTheCursorAndReusesTheHandle) {
  CQENTDatabase database(shared_.get());
  database.ExecuteDirect(kSelect);
  EXPECT_EQ(database.ExecuteDirect(kSelect), 1);
  EXPECT_EQ(odbc_count(OdbcCall::alloc_stmt), 1);
  EXPECT_EQ(odbc_count(OdbcCall::close_cursor), 1);
}

TEST_F(QENTDatabase, ACursorThatCannotBeClosedFailsWithoutAReconnect) {
  for (const char* const sql : {kSelect, kUpdate}) {
    CQENTDatabase database(shared_.get());
    database.ExecuteDirect(kSelect);
    odbc_return(OdbcCall::close_cursor, SQL_ERROR);
    const std::size_t executed = odbc_executed().size();
    EXPECT_EQ(database.ExecuteDirect(sql), 0) << sql;
    EXPECT_EQ(odbc_executed().size(), executed) << sql;
    EXPECT_EQ(odbc_live(SQL_HANDLE_STMT), 1) << sql;
  }
  EXPECT_EQ(reconnects(), 0);
}

TEST_F(QENTDatabase, ANonSelectAfterASelectFreesTheStatementAndTakesAFreshOne) {
  CQENTDatabase database(shared_.get());
  database.ExecuteDirect(kSelect);
  EXPECT_EQ(database.ExecuteDirect(kUpdate), 1);
  EXPECT_EQ(odbc_count(OdbcCall::close_cursor), 1);
  EXPECT_EQ(odbc_count(OdbcCall::alloc_stmt), 2);
  EXPECT_EQ(odbc_count(OdbcCall::free_stmt), 2);
}

TEST_F(QENTDatabase, AFailedAllocationReconnectsTheSource) {
  for (const char* const sql : {kSelect, kUpdate}) {
    CQENTDatabase database(shared_.get());
    const int before = reconnects();
    advance_clock(61);
    odbc_return(OdbcCall::alloc_stmt, SQL_ERROR);
    EXPECT_EQ(database.ExecuteDirect(sql), 0) << sql;
    EXPECT_EQ(reconnects(), before + 1) << sql;
    EXPECT_EQ(database.FetchRow(), -1) << sql;
  }
  EXPECT_TRUE(odbc_executed().empty());
}

TEST_F(QENTDatabase, AFailedExecutionFreesTheStatementAndReconnectsTheSource) {
  for (const char* const sql : {kSelect, kUpdate}) {
    CQENTDatabase database(shared_.get());
    const int before = reconnects();
    advance_clock(61);
    odbc_return(OdbcCall::exec_direct, SQL_ERROR);
    EXPECT_EQ(database.ExecuteDirect(sql), 0) << sql;
    EXPECT_EQ(reconnects(), before + 1) << sql;
    EXPECT_EQ(odbc_live(SQL_HANDLE_STMT), 0) << sql;
    EXPECT_EQ(database.FetchRow(), -1) << sql;
  }
  EXPECT_EQ(odbc_executed(), (std::vector<std::string>{kSelect, kUpdate}));  // neither was run again
}

TEST_F(QENTDatabase, TheStatementIsFreedBeforeTheReconnect) {
  CQENTDatabase database(shared_.get());
  odbc_return(OdbcCall::exec_direct, SQL_ERROR);
  database.ExecuteDirect(kSelect);
  const auto calls = odbc_calls();
  const auto freed = std::find(calls.begin(), calls.end(), "free_stmt");
  const auto disconnected = std::find(calls.begin(), calls.end(), "disconnect");
  EXPECT_LT(freed, disconnected);
}

TEST_F(QENTDatabase, OfTwoFailuresTenSecondsApartTheFirstReconnects) {
  odbc_return_always(OdbcCall::exec_direct, SQL_ERROR);
  CQENTDatabase(shared_.get()).ExecuteDirect(kSelect);
  EXPECT_EQ(reconnects(), 1);
  advance_clock(10);
  CQENTDatabase(shared_.get()).ExecuteDirect(kSelect);
  EXPECT_EQ(reconnects(), 1);
}

// The driver manager may give the address of the freed statement to another thread's statement.
TEST_F(QENTDatabase, AStatementThatWentWithItsConnectionIsNeverUsedAgain) {
  odbc_answer(kSelect, {{{"a"}}});
  CQENTDatabase old(shared_.get());
  ASSERT_EQ(old.ExecuteDirect(kSelect), 1);
  ASSERT_EQ(shared_->DBReConnect(), zelvan::kReconnected);

  // A statement of another thread, which may well lie where the freed one lay.
  CQENTDatabase other(shared_.get());
  ASSERT_EQ(other.ExecuteDirect(kSelect), 1);

  EXPECT_EQ(old.FetchRow(), zelvan::kFetchUnexpected);
  std::array<char, 8> text{};
  EXPECT_EQ(old.GetData(1, text.data(), 8, nullptr, SQL_C_CHAR), zelvan::kColumnFailed);
  EXPECT_EQ(old.ColuminRow(), zelvan::kColumnFailed);
  EXPECT_EQ(old.ExecuteDirect(kSelect), 1);
  EXPECT_EQ(old.FetchRow(), zelvan::kFetchUnexpected);
  EXPECT_EQ(old.ExecuteDirect("update userinfo set failaccum = 9"), 0);

  EXPECT_EQ(other.FetchRow(), zelvan::kFetched);
  EXPECT_EQ(odbc_live(SQL_HANDLE_STMT), 1);
}

TEST_F(QENTDatabase, AStatementStaysWhenItsConnectionCouldNotBeClosed) {
  odbc_answer(kSelect, {{{"a"}}});
  CQENTDatabase old(shared_.get());
  ASSERT_EQ(old.ExecuteDirect(kSelect), 1);
  odbc_return(OdbcCall::disconnect, SQL_ERROR);
  ASSERT_EQ(shared_->DBReConnect(), zelvan::kReconnected);
  EXPECT_EQ(old.FetchRow(), zelvan::kFetched);
}

TEST_F(QENTDatabase, AFailedReconnectIsTriedAgainByTheNextFailingStatement) {
  odbc_return_always(OdbcCall::connect, SQL_ERROR);
  odbc_return(OdbcCall::exec_direct, SQL_ERROR);
  CQENTDatabase(shared_.get()).ExecuteDirect(kSelect);
  EXPECT_EQ(reconnects(), 1);
  CQENTDatabase(shared_.get()).ExecuteDirect(kSelect);  // the connection is not open: no statement can be allocated
  EXPECT_EQ(reconnects(), 2);
  odbc_return_normally(OdbcCall::connect);
  CQENTDatabase(shared_.get()).ExecuteDirect(kSelect);
  EXPECT_EQ(reconnects(), 3);
  EXPECT_EQ(CQENTDatabase(shared_.get()).ExecuteDirect(kSelect), 1);
}

TEST_F(QENTDatabase, AFailedReleaseOfANonSelectFailsTheStatement) {
  for (const SQLRETURN code : std::initializer_list<SQLRETURN>{SQL_ERROR, SQL_INVALID_HANDLE}) {
    CQENTDatabase database(shared_.get());
    odbc_return(OdbcCall::free_stmt, code);
    EXPECT_EQ(database.ExecuteDirect(kUpdate), 0);
    EXPECT_EQ(database.FetchRow(), -1);
  }
  EXPECT_EQ(reconnects(), 0);
}

TEST_F(QENTDatabase, AReleaseWithInfoIsASuccess) {
  CQENTDatabase database(shared_.get());
  odbc_return(OdbcCall::free_stmt, SQL_SUCCESS_WITH_INFO);
  EXPECT_EQ(database.ExecuteDirect(kUpdate), 1);
}

TEST_F(QENTDatabase, AnObjectThatOutlivesAReconnectKeepsTheOldHandle) {
  CQENTDatabase old(shared_.get());
  const SQLHDBC before = old.connection();
  ASSERT_EQ(shared_->DBReConnect(), zelvan::kReconnected);
  EXPECT_EQ(old.connection(), before);
  EXPECT_EQ(old.ExecuteDirect(kUpdate), 0);  // never ran, and does not count as written
  EXPECT_EQ(old.ExecuteDirect(kSelect), 1);  // the driver manager's SQL_INVALID_HANDLE is no SQL_ERROR
  EXPECT_EQ(old.FetchRow(), -1);
  EXPECT_TRUE(odbc_executed().empty());
  EXPECT_EQ(CQENTDatabase(shared_.get()).ExecuteDirect(kUpdate), 1);
}

TEST_F(QENTDatabase, AnObjectWithAnOpenStatementSurvivesTheReconnectOfAnother) {
  odbc_answer("select", {.rows = {{"one"}}});
  {
    CQENTDatabase old(shared_.get());
    ASSERT_EQ(old.ExecuteDirect(kSelect), 1);
    ASSERT_EQ(shared_->DBReConnect(), zelvan::kReconnected);
    std::array<char, 8> buffer{};
    EXPECT_EQ(old.FetchRow(), -3);
    EXPECT_EQ(old.GetData(1, buffer.data(), 8, nullptr, SQL_C_CHAR), -2);
    EXPECT_EQ(old.ColuminRow(), -2);
    EXPECT_EQ(old.ExecuteDirect(kUpdate), 0);
  }
  EXPECT_EQ(odbc_live(SQL_HANDLE_DBC), 1);
}

TEST_F(QENTDatabase, FetchRowTellsTheCodesApart) {
  const std::vector<std::pair<SQLRETURN, int>> codes{{SQL_SUCCESS, 1},         {SQL_SUCCESS_WITH_INFO, 1},
                                                     {SQL_NO_DATA, 100},       {SQL_ERROR, -2},
                                                     {SQL_INVALID_HANDLE, -3}, {SQL_STILL_EXECUTING, -3}};
  odbc_answer("select", {.rows = std::vector<OdbcRow>(10, OdbcRow{"x"})});
  CQENTDatabase database(shared_.get());
  database.ExecuteDirect(kSelect);
  for (const auto& [code, result] : codes) {
    odbc_return(OdbcCall::fetch, code);
    EXPECT_EQ(database.FetchRow(), result) << code;
  }
}

TEST_F(QENTDatabase, GetDataTellsSuccessFromEverythingElse) {
  const std::vector<std::pair<SQLRETURN, int>> codes{{SQL_SUCCESS, 1},  {SQL_SUCCESS_WITH_INFO, 1},
                                                     {SQL_ERROR, -2},   {SQL_INVALID_HANDLE, -2},
                                                     {SQL_NO_DATA, -2}, {SQL_STILL_EXECUTING, -2}};
  odbc_answer("select", {.rows = {{"x"}}});
  CQENTDatabase database(shared_.get());
  database.ExecuteDirect(kSelect);
  database.FetchRow();
  std::array<char, 8> buffer{};
  for (const auto& [code, result] : codes) {
    odbc_return(OdbcCall::get_data, code);
    EXPECT_EQ(database.GetData(1, buffer.data(), 8, nullptr, SQL_C_CHAR), result) << code;
  }
}

TEST_F(QENTDatabase, GetDataHandsItsArgumentsThrough) {
  odbc_answer("select", {.rows = {{"first", "second value"}}});
  CQENTDatabase database(shared_.get());
  database.ExecuteDirect(kSelect);
  database.FetchRow();
  std::array<char, 7> buffer{};
  long indicator = 0;
  EXPECT_EQ(database.GetData(2, buffer.data(), 7, &indicator, SQL_C_CHAR), 1);
  EXPECT_STREQ(buffer.data(), "second");  // cut to the buffer, and still read
  EXPECT_EQ(indicator, 12);
}

TEST_F(QENTDatabase, DescribeColAndColuminRowReportTheResultSet) {
  odbc_answer("select", {.rows = {{"a", "b", "c"}}});
  CQENTDatabase database(shared_.get());
  database.ExecuteDirect(kSelect);
  std::array<unsigned char, 32> name{};
  short name_length = 0;
  short type = 0;
  unsigned long size = 0;
  short digits = -1;
  short nullable = -1;
  EXPECT_EQ(database.ColuminRow(), 3);
  EXPECT_EQ(database.DescribeCol(2, name.data(), 32, &name_length, &type, &size, &digits, &nullable), 1);
  EXPECT_STREQ(reinterpret_cast<const char*>(name.data()), "column2");
  EXPECT_EQ(name_length, 7);
  EXPECT_EQ(type, SQL_VARCHAR);
  EXPECT_EQ(size, 255U);
  EXPECT_EQ(digits, 0);
  EXPECT_EQ(nullable, SQL_NULLABLE);
}

TEST_F(QENTDatabase, DescribeColAndColuminRowReportFailures) {
  CQENTDatabase database(shared_.get());
  database.ExecuteDirect(kSelect);
  std::array<unsigned char, 32> name{};
  for (const SQLRETURN code : std::initializer_list<SQLRETURN>{SQL_ERROR, SQL_INVALID_HANDLE}) {
    odbc_return(OdbcCall::describe_col, code);
    odbc_return(OdbcCall::num_result_cols, code);
    EXPECT_EQ(database.DescribeCol(1, name.data(), 32, nullptr, nullptr, nullptr, nullptr, nullptr), -2);
    EXPECT_EQ(database.ColuminRow(), -2);
  }
  odbc_return(OdbcCall::describe_col, SQL_SUCCESS_WITH_INFO);
  odbc_return(OdbcCall::num_result_cols, SQL_SUCCESS_WITH_INFO);
  EXPECT_EQ(database.DescribeCol(1, name.data(), 32, nullptr, nullptr, nullptr, nullptr, nullptr), 1);
  EXPECT_EQ(database.ColuminRow(), 0);
}

TEST_F(QENTDatabase, ConnectOfABorrowedObjectDoesNothing) {
  CQENTDatabase database(shared_.get());
  const std::size_t before = odbc_calls().size();
  EXPECT_EQ(database.DBConnect(text("other"), 5, text("u"), 1, text("p"), 1), 0);
  EXPECT_EQ(odbc_calls().size(), before);
}

TEST_F(QENTDatabase, DisconnectOfABorrowedObjectForgetsTheConnectionOnly) {
  CQENTDatabase database(shared_.get());
  database.ExecuteDirect(kSelect);
  EXPECT_EQ(database.DBDisconnect(), 0);
  EXPECT_EQ(odbc_live(SQL_HANDLE_STMT), 0);
  EXPECT_EQ(database.ExecuteDirect(kSelect), 0);
  EXPECT_EQ(odbc_count(OdbcCall::disconnect), 0);
  EXPECT_NE(shared_->connection(), nullptr);
  EXPECT_EQ(database.DBDisconnect(), 0);
}

TEST_F(QENTDatabase, DisconnectOfABorrowedObjectReturnsTheCodeOfTheRelease) {
  for (const SQLRETURN code : std::initializer_list<SQLRETURN>{SQL_ERROR, SQL_INVALID_HANDLE, SQL_SUCCESS_WITH_INFO}) {
    CQENTDatabase database(shared_.get());
    database.ExecuteDirect(kSelect);
    odbc_return(OdbcCall::free_stmt, code);
    EXPECT_EQ(database.DBDisconnect(), code);
  }
}

TEST_F(QENTDatabase, TheDestructorClosesAndFreesTheStatementAndLeavesTheConnection) {
  {
    CQENTDatabase database(shared_.get());
    database.ExecuteDirect(kSelect);
  }
  EXPECT_EQ(odbc_count(OdbcCall::close_cursor), 1);
  EXPECT_EQ(odbc_live(SQL_HANDLE_STMT), 0);
  EXPECT_EQ(odbc_live(SQL_HANDLE_DBC), 1);
  EXPECT_EQ(odbc_count(OdbcCall::disconnect), 0);
}

TEST_F(QENTDatabase, AnObjectOfItsOwnConnectsExecutesAndDisconnects) {
  {
    CQENTDatabase own;
    EXPECT_EQ(own.DBConnect(text("own"), 3, text("u"), 1, text("p"), 1), 0);
    EXPECT_EQ(odbc_live(SQL_HANDLE_DBC), 2);
    EXPECT_EQ(own.ExecuteDirect(kUpdate), 1);
    odbc_return(OdbcCall::exec_direct, SQL_ERROR);
    EXPECT_EQ(own.ExecuteDirect(kUpdate), 0);  // no source: nothing to reconnect
    EXPECT_EQ(own.ExecuteDirect(kSelect), 1);
  }
  EXPECT_EQ(odbc_live(SQL_HANDLE_DBC), 1);
  EXPECT_EQ(odbc_live(SQL_HANDLE_ENV), 1);
  EXPECT_EQ(odbc_live(SQL_HANDLE_STMT), 0);
}

TEST_F(QENTDatabase, DisconnectThroughTheBaseClassReachesTheOverride) {
  CQENTDatabase database(shared_.get());
  COTPDatabase& base = database;
  EXPECT_EQ(base.DBDisconnect(), 0);
  EXPECT_EQ(odbc_count(OdbcCall::disconnect), 0);
}

TEST_F(QENTDatabase, ReadTextReadsCutsAndTellsNullApart) {
  odbc_answer("select", {.rows = {{"exact", "longer", "", std::nullopt}}});
  CQENTDatabase database(shared_.get());
  database.ExecuteDirect(kSelect);
  database.FetchRow();
  std::array<char, 6> out{};
  EXPECT_EQ(read_text(database, 1, out), ColumnRead::read);
  EXPECT_STREQ(out.data(), "exact");
  EXPECT_EQ(read_text(database, 2, out), ColumnRead::read);
  EXPECT_STREQ(out.data(), "longe");
  EXPECT_EQ(read_text(database, 3, out), ColumnRead::read);
  EXPECT_STREQ(out.data(), "");
  std::strcpy(out.data(), "old");
  EXPECT_EQ(read_text(database, 4, out), ColumnRead::null);
  EXPECT_STREQ(out.data(), "");
}

TEST_F(QENTDatabase, ReadTextLeavesTheBufferAloneOnFailure) {
  odbc_answer("select", {.rows = {{"value"}}});
  CQENTDatabase database(shared_.get());
  std::array<char, 6> out{"old"};
  EXPECT_EQ(read_text(database, 1, out), ColumnRead::failed);  // no statement
  database.ExecuteDirect(kSelect);
  EXPECT_EQ(read_text(database, 1, out), ColumnRead::failed);  // no row
  database.FetchRow();
  EXPECT_EQ(read_text(database, 0, out), ColumnRead::failed);  // no such column
  EXPECT_EQ(read_text(database, 2, out), ColumnRead::failed);
  EXPECT_EQ(read_text(database, 1, {}), ColumnRead::failed);  // no room for the NUL
  EXPECT_STREQ(out.data(), "old");
}

TEST_F(QENTDatabase, ReadTextWithRoomForTheNulOnlyReadsAnEmptyText) {
  odbc_answer("select", {.rows = {{"value"}}});
  CQENTDatabase database(shared_.get());
  database.ExecuteDirect(kSelect);
  database.FetchRow();
  std::array<char, 1> out{'x'};
  EXPECT_EQ(read_text(database, 1, out), ColumnRead::read);
  EXPECT_EQ(out[0], '\0');
}

TEST_F(QENTDatabase, ReadTextCutsAtItsLongestText) {
  odbc_answer("select", {.rows = {{std::string(400, 'x')}}});
  CQENTDatabase database(shared_.get());
  database.ExecuteDirect(kSelect);
  database.FetchRow();
  std::array<char, 512> out{};
  EXPECT_EQ(read_text(database, 1, out), ColumnRead::read);
  EXPECT_EQ(std::strlen(out.data()), zelvan::kLongestColumnText);
}

// Drivers break when two threads use a connection, and the driver manager when one connects it.
TEST_F(QENTDatabase, OneThreadAtATimeIsInTheDriverAlsoWhileTheConnectionIsReplaced) {
  odbc_answer("select", {.rows = {{"bob"}}});
  std::atomic<bool> stop{false};
  std::atomic<int> executed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      while (!stop) {
        CQENTDatabase database(shared_.get());
        executed += database.ExecuteDirect(kUpdate);
        database.ExecuteDirect(kSelect);
        std::array<char, 8> name{};
        if (database.FetchRow() == zelvan::kFetched) (void)read_text(database, 1, name);
      }
    });
  }
  while (executed < 10) std::this_thread::yield();
  for (int i = 0; i < 50; ++i) {
    advance_clock(61);
    shared_->DBReConnect();
  }
  const int before = executed;
  while (executed < before + 10) std::this_thread::yield();
  stop = true;
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(odbc_overlapped());
  EXPECT_EQ(odbc_live(SQL_HANDLE_STMT), 0);
  EXPECT_EQ(odbc_live(SQL_HANDLE_DBC), 1);
}

TEST_F(QENTDatabase, AConnectionThatIsHeldIsUsedByItsThreadAloneUntilTheEnd) {
  std::atomic<bool> executed{false};
  std::thread other;
  {
    const COTPDatabase::Hold held = shared_->hold();
    other = std::thread([&] {
      CQENTDatabase database(shared_.get());
      database.ExecuteDirect(kUpdate);
      executed = true;
    });
    CQENTDatabase database(shared_.get());
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(database.ExecuteDirect(kSelect), 1);
    advance_clock(61);
    EXPECT_EQ(shared_->DBReConnect(), zelvan::kReconnected);
    EXPECT_FALSE(executed);
  }
  other.join();
  EXPECT_TRUE(executed);
}
