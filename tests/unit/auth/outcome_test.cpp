// What an attempt leaves behind: statements in their order, log lines, the failure count, the lock, mails.
#include <algorithm>

#include "auth_fixture.h"
#include "config/settings.h"
#include "mail/notifier.h"

using namespace zelvan::test;  // NOLINT: the fixture's words

namespace {

using Statements = std::vector<std::string>;
using Mails = std::vector<std::string>;

constexpr int kAccept = 2;
constexpr int kReject = 3;
constexpr const char* kWrong = "wrong!";
constexpr std::time_t kYear1000000 = 31'494'784'780'800;  // its date literal has no room in the function dialect

bool executed_once(const std::string& statement) { return std::ranges::count(odbc_executed(), statement) == 1; }

std::string log_line(const std::string& message) { return std::string(kNowText) + "\t" + message + "\n"; }

class Outcome : public AuthTest {
 protected:
  std::string right() const { return code(5); }

  // The failure statement that a wrong code ends with.
  std::string count_after(const char* failures, int seconds_since_last) {
    account.user.failaccum = failures;
    account.user.preusedate = date(kNow - seconds_since_last);
    EXPECT_EQ(login(kWrong).code(), kReject);
    return executed().back();
  }

  void lock(int seconds) {
    account.user.islocked = "1";
    account.user.preusedate = date(kNow - seconds);
  }
};

}  // namespace

TEST_F(Outcome, NullItemGetsNoReply) {
  CAnalyseAuthData analyser;
  EXPECT_EQ(analyser.Resolve(nullptr), RESOLVE_NO_REPLY);
}

// ---- statements in order

TEST_F(Outcome, RightCodeRunsItsFiveStatementsInOrder) {
  EXPECT_EQ(login(right()).code(), kAccept);
  EXPECT_EQ(executed(), (Statements{sql::select_user(), sql::select_token(), sql::update_token(0, 6),
                                    sql::audit("auth succeed"), sql::reset_failures()}));
}

TEST_F(Outcome, WrongCodeRunsItsFourStatementsInOrder) {
  EXPECT_EQ(login(kWrong).code(), kReject);
  EXPECT_EQ(executed(), (Statements{sql::select_user(), sql::select_token(), sql::audit("auth failed."),
                                    sql::count_failure(1, 0)}));
}

TEST_F(Outcome, LogTakesThePlaceOfTheAuditRows) {
  start_log();
  EXPECT_EQ(login(right()).code(), kAccept);
  EXPECT_EQ(executed(),
            (Statements{sql::select_user(), sql::select_token(), sql::update_token(0, 6), sql::reset_failures()}));
  EXPECT_EQ(login(kWrong).code(), kReject);
  EXPECT_EQ(executed().back(), sql::count_failure(1, 0));
  EXPECT_EQ(executed().size(), 7U);
  EXPECT_EQ(log_text(), log_line("alice auth succeeded.") + log_line("alice auth failed.Request from:10.0.0.7"));
}

TEST_F(Outcome, FunctionDialectWrapsEveryDate) {
  ng_dbtype = 4;
  EXPECT_EQ(login(right()).code(), kAccept);
  EXPECT_EQ(login(kWrong).code(), kReject);
  const auto statements = executed();
  ASSERT_EQ(statements.size(), 9U);
  for (const std::size_t i : {2U, 3U, 4U, 7U, 8U}) {
    EXPECT_NE(statements[i].find("to_date('2023-11-14 22:13:20','yyyy-mm-dd hh24:mi:ss')"), std::string::npos);
  }
}

TEST_F(Outcome, QuoteInTheNameIsDoubledInEveryStatement) {
  EXPECT_EQ(send(client.pap("o'neil", right())).code(), kAccept);
  EXPECT_EQ(send(client.pap("o'neil", kWrong)).code(), kReject);
  for (const std::string& statement : executed()) {
    const bool about_user =
        statement.find("userinfo") != std::string::npos || statement.find("commonloginfo") != std::string::npos;
    EXPECT_EQ(statement.find("'o''neil'") != std::string::npos, about_user) << statement;
  }
}

// ---- which outcomes are recorded

namespace {

struct Condition {
  int condition;
  bool successes;
  bool failures;
};

class Recorded : public Outcome, public ::testing::WithParamInterface<Condition> {};

}  // namespace

TEST_P(Recorded, AsAuditRows) {
  ng_logcond = GetParam().condition;
  EXPECT_EQ(login(right()).code(), kAccept);
  EXPECT_EQ(login(kWrong).code(), kReject);
  EXPECT_EQ(executed_once(sql::audit("auth succeed")), GetParam().successes);
  EXPECT_EQ(executed_once(sql::audit("auth failed.")), GetParam().failures);
  EXPECT_TRUE(executed_once(sql::reset_failures()));
  EXPECT_TRUE(executed_once(sql::count_failure(1, 0)));
}

TEST_P(Recorded, AsLogLines) {
  ng_logcond = GetParam().condition;
  start_log();
  EXPECT_EQ(login(right()).code(), kAccept);
  EXPECT_EQ(login(kWrong).code(), kReject);
  EXPECT_EQ(log_text(), (GetParam().successes ? log_line("alice auth succeeded.") : "") +
                            (GetParam().failures ? log_line("alice auth failed.Request from:10.0.0.7") : ""));
  EXPECT_TRUE(executed_once(sql::reset_failures()));
  EXPECT_TRUE(executed_once(sql::count_failure(1, 0)));
}

INSTANTIATE_TEST_SUITE_P(Conditions, Recorded,
                         ::testing::Values(Condition{1, true, true}, Condition{2, false, true},
                                           Condition{3, true, false}, Condition{0, false, false},
                                           Condition{4, false, false}, Condition{-1, false, false}),
                         [](const auto& test) {
                           const int condition = test.param.condition;
                           return condition < 0 ? std::string("Minus") : std::to_string(condition);
                         });

TEST_F(Outcome, AuditRowThatCannotBeWrittenChangesNothing) {
  odbc_answer("insert into", {{}, SQL_ERROR, 0});
  EXPECT_EQ(login(right()).code(), kAccept);
  EXPECT_EQ(executed().back(), sql::reset_failures());
  EXPECT_EQ(login(kWrong).code(), kReject);
  EXPECT_EQ(executed().back(), sql::count_failure(1, 0));
}

// ---- a date that cannot be formed

TEST_F(Outcome, WithoutADateForTheAuditRowThereIsNoReplyAndNoUserUpdate) {
  ng_dbtype = 4;
  set_clock(kYear1000000);
  EXPECT_EQ(login(kWrong).result, RESOLVE_NO_REPLY);
  EXPECT_EQ(executed().size(), 2U);  // the two selects
  EXPECT_EQ(login(right()).result, RESOLVE_NO_REPLY);
  EXPECT_EQ(executed().size(), 5U);  // and the token's update, which comes first
  EXPECT_TRUE(mails().empty());
}

TEST_F(Outcome, WithoutADateForTheAuditRowNothingIsRecordedThoughNothingWouldBe) {
  ng_dbtype = 4;
  ng_logcond = 0;
  set_clock(kYear1000000);
  EXPECT_EQ(login(kWrong).result, RESOLVE_NO_REPLY);
  EXPECT_EQ(executed().size(), 2U);
}

TEST_F(Outcome, LogNeedsNoDateLiteral) {
  ng_dbtype = 4;
  start_log();
  set_clock(kYear1000000);
  EXPECT_EQ(login(kWrong).code(), kReject);
  EXPECT_EQ(executed().size(), 3U);
  EXPECT_EQ(log_text(), "1000000-01-01 00:00:00\talice auth failed.Request from:10.0.0.7\n");
}

TEST_F(Outcome, OtherDialectsHoldTheYear1000000) {
  set_clock(kYear1000000);
  EXPECT_EQ(login(kWrong).code(), kReject);
  EXPECT_EQ(executed().back(), sql::count_failure(1, 0, kYear1000000));
}

// ---- updates of the user that fail

TEST_F(Outcome, FailedSuccessUpdateIsAnAuditRowAndTheReplyIsSent) {
  odbc_answer("update userinfo", {{}, SQL_ERROR, 0});
  EXPECT_EQ(login(right()).code(), kAccept);
  EXPECT_EQ(executed().back(), sql::audit("Update userinfo failed."));
  EXPECT_EQ(executed().size(), 6U);
}

TEST_F(Outcome, FailedSuccessUpdateIsALogLineAndTheReplyIsSent) {
  start_log();
  ng_logcond = 0;  // has no say in this line
  odbc_answer("update userinfo", {{}, SQL_ERROR, 0});
  EXPECT_EQ(login(right()).code(), kAccept);
  EXPECT_EQ(executed().back(), sql::reset_failures());
  EXPECT_EQ(log_text(), log_line("Update userinfo failed.Username:alice."));
}

// Deliberate: this one row has four values only.
TEST_F(Outcome, FailedFailureUpdateIsAnAuditRowOfFourValues) {
  odbc_answer("update userinfo", {{}, SQL_ERROR, 0});
  EXPECT_EQ(login(kWrong).code(), kReject);
  EXPECT_EQ(executed().back(), sql::audit_update_failed_short());
  EXPECT_EQ(executed().size(), 5U);
}

TEST_F(Outcome, FailedFailureUpdateIsALogLine) {
  start_log();
  odbc_answer("update userinfo", {{}, SQL_ERROR, 0});
  EXPECT_EQ(login(kWrong).code(), kReject);
  EXPECT_EQ(executed().back(), sql::count_failure(1, 0));
  EXPECT_EQ(log_text(),
            log_line("alice auth failed.Request from:10.0.0.7") + log_line("Update userinfo failed.Username:alice."));
}

TEST_F(Outcome, FailedFailureUpdateStillSendsTheMail) {
  odbc_answer("update userinfo", {{}, SQL_ERROR, 0});
  account.user.failaccum = "4";
  EXPECT_EQ(login(kWrong).code(), kReject);
  EXPECT_EQ(mails(), Mails{"alice@example.org"});
}

TEST_F(Outcome, FailedUpdateOfALockedAccountIsAnAuditRowOfFourValuesToo) {
  lock(10);
  odbc_answer("update userinfo", {{}, SQL_ERROR, 0});
  EXPECT_EQ(login(right()).code(), kReject);
  EXPECT_EQ(executed(), (Statements{sql::select_user(), sql::audit("auth failed."), sql::touch_user(),
                                    sql::audit_update_failed_short()}));
}

// ---- the failure count

TEST_F(Outcome, FailureAddsOneWithin599SecondsAndStartsAgainAfter600) {
  EXPECT_EQ(count_after("0", 0), sql::count_failure(1, 0));
  EXPECT_EQ(count_after("3", 60), sql::count_failure(4, 0));
  EXPECT_EQ(count_after("3", 599), sql::count_failure(4, 0));
  EXPECT_EQ(count_after("3", 600), sql::count_failure(1, 0));
  EXPECT_EQ(count_after("4", 660), sql::count_failure(1, 0));
  EXPECT_EQ(count_after("3", -1000), sql::count_failure(4, 0));
}

TEST_F(Outcome, FailureWithoutALastDateAddsOne) {
  account.user.failaccum = "3";
  account.user.preusedate = std::nullopt;
  EXPECT_EQ(login(kWrong).code(), kReject);
  EXPECT_EQ(executed().back(), sql::count_failure(4, 0));
}

TEST_F(Outcome, CountOfThreeDigitsIsReadAsItsFirstTwo) {
  ng_maxaccum = 200;
  EXPECT_EQ(count_after("100", 60), sql::count_failure(11, 0));
}

TEST_F(Outcome, CountThatReachesTheLimitLocks) {
  EXPECT_EQ(count_after("3", 60), sql::count_failure(4, 0));
  EXPECT_TRUE(mails().empty());
  EXPECT_EQ(count_after("4", 60), sql::count_failure(0, 1));
  EXPECT_EQ(mails(), Mails{"alice@example.org"});
}

TEST_F(Outcome, CountBeyondTheLimitLocksToo) {
  EXPECT_EQ(count_after("50", 60), sql::count_failure(0, 1));
  EXPECT_EQ(count_after("50", 600), sql::count_failure(1, 0));
}

TEST_F(Outcome, LimitOfOneOrLessLocksAtTheFirstFailure) {
  for (const int limit : {1, 0, -1}) {
    ng_maxaccum = limit;
    EXPECT_EQ(count_after("0", 60), sql::count_failure(0, 1)) << limit;
  }
}

TEST_F(Outcome, FourFailuresAMinuteApartThenTheFifthLocks) {
  account.keep_updated();
  for (int i = 1; i <= 4; ++i) {
    set_clock(kNow + 60 * i);
    EXPECT_EQ(resolve(client.pap("alice", kWrong)).code(), kReject);
    EXPECT_EQ(*account.user.failaccum, std::to_string(i));
    EXPECT_EQ(*account.user.islocked, "0");
  }
  set_clock(kNow + 300);
  EXPECT_EQ(resolve(client.pap("alice", kWrong)).code(), kReject);
  EXPECT_EQ(*account.user.failaccum, "0");
  EXPECT_EQ(*account.user.islocked, "1");
  EXPECT_EQ(*account.user.preusedate, date(kNow + 300));
}

TEST_F(Outcome, SuccessResetsTheCount) {
  account.user.failaccum = "4";
  account.keep_updated();
  EXPECT_EQ(resolve(client.pap("alice", right())).code(), kAccept);
  EXPECT_EQ(*account.user.failaccum, "0");
  EXPECT_EQ(resolve(client.pap("alice", kWrong)).code(), kReject);
  EXPECT_EQ(*account.user.failaccum, "1");
}

// ---- a locked account

TEST_F(Outcome, LockedAccountIsRefusedUncheckedAndEveryAttemptMovesTheLockOnAndMails) {
  lock(599);
  for (const std::string& password : {right(), std::string(kWrong)}) EXPECT_EQ(login(password).code(), kReject);
  const Statements each{sql::select_user(), sql::audit("auth failed."), sql::touch_user()};
  Statements both = each;
  both.insert(both.end(), each.begin(), each.end());
  EXPECT_EQ(executed(), both);
  EXPECT_EQ(mails(), (Mails{"alice@example.org", "alice@example.org"}));
}

TEST_F(Outcome, LockEndsOnlyAfter600SecondsOfSilence) {
  account.user.islocked = "1";
  account.user.preusedate = date(kNow - 599);
  account.keep_updated();
  EXPECT_EQ(resolve(client.pap("alice", right())).code(), kReject);
  set_clock(kNow + 599);
  EXPECT_EQ(resolve(client.pap("alice", right())).code(), kReject);
  set_clock(kNow + 599 + 600);
  EXPECT_EQ(resolve(client.pap("alice", right())).code(), kAccept);
  EXPECT_EQ(*account.user.islocked, "0");
}

TEST_F(Outcome, RightCodeAfterTheLockUnlocksWithoutAMail) {
  lock(600);
  EXPECT_EQ(login(right()).code(), kAccept);
  EXPECT_EQ(executed(), (Statements{sql::select_user(), sql::unlock_user(), sql::select_token(),
                                    sql::update_token(0, 6), sql::audit("auth succeed"), sql::reset_failures()}));
  EXPECT_TRUE(mails().empty());
}

TEST_F(Outcome, WrongCodeAfterTheLockCountsAsOneOnALockedAccount) {
  lock(600);
  account.user.failaccum = "4";
  EXPECT_EQ(login(kWrong).code(), kReject);
  EXPECT_EQ(executed(), (Statements{sql::select_user(), sql::unlock_user(), sql::select_token(),
                                    sql::audit("auth failed."), sql::touch_user()}));
  EXPECT_EQ(mails(), Mails{"alice@example.org"});
}

TEST_F(Outcome, UnlockThatFailsIsRefusedRecordedAndMailed) {
  lock(600);
  odbc_answer("update userinfo set islocked = 0", {{}, SQL_ERROR, 0});
  EXPECT_EQ(login(right()).code(), kReject);
  EXPECT_EQ(executed(), (Statements{sql::select_user(), sql::unlock_user(), sql::audit("Update userinfo failed."),
                                    sql::audit("auth failed."), sql::touch_user()}));
  EXPECT_EQ(mails(), Mails{"alice@example.org"});
}

// ---- mails

TEST_F(Outcome, PlainFailureAndSuccessSendNoMail) {
  EXPECT_EQ(login(kWrong).code(), kReject);
  EXPECT_EQ(login(right()).code(), kAccept);
  EXPECT_TRUE(mails().empty());
}

TEST_F(Outcome, MailIsSentWithAnySettingButZero) {
  account.user.failaccum = "4";
  ng_mail_need = 0;
  EXPECT_EQ(login(kWrong).code(), kReject);
  EXPECT_TRUE(mails().empty());
  for (const int need : {1, 2, -1}) {
    ng_mail_need = need;
    EXPECT_EQ(login(kWrong).code(), kReject);
  }
  EXPECT_EQ(mails().size(), 3U);
}

TEST_F(Outcome, NoMailGoesToALockedAccountWithTheSettingZero) {
  ng_mail_need = 0;
  lock(10);
  EXPECT_EQ(login(right()).code(), kReject);
  EXPECT_TRUE(mails().empty());
}

TEST_F(Outcome, AccountWithoutAnAddressGetsNoMail) {
  for (const OdbcCell& address : {OdbcCell(""), OdbcCell()}) {
    account.user = {};
    account.user.user_email = address;
    account.user.failaccum = "4";
    EXPECT_EQ(login(kWrong).code(), kReject);
    EXPECT_EQ(executed().back(), sql::count_failure(0, 1));
    lock(10);
    EXPECT_EQ(login(right()).code(), kReject);
    EXPECT_EQ(executed().back(), sql::touch_user());
  }
  EXPECT_TRUE(mails().empty());
}

// ---- who leaves no trace, and who does

TEST_F(Outcome, UnknownUserLeavesNoTrace) {
  account.has_user = false;
  EXPECT_EQ(login(right()).code(), kReject);
  EXPECT_EQ(executed(), Statements{sql::select_user()});
  start_log();
  EXPECT_EQ(login(right()).code(), kReject);
  EXPECT_EQ(log_text(), "");
}

TEST_F(Outcome, UserThatCannotBeReadIsRejectedPlainlyAndLeavesNoTrace) {
  odbc_answer("select serialnum", {{}, SQL_ERROR, 1});
  EXPECT_EQ(login(right()).reply.size(), 20U);
  odbc_return(OdbcCall::fetch, SQL_ERROR);
  EXPECT_EQ(login(right()).reply.size(), 20U);
  EXPECT_EQ(executed(), (Statements{sql::select_user(), sql::select_user()}));
}

TEST_F(Outcome, UserWithoutAUsableTokenFailsAndCounts) {
  account.has_token = false;
  const Answer answer = login(right());
  EXPECT_EQ(answer.code(), kReject);
  EXPECT_EQ(answer.reply.size(), 20U);
  account.has_token = true;
  account.token.predate = std::nullopt;
  EXPECT_EQ(login(right()).code(), kReject);
  EXPECT_EQ(std::ranges::count(executed(), sql::count_failure(1, 0)), 2);
  EXPECT_EQ(std::ranges::count(executed(), sql::audit("auth failed.")), 2);
}

TEST_F(Outcome, TokenSelectThatFailsCountsToo) {
  odbc_answer("select userkey", {{}, SQL_ERROR, 0});
  EXPECT_EQ(login(right()).code(), kReject);
  EXPECT_EQ(executed(), (Statements{sql::select_user(), sql::select_token(), sql::audit("auth failed."),
                                    sql::count_failure(1, 0)}));
}

// Deliberate: the lock is looked at after all columns were read, so a row that cannot be read whole counts as one of an
// account that is not locked, and the update of its failure lifts the lock.
TEST_F(Outcome, UserRowThatCannotBeReadWholeCountsAsNotLocked) {
  lock(10);
  account.user.authtype = "2";
  account.user.pin = std::nullopt;
  account.user.failaccum = "2";
  EXPECT_EQ(login(right()).code(), kReject);
  EXPECT_EQ(executed(), (Statements{sql::select_user(), sql::audit("auth failed."), sql::count_failure(3, 0)}));
}

TEST_F(Outcome, UserRowWithoutAFailureCountStartsAtOne) {
  account.user.failaccum = std::nullopt;
  EXPECT_EQ(login(right()).code(), kReject);
  EXPECT_EQ(executed().back(), sql::count_failure(1, 0));
}
