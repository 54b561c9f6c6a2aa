#include "zelvanctl/sql_script.h"

#include <gtest/gtest.h>

using zelvan::ctl::split_statements;

namespace {

using Statements = std::vector<std::string>;

}  // namespace

TEST(SqlScript, NothingHasNoStatements) { EXPECT_TRUE(split_statements(" \n-- only a remark\n;;").empty()); }

TEST(SqlScript, StatementsEndAtSemicolons) {
  EXPECT_EQ(split_statements("begin;\n create table t (x);\ncommit"),
            (Statements{"begin", "create table t (x)", "commit"}));
}

TEST(SqlScript, CommentsAreLeftOut) {
  EXPECT_EQ(split_statements("-- it's a remark; really\nselect 1 -- more\n;/* a;b */select 2;"),
            (Statements{"select 1", "select 2"}));
}

TEST(SqlScript, QuotedTextIsKept) {
  EXPECT_EQ(split_statements("select ';--' , \"a;b\", `c;d`, 'it''s';"),
            (Statements{"select ';--' , \"a;b\", `c;d`, 'it''s'"}));
}

TEST(SqlScript, AFunctionBodyBetweenDollarsIsKept) {
  EXPECT_EQ(split_statements("create function f() as $b$ begin; end; $b$ language sql; select 1"),
            (Statements{"create function f() as $b$ begin; end; $b$ language sql", "select 1"}));
}

TEST(SqlScript, ATriggerBodyIsKept) {
  EXPECT_EQ(
      split_statements("create trigger t after update on x begin select case when 1 then 2 end; select 3; end; begin;"),
      (Statements{"create trigger t after update on x begin select case when 1 then 2 end; select 3; end", "begin"}));
}

TEST(SqlScript, AnotherDelimiterKeepsABody) {
  EXPECT_EQ(
      split_statements("select 1;\ndelimiter //\ncreate trigger t begin if x then y; end if; end//\n"
                       "Delimiter ;\nselect 2; select 'delimiter'"),
      (Statements{"select 1", "create trigger t begin if x then y; end if; end", "select 2", "select 'delimiter'"}));
}

TEST(SqlScript, ADelimiterWithoutATextChangesNothing) {
  EXPECT_EQ(split_statements("delimiter\nselect 1; select 2"), (Statements{"select 1", "select 2"}));
  EXPECT_TRUE(split_statements("delimiter").empty());
}

TEST(SqlScript, AnOpenQuoteEndsWithTheScript) { EXPECT_EQ(split_statements("select 'x;"), (Statements{"select 'x;"})); }
