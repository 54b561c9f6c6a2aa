#include "zelvanctl/db_command.h"

#include <fmt/core.h>

#include <algorithm>

#include "zelvanctl/guard.h"
#include "zelvanctl/schema_check.h"
#include "zelvanctl/sql_script.h"

namespace zelvan::ctl {
namespace {

struct NoOptions {};

struct InitOptions {
  bool multi_server = false;
};

// ---- init

// Runs a script; its "begin" and "commit" become a transaction that a failure takes back.  A role that this login may
// not make can be there already: the grants after it tell.
void run_script(Database& database, std::string_view script) {
  std::optional<Transaction> transaction;
  std::string refusal;
  for (const std::string& statement : split_statements(script)) {
    if (statement == "begin") {
      transaction.emplace(database);
    } else if (statement == "commit" && transaction) {
      transaction->commit();
      transaction.reset();
    } else {
      try {
        (void)database.query(statement);
      } catch (const DatabaseError& error) {
        if (!statement.starts_with("create role")) {
          throw DatabaseError(error.code(), refusal + error.what(), error.state());
        }
        refusal = error.what() + std::string("; ");
      }
    }
  }
}

void run_script_of_engine(Context& context, std::string_view script) {
  if (script.empty()) {
    throw Failure(kFailed, fmt::format("there are no table definitions for {}", context.database().dbms_name()));
  }
  run_script(context.database(), script);
}

std::string sql_name(std::string_view name, char quote) {
  std::string text(1, quote);
  for (const char c : name) {
    if (c == quote) text += quote;
    text += c;
  }
  return text + quote;
}

std::vector<std::string> postgresql_grants(Database& database, const std::string& login) {
  const std::string name = sql_name(login, '"');
  if (database.query("select 1 from pg_roles where rolname = ?", {login}).empty()) {
    return {fmt::format("create role {} login password '...' in role zelvan_daemon;", name)};
  }
  return {fmt::format("grant zelvan_daemon to {};", name)};
}

std::vector<std::string> mariadb_grants(Database& database, const std::string& login) {
  std::vector<std::string> hosts;
  try {
    for (const Row& row : database.query("select host from mysql.user where user = ?", {login})) {
      hosts.push_back(row.text(0).value_or(""));
    }
  } catch (const DatabaseError&) {
    // Not everybody may look there; then the statements below do no harm to a login that exists.
  }
  std::vector<std::string> statements;
  if (hosts.empty()) {
    hosts.emplace_back("localhost");
    statements.push_back(
        fmt::format("create user if not exists {}@localhost identified by '...';", sql_name(login, '`')));
  }
  for (const std::string& host : hosts) {
    const std::string account = sql_name(login, '`') + "@" + sql_name(host, '`');
    statements.push_back(fmt::format("grant zelvan_daemon to {};", account));
    statements.push_back(fmt::format("set default role zelvan_daemon for {};", account));
  }
  return statements;
}

// What an administrator has to run so that the server's login may do what the server does; nothing when it may.
std::vector<std::string> missing_grants(Context& context) {
  const Engine& engine = context.engine();
  if (engine.name == "sqlite" || server_may_work(context)) return {};
  DatabaseLogin login;
  context.settings().database_login(login);
  Database& database = context.database();
  return engine.name == "postgresql" ? postgresql_grants(database, login.uid.data())
                                     : mariadb_grants(database, login.uid.data());
}

void init(Context& context, InitOptions& options) {
  Database& database = context.database();
  const Engine& engine = context.engine();
  const auto before = existing_tables(database, engine);
  run_script_of_engine(context, schema_text(engine.name));
  if (options.multi_server) run_script_of_engine(context, guard_text(engine.name));
  Json created = Json::array();
  std::string names;
  for (const std::string& table : existing_tables(database, engine)) {
    if (std::ranges::find(before, table) != before.end()) continue;
    created.push_back(table);
    names += " " + table;
  }
  std::string text = names.empty() ? fmt::format("The tables are there already ({}).\n", engine.label)
                                   : fmt::format("Created in {}:{}\n", engine.label, names);
  if (options.multi_server) text += "The guard for several servers is in place.\n";
  const auto grants = missing_grants(context);
  if (!grants.empty()) text += "The login of the settings file lacks rights. Let an administrator run:\n";
  for (const std::string& statement : grants) text += "  " + printable(statement) + "\n";
  context.out.result(
      {{"engine", engine.label}, {"created", created}, {"guard", options.multi_server}, {"grants", grants}}, text);
}

// ---- check

std::string guard_words(const std::optional<bool>& guard) {
  if (!guard) return "cannot be told: this login sees no triggers, and there is no token to try it with";
  return *guard ? "installed" : "not installed; zelvanctl db init --multi-server installs it";
}

// The guard is a trigger of a table, so there is none where a table is missing.
std::optional<bool> look_for_guard(Context& context) {
  try {
    return guard_is_there(context.database(), context.engine());
  } catch (const DatabaseError&) {
    return {};
  }
}

void check(Context& context, NoOptions&) {
  const Findings findings = check_schema(context);
  const bool errors = has_errors(findings);
  const std::optional<bool> guard = look_for_guard(context);
  const Json json{{"engine", context.engine().label},
                  {"ok", !errors},
                  {"guard", guard ? Json(*guard) : Json(nullptr)},
                  {"findings", findings_json(findings)}};
  context.out.say(fmt::format("Guard for several servers: {}.", guard_words(guard)));
  context.out.result(json, findings_table(findings),
                     fmt::format("The database is as the server needs it ({}).", context.engine().label));
  if (errors) context.exit_code = kFailed;
}

}  // namespace

void register_db_command(CLI::App& program, Context& context) {
  CLI::App& noun = add_noun(program, {"db", "Create and check the tables",
                                      "  zelvanctl db init --login postgres\n"
                                      "  zelvanctl db check --json\n"});
  add_verb<InitOptions>(
      noun, context,
      {"init", "Create the tables that are missing; safe to run again",
       "  zelvanctl db init\n"
       "  zelvanctl db init --login root\n"
       "  zelvanctl db init --multi-server --login owner --password-file owner.pwd\n"
       "\n"
       "On PostgreSQL and MariaDB it makes the role zelvan_daemon too, with the rights of the server,\n"
       "and tells how to give it to the login of the settings file.\n"},
      [](CLI::App& verb, InitOptions& options) {
        verb.add_flag("--multi-server", options.multi_server,
                      "Install the guard, which several servers on one database need");
      },
      init);
  add_verb<NoOptions>(
      noun, context,
      {"check", "Tell what the server would stumble over; changes nothing",
       "  zelvanctl db check\n"
       "  zelvanctl db check --json | jq '.findings[]'\n"},
      [](CLI::App&, NoOptions&) {}, check);
}

}  // namespace zelvan::ctl
