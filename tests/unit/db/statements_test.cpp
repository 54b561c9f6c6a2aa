#include "db/statements.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "db/QENTDatabase.h"
#include "support/fake_odbc.h"

using namespace zelvan::test;
using zelvan::build_statement;
using zelvan::SqlText;
using zelvan::SqlValue;
using zelvan::Statement;

namespace {

const SQLCHAR* text(const char* characters) { return reinterpret_cast<const SQLCHAR*>(characters); }

class Statements : public testing::Test {
 protected:
  Statements() {
    odbc_reset();
    zelvan::set_backslash_escapes(false);
    zelvan::set_utf8_only(false);
  }
  ~Statements() override {
    zelvan::set_backslash_escapes(false);
    zelvan::set_utf8_only(false);
  }

  // The text of a statement that can be built; "refused" otherwise.
  static std::string built(Statement statement, std::initializer_list<SqlValue> values) {
    SqlText out;
    out.fill('?');
    const bool ok = build_statement(out, statement, values);
    EXPECT_EQ(out[0] != '\0', ok);
    return ok ? out.data() : "refused";
  }
};

constexpr std::uint32_t kBig = UINT32_MAX;

}  // namespace

TEST_F(Statements, AStatementThatDoesNotExistIsRefused) {
  EXPECT_EQ(built(static_cast<Statement>(0), {}), "refused");
  EXPECT_EQ(built(static_cast<Statement>(-1), {}), "refused");
  EXPECT_EQ(built(static_cast<Statement>(16), {}), "refused");
}

TEST_F(Statements, TooFewOrTooManyValuesAreRefused) {
  EXPECT_EQ(built(Statement::touch_user, {}), "refused");
  EXPECT_EQ(built(Statement::touch_user, {"now"}), "refused");
  EXPECT_EQ(built(Statement::touch_user, {"now", "bob", "more"}), "refused");
}

TEST_F(Statements, AValueOfTheWrongKindIsRefused) {
  EXPECT_EQ(built(Statement::touch_user, {"now", 1}), "refused");
  EXPECT_EQ(built(Statement::touch_user, {kBig, "bob"}), "refused");
  EXPECT_EQ(built(Statement::count_failure, {kBig, 0, "now", "bob"}), "refused");
  EXPECT_EQ(built(Statement::count_failure, {"1", 0, "now", "bob"}), "refused");
  EXPECT_EQ(built(Statement::update_token, {1, kBig, "now", "S1"}), "refused");
  EXPECT_EQ(built(Statement::update_token, {"1", kBig, "now", "S1"}), "refused");
}

TEST_F(Statements, AValueWithANulIsRefused) {
  using namespace std::string_view_literals;
  EXPECT_EQ(built(Statement::touch_user, {"now", "bob\0x"sv}), "refused");
  EXPECT_EQ(built(Statement::touch_user, {"no\0w"sv, "bob"}), "refused");
}

TEST_F(Statements, SelectUser) {
  EXPECT_EQ(built(Statement::select_user, {"to_char(preusedate)", "bob"}),
            "select serialnum, islocked, failaccum, to_char(preusedate), user_email, authtype, pin from userinfo where "
            "username='bob' and isdeleted = 0");
}

TEST_F(Statements, UnlockUser) {
  EXPECT_EQ(built(Statement::unlock_user, {"'now'", "bob"}),
            "update userinfo set islocked = 0, failaccum = 0, preusedate='now' where username = 'bob'");
}

TEST_F(Statements, SelectToken) {
  EXPECT_EQ(built(Statement::select_token, {"predate", "S1"}),
            "select userkey, tktype, hcounter, lcounter, predate, diglen, authwnd, tmstep from keyinfo where serialnum "
            "= 'S1'");
}

TEST_F(Statements, UpdateToken) {
  EXPECT_EQ(built(Statement::update_token, {std::uint32_t{0}, kBig, "'now'", "S1"}),
            "update keyinfo set hcounter=0, lcounter=4294967295, predate='now' where serialnum='S1'");
}

TEST_F(Statements, ResetFailures) {
  EXPECT_EQ(built(Statement::reset_failures, {"'now'", "bob"}),
            "update userinfo set failaccum = 0, preusedate='now' where username = 'bob'");
}

TEST_F(Statements, TouchUser) {
  EXPECT_EQ(built(Statement::touch_user, {"'now'", "bob"}),
            "update userinfo set preusedate = 'now' where username='bob'");
}

TEST_F(Statements, CountFailure) {
  EXPECT_EQ(built(Statement::count_failure, {3, 1, "'now'", "bob"}),
            "update userinfo set failaccum = 3, islocked = 1, preusedate = 'now' where username='bob'");
  EXPECT_EQ(built(Statement::count_failure, {INT_MIN, INT_MAX, "'now'", "bob"}),
            "update userinfo set failaccum = -2147483648, islocked = 2147483647, preusedate = 'now' where "
            "username='bob'");
}

TEST_F(Statements, AuditSuccess) {
  EXPECT_EQ(built(Statement::audit_success, {"'now'", "bob", "10.0.0.1"}),
            "insert into commonloginfo (optime, operator, loglev, optype, remark, remoteip) values('now', 'bob', 100, "
            "1, 'auth succeed', '10.0.0.1')");
}

TEST_F(Statements, AuditFailure) {
  EXPECT_EQ(built(Statement::audit_failure, {"'now'", "bob", "10.0.0.1"}),
            "insert into commonloginfo (optime, operator, loglev, optype, remark, remoteip) values('now', 'bob', 100, "
            "1, 'auth failed.', '10.0.0.1')");
}

TEST_F(Statements, AuditUpdateFailed) {
  EXPECT_EQ(built(Statement::audit_update_failed, {"'now'", "bob", "10.0.0.1"}),
            "insert into commonloginfo (optime, operator, loglev, optype, remark, remoteip) values('now', 'bob', 100, "
            "1, 'Update userinfo failed.', '10.0.0.1')");
}

TEST_F(Statements, AuditUpdateFailedShortGivesFourValuesWithoutColumns) {
  EXPECT_EQ(built(Statement::audit_update_failed_short, {"'now'", "bob"}),
            "insert into commonloginfo values('now', 'bob', 100, 'Update userinfo failed.')");
}

TEST_F(Statements, SelectUserForSync) {
  EXPECT_EQ(built(Statement::select_user_for_sync, {"bob"}),
            "select authtype, pin, serialnum, preusedate from userinfo where username='bob'");
}

TEST_F(Statements, SelectTokenForSync) {
  EXPECT_EQ(built(Statement::select_token_for_sync, {"S1"}),
            "select tktype, hcounter, lcounter, userkey, predate, diglen, authwnd, tmstep from keyinfo where "
            "serialnum='S1'");
}

TEST_F(Statements, IssueChallenge) {
  EXPECT_EQ(built(Statement::issue_challenge, {std::uint32_t{123456}, "'now'", "S1"}),
            "update keyinfo set hcounter=1, lcounter=123456, predate='now' where serialnum='S1'");
}

TEST_F(Statements, ClearChallenge) {
  EXPECT_EQ(built(Statement::clear_challenge, {"'now'", "S1"}),
            "update keyinfo set hcounter=0, lcounter=0, predate='now' where serialnum='S1'");
}

TEST_F(Statements, AnEmptyTextValueIsFine) {
  EXPECT_EQ(built(Statement::select_token_for_sync, {""}),
            "select tktype, hcounter, lcounter, userkey, predate, diglen, authwnd, tmstep from keyinfo where "
            "serialnum=''");
}

TEST_F(Statements, EveryQuoteOfATextValueIsDoubled) {
  EXPECT_EQ(built(Statement::touch_user, {"now", "o'neill"}),
            "update userinfo set preusedate = now where username='o''neill'");
  EXPECT_EQ(built(Statement::touch_user, {"now", "'''"}),
            "update userinfo set preusedate = now where username=''''''''");
}

TEST_F(Statements, EveryTextValueIsEscapedNotOnlyTheFirst) {
  EXPECT_NE(built(Statement::audit_success, {"now", "a'b", "c'd"}).find("'a''b', 100, 1, 'auth succeed', 'c''d')"),
            std::string::npos);
}

TEST_F(Statements, AnExpressionIsSplicedAsItIs) {
  zelvan::set_backslash_escapes(true);
  EXPECT_EQ(built(Statement::touch_user, {"to_date('2024-01-01', 'a\\b')", "bob"}),
            "update userinfo set preusedate = to_date('2024-01-01', 'a\\b') where username='bob'");
}

TEST_F(Statements, AnInjectionStaysInsideItsQuotes) {
  EXPECT_EQ(built(Statement::touch_user, {"now", "' or '1'='1"}),
            "update userinfo set preusedate = now where username=''' or ''1''=''1'");
  EXPECT_EQ(built(Statement::touch_user, {"now", "x'; drop table t; --"}),
            "update userinfo set preusedate = now where username='x''; drop table t; --'");
}

TEST_F(Statements, PlaceholdersInAValueAreOrdinaryText) {
  EXPECT_EQ(built(Statement::touch_user, {"%s", "%s%d%lu%n"}),
            "update userinfo set preusedate = %s where username='%s%d%lu%n'");
}

TEST_F(Statements, ABackslashIsDoubledOnlyWhereItEscapes) {
  EXPECT_EQ(built(Statement::touch_user, {"now", "\\' or 1=1 #"}),
            "update userinfo set preusedate = now where username='\\'' or 1=1 #'");
  zelvan::set_backslash_escapes(true);
  EXPECT_EQ(built(Statement::touch_user, {"now", "\\' or 1=1 #"}),
            "update userinfo set preusedate = now where username='\\\\'' or 1=1 #'");
  EXPECT_EQ(built(Statement::touch_user, {"now", "ends\\"}),
            "update userinfo set preusedate = now where username='ends\\\\'");
}

TEST_F(Statements, ATextThatTheDbmsCannotStoreIsRefused) {
  EXPECT_NE(built(Statement::touch_user, {"now", "\xFF"}), "refused");
  zelvan::set_utf8_only(true);
  EXPECT_FALSE(zelvan::storable_text("\xFF"));
  EXPECT_EQ(built(Statement::touch_user, {"now", "\xFF"}), "refused");
  EXPECT_NE(built(Statement::touch_user, {"now", "Jos\xC3\xA9"}), "refused");
}

TEST_F(Statements, ATextOf255CharactersFitsAndOneOf256IsRefused) {
  const std::string before = "update userinfo set preusedate = now where username='";
  for (const std::size_t total : {254U, 255U}) {
    const std::string name(total - before.size() - 1, 'n');
    EXPECT_EQ(built(Statement::touch_user, {"now", name}), before + name + "'") << total;
  }
  const std::string name(256 - before.size() - 1, 'n');
  EXPECT_EQ(built(Statement::touch_user, {"now", name}), "refused");
}

TEST_F(Statements, EscapingCountsForTheFit) {
  const std::string before = "update userinfo set preusedate = now where username='";
  std::string name(255 - before.size() - 1, 'n');
  name.back() = '\'';
  EXPECT_EQ(built(Statement::touch_user, {"now", name}), "refused");
  name.erase(0, 1);
  EXPECT_EQ(built(Statement::touch_user, {"now", name}).size(), 255U);
}

TEST_F(Statements, WhatDoesNotFitIsRefusedWhereverItStands) {
  const std::string long_text(256, 'x');
  EXPECT_EQ(built(Statement::touch_user, {long_text, "bob"}), "refused");
  EXPECT_EQ(built(Statement::audit_success, {"now", std::string(130, 'x'), "10.0.0.1"}), "refused");
  EXPECT_EQ(built(Statement::count_failure, {INT_MIN, INT_MIN, std::string(230, 'x'), "bob"}), "refused");
  EXPECT_EQ(built(Statement::touch_user, {"now", std::string(100'000, '\'')}), "refused");
}

TEST_F(Statements, TheLongestUserNameFitsEveryStatementEvenWhenAllOfItIsEscaped) {
  const std::string name(19, '\'');
  const std::string now = "to_date('2024-01-01 00:00:00', 'YYYY-MM-DD hh24:mi:ss')";
  EXPECT_NE(built(Statement::select_user, {"to_char(preusedate, 'YYYY-MM-DD hh24:mi:ss')", name}), "refused");
  EXPECT_NE(built(Statement::count_failure, {INT_MIN, INT_MIN, now, name}), "refused");
  EXPECT_NE(built(Statement::audit_success, {now, "name of 19 letters.", "255.255.255.255"}), "refused");
}

TEST_F(Statements, ExecuteRunsTheBuiltText) {
  COTPDatabase shared;
  shared.DBConnect(text("dsn"), 3, text("u"), 1, text("p"), 1);
  CQENTDatabase database(&shared);
  EXPECT_EQ(execute_statement(database, Statement::touch_user, {"now", "o'neill"}), zelvan::kExecuted);
  EXPECT_EQ(odbc_executed(),
            std::vector<std::string>{"update userinfo set preusedate = now where username='o''neill'"});
}

TEST_F(Statements, ExecuteOfWhatCannotBeBuiltTouchesNothing) {
  COTPDatabase shared;
  shared.DBConnect(text("dsn"), 3, text("u"), 1, text("p"), 1);
  CQENTDatabase database(&shared);
  const std::size_t before = odbc_calls().size();
  EXPECT_EQ(execute_statement(database, Statement::touch_user, {"now", std::string(256, 'x')}), zelvan::kNotExecuted);
  EXPECT_EQ(odbc_calls().size(), before);
}

TEST_F(Statements, ExecuteReportsAFailedStatement) {
  COTPDatabase shared;
  shared.DBConnect(text("dsn"), 3, text("u"), 1, text("p"), 1);
  CQENTDatabase database(&shared);
  odbc_return(OdbcCall::exec_direct, SQL_ERROR);
  EXPECT_EQ(execute_statement(database, Statement::touch_user, {"now", "bob"}), zelvan::kNotExecuted);
}
