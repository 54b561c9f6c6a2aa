#include "zelvanctl/schema_check.h"

#include <fmt/core.h>
#include <odbcinst.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <map>

#include "db/current_date.h"
#include "db/statements.h"
#include "db/time_text.h"
#include "zelvanctl/fields.h"
#include "zelvanctl/row_check.h"

namespace zelvan::ctl {
namespace {

using Kind = ColumnDescription::Kind;

struct ExpectedColumn {
  const char* table;
  const char* name;
  Kind kind;
  std::size_t limit;  // bytes of a text
  bool unique;
};

constexpr std::array kTables{"userinfo", "keyinfo", "commonloginfo"};

constexpr std::array kColumns{
    ExpectedColumn{"userinfo", "username", Kind::text, kUserNameLimit, true},
    ExpectedColumn{"userinfo", "serialnum", Kind::text, kSerialLimit, false},
    ExpectedColumn{"userinfo", "islocked", Kind::integer, 0, false},
    ExpectedColumn{"userinfo", "failaccum", Kind::integer, 0, false},
    ExpectedColumn{"userinfo", "preusedate", Kind::date, 0, false},
    ExpectedColumn{"userinfo", "user_email", Kind::text, kMailLimit, false},
    ExpectedColumn{"userinfo", "authtype", Kind::integer, 0, false},
    ExpectedColumn{"userinfo", "pin", Kind::text, kPinLimit, false},
    ExpectedColumn{"userinfo", "isdeleted", Kind::integer, 0, false},
    ExpectedColumn{"keyinfo", "serialnum", Kind::text, kSerialLimit, true},
    ExpectedColumn{"keyinfo", "userkey", Kind::text, kKeyLimit, false},
    ExpectedColumn{"keyinfo", "tktype", Kind::integer, 0, false},
    ExpectedColumn{"keyinfo", "hcounter", Kind::integer, 0, false},
    ExpectedColumn{"keyinfo", "lcounter", Kind::integer, 0, false},
    ExpectedColumn{"keyinfo", "predate", Kind::date, 0, false},
    ExpectedColumn{"keyinfo", "diglen", Kind::integer, 0, false},
    ExpectedColumn{"keyinfo", "authwnd", Kind::integer, 0, false},
    ExpectedColumn{"keyinfo", "tmstep", Kind::integer, 0, false},
    ExpectedColumn{"commonloginfo", "optime", Kind::date, 0, false},
    ExpectedColumn{"commonloginfo", "operator", Kind::text, kUserNameLimit, false},
    ExpectedColumn{"commonloginfo", "loglev", Kind::integer, 0, false},
    ExpectedColumn{"commonloginfo", "optype", Kind::integer, 0, false},
    ExpectedColumn{"commonloginfo", "remark", Kind::text, 23, false},
    ExpectedColumn{"commonloginfo", "remoteip", Kind::text, 15, false},
};

void error(Findings& findings, std::string where, std::string text) {
  findings.push_back({Finding::Level::error, std::move(where), std::move(text)});
}

void warning(Findings& findings, std::string where, std::string text) {
  findings.push_back({Finding::Level::warning, std::move(where), std::move(text)});
}

bool same_name(std::string_view left, std::string_view right) {
  return std::ranges::equal(left, right,
                            [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
}

void check_kind(const ExpectedColumn& expected, const ColumnDescription& found, Findings& findings) {
  const std::string where = fmt::format("{}.{}", expected.table, expected.name);
  if (expected.kind == Kind::text) {
    if (found.kind == Kind::padded_text) {
      warning(findings, where, "is of fixed length: the database may pad its texts with blanks, and then none matches");
    } else if (found.kind != Kind::text) {
      error(findings, where, "is no text column");
    }
    if (found.size > 0 && found.size < expected.limit) {
      warning(findings, where,
              fmt::format("holds {} characters; the server uses up to {}", found.size, expected.limit));
    }
  } else if (expected.kind == Kind::integer && found.kind != Kind::integer) {
    warning(findings, where, "is no whole-number column: the server reads the digits at the beginning of its text");
  } else if (expected.kind == Kind::date && found.kind != Kind::date && found.kind != Kind::text) {
    warning(findings, where, "holds neither dates nor text");
  }
}

// Returns true when every table has every column.
bool check_columns(Database& database, Findings& findings) {
  bool complete = true;
  for (const char* table : kTables) {
    const auto columns = database.columns(table);
    if (columns.empty()) {
      error(findings, table, "the table is missing or cannot be read; zelvanctl db init creates it");
      complete = false;
      continue;
    }
    for (const ExpectedColumn& expected : kColumns) {
      if (std::string_view(expected.table) != table) continue;
      const auto found =
          std::ranges::find_if(columns, [&](const auto& column) { return same_name(column.name, expected.name); });
      if (found == columns.end()) {
        error(findings, fmt::format("{}.{}", table, expected.name), "the column is missing");
        complete = false;
      } else {
        check_kind(expected, *found, findings);
      }
    }
  }
  return complete;
}

void check_unique(Database& database, Findings& findings) {
  for (const ExpectedColumn& expected : kColumns) {
    if (!expected.unique) continue;
    const auto indexes = database.unique_indexes(expected.table);
    const bool kept = std::ranges::any_of(
        indexes, [&](const auto& columns) { return columns.size() == 1 && same_name(columns.front(), expected.name); });
    const std::string where = fmt::format("{}.{}", expected.table, expected.name);
    if (!kept) {
      warning(findings, where,
              "no unique index or primary key: two rows with one value are possible, and every request searches the "
              "whole table");
    }
    const auto twice = database.query(
        fmt::format("select {0}, count(*) from {1} group by {0} having count(*) > 1", expected.name, expected.table));
    for (const Row& row : twice) {
      error(findings, where,
            fmt::format("{} rows have the value '{}': the server takes any of them", row.number(1),
                        row.text(0).value_or("NULL")));
    }
  }
}

// ---- the server's own statements, tried and taken back

struct Trial {
  Statement statement;
  const char* needed_for;
};

constexpr std::array kTrials{
    Trial{Statement::select_user, "every request"},
    Trial{Statement::select_token, "every request"},
    Trial{Statement::update_token, "every right code"},
    Trial{Statement::reset_failures, "every right code"},
    Trial{Statement::count_failure, "every wrong code"},
    Trial{Statement::unlock_user, "lifting a lock"},
    Trial{Statement::touch_user, "attempts on a locked account"},
    Trial{Statement::audit_success, "the audit trail (otp_logmode other than 1)"},
};

// The values with which a statement is tried: no user and no token has these names.
bool build_trial(SqlText& sql, Statement statement) {
  constexpr std::string_view kNobody = "\x01zelvanctl-check";
  std::array<char, kColumnExpressionLimit + 1> last_use{"preusedate"};
  std::array<char, kColumnExpressionLimit + 1> date{"predate"};
  (void)otp_tochar(last_use.data(), kColumnExpressionLimit);
  (void)otp_tochar(date.data(), kColumnExpressionLimit);
  const CurrentDate now = current_date();
  switch (statement) {
    case Statement::select_user:
      return build_statement(sql, statement, {last_use.data(), kNobody});
    case Statement::select_token:
      return build_statement(sql, statement, {date.data(), kNobody});
    case Statement::update_token:
      return build_statement(sql, statement, {std::uint32_t{0}, std::uint32_t{0}, now.literal, kNobody});
    case Statement::count_failure:
      return build_statement(sql, statement, {0, 0, now.literal, kNobody});
    case Statement::audit_success:
      return build_statement(sql, statement, {now.literal, kNobody, "127.0.0.1"});
    default:
      return build_statement(sql, statement, {now.literal, kNobody});
  }
}

void try_statement(Database& database, const std::string& sql, const std::string& where, Finding::Level level,
                   Findings& findings) {
  const Transaction taken_back(database);
  try {
    (void)database.query(sql);
  } catch (const DatabaseError& refusal) {
    findings.push_back({level, where, refusal.what()});
  }
}

void check_server_statements(Context& context, Findings& findings) {
  ng_dbtype = context.settings().number("otp_dbtype");
  for (const Trial& trial : kTrials) {
    SqlText sql{};
    if (!build_trial(sql, trial.statement)) continue;
    try_statement(context.database(), sql.data(),
                  fmt::format("statement {}, for {}", static_cast<int>(trial.statement), trial.needed_for),
                  Finding::Level::error, findings);
  }
}

// What only this tool does.
void check_own_rights(Database& database, Findings& findings) {
  for (const char* table : {"userinfo", "keyinfo"}) {
    try_statement(database, fmt::format("delete from {} where 1 = 0", table), fmt::format("{}: removing rows", table),
                  Finding::Level::warning, findings);
    try_statement(database, fmt::format("insert into {0} select * from {0} where 1 = 0", table),
                  fmt::format("{}: adding rows", table), Finding::Level::warning, findings);
  }
}

// ---- rows

void check_users(const std::vector<User>& users, const std::map<std::string, const Token*>& tokens,
                 Findings& findings) {
  std::map<std::string, std::string> owners;
  for (const User& user : users) {
    const std::string where = fmt::format("user {}", user.name);
    for (const Problem& problem : user_problems(user)) {
      findings.push_back({problem.fatal ? Finding::Level::error : Finding::Level::warning, where, problem.text});
    }
    if (!user.serial) continue;
    if (!tokens.contains(*user.serial)) error(findings, where, fmt::format("there is no token {}", *user.serial));
    const auto [owner, first] = owners.emplace(*user.serial, user.name);
    if (!first) warning(findings, where, fmt::format("has the token of user {} too", owner->second));
  }
}

void check_rows(Records& records, Findings& findings) {
  const std::vector<Token> tokens = records.tokens();
  std::map<std::string, const Token*> by_serial;
  for (const Token& token : tokens) {
    by_serial.emplace(token.serial, &token);
    for (const Problem& problem : token_problems(token)) {
      findings.push_back({problem.fatal ? Finding::Level::error : Finding::Level::warning,
                          fmt::format("token {}", token.serial), problem.text});
    }
  }
  check_users(records.users(), by_serial, findings);
}

// ---- the data source

std::string profile(const char* section, const char* key, const char* file) {
  std::array<char, 256> value{};
  (void)SQLGetPrivateProfileString(section, key, "", value.data(), static_cast<int>(value.size()), file);
  return value.data();
}

void check_data_source(Context& context, Findings& findings) {
  if (context.engine().name != "sqlite") return;
  DatabaseLogin login;
  context.settings().database_login(login);
  const std::string where = fmt::format("data source {}", login.dsn.data());
  if (profile(login.dsn.data(), "Timeout", "odbc.ini").empty()) {
    warning(findings, where,
            "has no Timeout: while another process writes, statements fail with \"database is locked\"");
  }
  const std::string driver = profile(login.dsn.data(), "Driver", "odbc.ini");
  const std::string level = profile(driver.c_str(), "Threading", "odbcinst.ini");
  if (level == "0" || level == "1") {
    error(
        findings, fmt::format("driver {}", driver),
        fmt::format("Threading={} in odbcinst.ini: the server's threads share one connection and would crash", level));
  }
}

}  // namespace

std::vector<std::string> existing_tables(Database& database) {
  std::vector<std::string> tables;
  for (const char* table : kTables) {
    if (!database.columns(table).empty()) tables.emplace_back(table);
  }
  return tables;
}

std::vector<Finding> check_schema(Context& context) {
  Findings findings;
  Database& database = context.database();
  check_data_source(context, findings);
  if (!check_columns(database, findings)) return findings;
  check_unique(database, findings);
  check_server_statements(context, findings);
  check_own_rights(database, findings);
  check_rows(context.records(), findings);
  return findings;
}

}  // namespace zelvan::ctl
