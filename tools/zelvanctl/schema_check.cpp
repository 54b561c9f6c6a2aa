#include "zelvanctl/schema_check.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <map>

#include "db/current_date.h"
#include "db/statements.h"
#include "db/time_text.h"
#include "zelvanctl/catalogue.h"
#include "zelvanctl/data_source_check.h"
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
bool check_columns(Database& database, const Engine& engine, Findings& findings) {
  bool complete = true;
  for (const char* table : kTables) {
    const auto columns = table_columns(database, engine, table);
    if (columns.empty()) {
      error(findings, table,
            "the table is missing, or this login has no right on it; zelvanctl db init creates what is missing");
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

void check_unique(Database& database, const Engine& engine, Findings& findings) {
  for (const ExpectedColumn& expected : kColumns) {
    if (!expected.unique) continue;
    const auto indexes = unique_columns(database, engine, expected.table);
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
  Finding::Level level = Finding::Level::error;
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
    Trial{Statement::audit_update_failed_short, "the note that a failure was not counted (otp_logmode other than 1)",
          Finding::Level::warning},
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

// Returns whether the database took the statement.
bool try_statement(Database& database, const std::string& sql, const std::string& where, Finding::Level level,
                   Findings& findings) {
  const Transaction taken_back(database);
  try {
    (void)database.query(sql);
    return true;
  } catch (const DatabaseError& refusal) {
    findings.push_back({level, where, refusal.what()});
    return false;
  }
}

// Returns false when the server can read no user or no token.
bool check_server_statements(Context& context, Database& database, const Engine& engine, Findings& findings) {
  ng_dbtype = context.settings().number("otp_dbtype");
  bool readable = true;
  for (const Trial& trial : kTrials) {
    // SQLite takes no short row; the schema tells.
    if (trial.statement == Statement::audit_update_failed_short && engine.name == "sqlite") continue;
    SqlText sql{};
    if (!build_trial(sql, trial.statement)) continue;
    const bool done = try_statement(
        database, sql.data(), fmt::format("statement {}, for {}", static_cast<int>(trial.statement), trial.needed_for),
        trial.level, findings);
    if (trial.statement == Statement::select_user || trial.statement == Statement::select_token) {
      readable = readable && done;
    }
  }
  return readable;
}

// PostgreSQL's own to_date takes the function dialect's statements and loses the time of day.
void check_function_dialect(Context& context, Database& database, const Engine& engine, Findings& findings) {
  constexpr int kFunctionDialect = 4;
  if (engine.name != "postgresql" || context.settings().number("otp_dbtype") != kFunctionDialect) return;
  const auto rows =
      database.query("select to_char(to_date('2026-01-02 03:04:05', 'yyyy-mm-dd hh24:mi:ss'), 'hh24:mi:ss')");
  if (rows.front().text(0) == "03:04:05") return;
  error(findings, "otp_dbtype",
        "is 4, and to_date loses the time of day: locks and challenges seem to date from midnight; set it to 1, or run "
        "sql/dialect4.postgresql.sql");
}

// What only this tool does: with the login of the command line, or where there are no logins.
void check_own_rights(Database& database, Findings& findings) {
  for (const char* table : {"userinfo", "keyinfo"}) {
    try_statement(database, fmt::format("delete from {} where 1 = 0", table), fmt::format("{}: removing rows", table),
                  Finding::Level::warning, findings);
    try_statement(database, fmt::format("insert into {0} select * from {0} where 1 = 0", table),
                  fmt::format("{}: adding rows", table), Finding::Level::warning, findings);
  }
}

// What the server's login should not be able to do.
void check_server_restraint(Database& database, Findings& findings) {
  for (const char* table : {"userinfo", "keyinfo"}) {
    Findings refusals;
    const std::string sql = fmt::format("delete from {} where 1 = 0", table);
    if (!try_statement(database, sql, table, Finding::Level::warning, refusals)) continue;
    warning(findings, table,
            "the server's login may remove rows, which the server never does; give it the role zelvan_daemon only, and "
            "this tool a login of its own with --login");
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

// The server's connection.  With a login on the command line there is something to look at also without it; then its
// absence is a finding.
Database* open_server_database(Context& context, Findings& findings) {
  try {
    return &context.server_database();
  } catch (const DatabaseError& refusal) {
    if (context.login.empty()) throw;
    error(findings, "login of the server", refusal.what());
    return nullptr;
  }
}

}  // namespace

std::vector<std::string> existing_tables(Database& database, const Engine& engine) {
  std::vector<std::string> tables;
  for (const char* table : kTables) {
    if (!table_columns(database, engine, table).empty()) tables.emplace_back(table);
  }
  return tables;
}

bool server_may_work(Context& context) {
  Findings findings;
  try {
    (void)check_server_statements(context, context.server_database(), context.engine(), findings);
    return findings.empty();
  } catch (const DatabaseError&) {
    return false;
  }
}

Findings check_schema(Context& context) {
  Findings findings;
  Database& database = context.database();
  const Engine& engine = context.engine();
  DatabaseLogin login;
  context.settings().database_login(login);
  Database* const server = open_server_database(context, findings);
  if (server != nullptr) check_data_source_of(*server, engine, login.dsn.data(), findings);
  if (!check_columns(database, engine, findings) || server == nullptr) return findings;
  if (!check_server_statements(context, *server, engine, findings)) return findings;
  check_function_dialect(context, *server, engine, findings);
  check_unique(database, engine, findings);
  if (engine.name != "sqlite") check_server_restraint(*server, findings);
  if (engine.name == "sqlite" || !context.login.empty()) check_own_rights(database, findings);
  check_rows(context.records(), findings);
  return findings;
}

}  // namespace zelvan::ctl
