#include "sync/account.h"

#include <functional>

#include "sync/token_state.h"
#include "unit/sync/sync_fixture.h"

namespace zelvan::test {
namespace {

class AccountTest : public SyncFixture {
 protected:
  sync_result load(const char* name = "alice") {
    CQENTDatabase database(&otp_database);
    return load_account(database, name, account);
  }
  sync_result load_scripted() {
    script();
    return load();
  }

  SyncAccount account;
};

TEST_F(AccountTest, SelectsTheUserThenTheToken) {
  ASSERT_EQ(load_scripted(), SYNC_ACCEPTED);
  EXPECT_EQ(odbc_executed(),
            (std::vector<std::string>{
                "select authtype, pin, serialnum, preusedate from userinfo where username='alice'",
                "select tktype, hcounter, lcounter, userkey, predate, diglen, authwnd, tmstep from keyinfo where "
                "serialnum='SN-1'"}));
}

TEST_F(AccountTest, ReadsEveryColumn) {
  user = {"2", "Pin", "SN-1", kNowText};
  token = {"2", "7", "42", "key", "2023-11-14 22:13:10", "8", "30", "60"};
  ASSERT_EQ(load_scripted(), SYNC_ACCEPTED);
  EXPECT_EQ(account.token.auth_type, 2);
  EXPECT_STREQ(account.token.pin.data(), "Pin");
  EXPECT_STREQ(account.serial_number.data(), "SN-1");
  EXPECT_EQ(account.token.token_type, 2);
  EXPECT_EQ(account.token.high_counter, 7U);
  EXPECT_EQ(account.token.low_counter, 42U);
  EXPECT_STREQ(account.token.key.data(), "key");
  EXPECT_EQ(getcurtime() - account.token_date, 10);
  EXPECT_EQ(account.token.code_digits, 8);
  EXPECT_EQ(account.window, 30);
  EXPECT_EQ(account.time_step, 60);
  EXPECT_EQ(account.token.time_step, (std::array<char, 3>{'6', '0', '\0'}));
}

TEST_F(AccountTest, FailedFirstSelectIsNotExecuted) {
  odbc_return(OdbcCall::exec_direct, SQL_ERROR);
  EXPECT_EQ(load(), SYNC_NOT_EXECUTED);
  EXPECT_EQ(odbc_executed().size(), 1U);
}

TEST_F(AccountTest, UnknownUserIsNoRow) {
  EXPECT_EQ(load("nobody"), SYNC_NO_ROW);
  EXPECT_EQ(odbc_executed().size(), 1U);
}

TEST_F(AccountTest, FailedFetchOfTheUserIsNoRow) {
  script();
  odbc_return(OdbcCall::fetch, SQL_ERROR);
  EXPECT_EQ(load(), SYNC_NO_ROW);
  EXPECT_EQ(odbc_executed().size(), 1U);
}

TEST_F(AccountTest, FailedSecondSelectIsNotExecuted) {
  script();
  odbc_return(OdbcCall::exec_direct, SQL_ERROR, 2);
  EXPECT_EQ(load(), SYNC_NOT_EXECUTED);
}

TEST_F(AccountTest, UnknownTokenIsNoRow) {
  user.serial_number = "SN-2";
  EXPECT_EQ(load_scripted(), SYNC_NO_ROW);
}

TEST_F(AccountTest, EveryFailedColumnIsUnreadable) {
  for (int column = 1; column <= 12; ++column) {
    script();
    odbc_return(OdbcCall::get_data, SQL_ERROR, column);
    account = {};
    EXPECT_EQ(load(), SYNC_UNREADABLE) << column;
    odbc_return_normally(OdbcCall::get_data);
  }
}

TEST_F(AccountTest, FailedUserColumnStillSelectsTheTokenWithWhatThereIs) {
  script();
  odbc_return(OdbcCall::get_data, SQL_ERROR, 1);
  EXPECT_EQ(load(), SYNC_UNREADABLE);
  ASSERT_EQ(odbc_executed().size(), 2U);
  EXPECT_TRUE(odbc_executed()[1].ends_with("from keyinfo where serialnum=''"));
}

TEST_F(AccountTest, FailedLastUserColumnSelectsTheTokenAndRefuses) {
  script();
  odbc_return(OdbcCall::get_data, SQL_ERROR, 4);
  EXPECT_EQ(load(), SYNC_UNREADABLE);
  ASSERT_EQ(odbc_executed().size(), 2U);
  EXPECT_TRUE(odbc_executed()[1].ends_with("from keyinfo where serialnum='SN-1'"));
}

TEST_F(AccountTest, ReadingStopsAtTheFirstFailedColumn) {
  script();
  odbc_return(OdbcCall::get_data, SQL_ERROR, 2);
  EXPECT_EQ(load(), SYNC_UNREADABLE);
  EXPECT_EQ(odbc_count(OdbcCall::get_data), 2);
}

TEST_F(AccountTest, NullColumnIsUnreadable) {
  const std::vector<std::function<void()>> columns{
      [&] { user.auth_type.reset(); }, [&] { user.pin.reset(); },       [&] { user.serial_number.reset(); },
      [&] { token.type.reset(); },     [&] { token.high.reset(); },     [&] { token.low.reset(); },
      [&] { token.key.reset(); },      [&] { token.date.reset(); },     [&] { token.digits.reset(); },
      [&] { token.window.reset(); },   [&] { token.time_step.reset(); }};
  for (std::size_t i = 0; i < columns.size(); ++i) {
    user = {};
    user.auth_type = "2";
    token = {};
    columns[i]();
    account = {};
    EXPECT_EQ(load_scripted(), SYNC_UNREADABLE) << i;
  }
}

TEST_F(AccountTest, UserWhoNeverLoggedInIsServed) {
  user.last_use.reset();
  EXPECT_EQ(load_scripted(), SYNC_ACCEPTED);
}

TEST_F(AccountTest, NullPinIsEmptyWhereTheCodeStandsAlone) {
  user.pin.reset();
  for (const char* type : {"1", "0", "3"}) {
    user.auth_type = type;
    account = {};
    EXPECT_EQ(load_scripted(), SYNC_ACCEPTED) << type;
    EXPECT_STREQ(account.token.pin.data(), "");
  }
}

TEST_F(AccountTest, EmptyKeyIsUnreadable) {
  token.key = "";
  EXPECT_EQ(load_scripted(), SYNC_UNREADABLE);
}

TEST_F(AccountTest, EmptyPinIsNone) {
  user.pin = "";
  EXPECT_EQ(load_scripted(), SYNC_ACCEPTED);
}

TEST_F(AccountTest, TimeSteppedTokenWithoutATimeStepIsUnreadable) {
  token.type = "2";
  for (const char* step : {"0", "-1", "", "x", "-9"}) {
    token.time_step = step;
    account = {};
    EXPECT_EQ(load_scripted(), SYNC_UNREADABLE) << step;
  }
  token.time_step = "1";
  account = {};
  EXPECT_EQ(load_scripted(), SYNC_ACCEPTED);
}

TEST_F(AccountTest, OtherTokensNeedNoTimeStep) {
  token.time_step = "0";
  for (const char* type : {"1", "3", "0", "9", "x", ""}) {
    token.type = type;
    account = {};
    EXPECT_EQ(load_scripted(), SYNC_ACCEPTED) << type;
  }
}

TEST_F(AccountTest, ValueThatIsTooLongIsCut) {
  user = {"12", std::string(23, 'p') + "xyz", std::string(29, 's') + "tuv", "2023-11-14 22:13:20.123456"};
  token = {"12", "12345678901234", "98765432109876", std::string(29, 'k') + "lmn", "2023-11-14 22:13:10.5", "10", "255",
           "120"};
  odbc_answer("select authtype", {{user.row()}});
  odbc_answer("select tktype", {{token.row()}});
  ASSERT_EQ(load(), SYNC_ACCEPTED);
  EXPECT_EQ(account.token.auth_type, 1);
  EXPECT_EQ(account.token.pin.data(), std::string(23, 'p'));
  EXPECT_EQ(account.serial_number.data(), std::string(29, 's'));
  EXPECT_EQ(account.token.token_type, 1);
  EXPECT_EQ(account.token.high_counter, 12345678901U % 0x100000000U);
  EXPECT_EQ(account.token.low_counter, 98765432109U % 0x100000000U);
  EXPECT_EQ(account.token.key.data(), std::string(29, 'k'));
  EXPECT_EQ(getcurtime() - account.token_date, 10);
  EXPECT_EQ(account.token.code_digits, 1);
  EXPECT_EQ(account.window, 25);
  EXPECT_EQ(account.time_step, 12);
  EXPECT_STREQ(account.token.time_step.data(), "12");
}

TEST_F(AccountTest, LongestValuesAreWhole) {
  user.pin = std::string(23, 'p');
  token.key = std::string(29, 'k');
  token.high = "4294967295";
  token.low = "4294967295";
  token.window = "99";
  ASSERT_EQ(load_scripted(), SYNC_ACCEPTED);
  EXPECT_EQ(account.token.pin.data(), std::string(23, 'p'));
  EXPECT_EQ(account.token.key.data(), std::string(29, 'k'));
  EXPECT_EQ(account.token.high_counter, 0xFFFFFFFFU);
  EXPECT_EQ(account.token.low_counter, 0xFFFFFFFFU);
  EXPECT_EQ(account.window, 99);
}

TEST_F(AccountTest, NumbersOfOneByteKeepTheirLowEightBits) {
  token.window = "-1";
  ASSERT_EQ(load_scripted(), SYNC_ACCEPTED);
  EXPECT_EQ(account.window, 255);
}

TEST_F(AccountTest, CharactersOfACounterAreNotChecked) {
  token.low = "1:";  // ':' counts as 10
  ASSERT_EQ(load_scripted(), SYNC_ACCEPTED);
  EXPECT_EQ(account.token.low_counter, 20U);
}

TEST_F(AccountTest, DateThatIsNoneIsTakenAsItReads) {
  for (const char* date : {"", "rubbish", "9999-99-99 99:99:99", "----------", "2024/03/05 10:11:12"}) {
    token.date = date;
    account = {};
    EXPECT_EQ(load_scripted(), SYNC_ACCEPTED) << date;
    EXPECT_EQ(account.token_date, stored_time(date)) << date;
  }
}

TEST_F(AccountTest, QuoteInTheUserNameIsDoubled) {
  EXPECT_EQ(load("o'brien"), SYNC_NO_ROW);
  EXPECT_TRUE(odbc_executed()[0].ends_with("where username='o''brien'"));
}

}  // namespace
}  // namespace zelvan::test
