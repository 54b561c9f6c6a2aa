#include "zelvanctl/db_command.h"

#include <fmt/core.h>

#include <algorithm>

#include "zelvanctl/schema_check.h"
#include "zelvanctl/sql_script.h"

namespace zelvan::ctl {
namespace {

struct NoOptions {};

// Runs a script; its "begin" and "commit" become a transaction that a failure takes back.
void run_script(Database& database, std::string_view script) {
  std::optional<Transaction> transaction;
  for (const std::string& statement : split_statements(script)) {
    if (statement == "begin") {
      transaction.emplace(database);
    } else if (statement == "commit" && transaction) {
      transaction->commit();
      transaction.reset();
    } else {
      (void)database.query(statement);
    }
  }
}

void init(Context& context, NoOptions&) {
  Database& database = context.database();
  const Engine& engine = context.engine();
  const std::string_view script = schema_text(engine.name);
  if (engine.name.empty() || script.empty()) {
    throw Failure(kFailed, fmt::format("there are no table definitions for {}", database.dbms_name()));
  }
  const auto before = existing_tables(database);
  run_script(database, script);
  Json created = Json::array();
  std::string names;
  for (const std::string& table : existing_tables(database)) {
    if (std::ranges::find(before, table) != before.end()) continue;
    created.push_back(table);
    names += " " + table;
  }
  context.out.result({{"engine", engine.label}, {"created", created}},
                     names.empty() ? fmt::format("The tables are there already ({}); nothing changed.\n", engine.label)
                                   : fmt::format("Created in {}:{}\n", engine.label, names));
}

void check(Context& context, NoOptions&) {
  const Findings findings = check_schema(context);
  const bool errors = has_errors(findings);
  context.out.result({{"engine", context.engine().label}, {"ok", !errors}, {"findings", findings_json(findings)}},
                     findings_table(findings),
                     fmt::format("The database is as the server needs it ({}).", context.engine().label));
  if (errors) context.exit_code = kFailed;
}

}  // namespace

void register_db_command(CLI::App& program, Context& context) {
  CLI::App& noun = add_noun(program, {"db", "Create and check the tables",
                                      "  zelvanctl db init\n"
                                      "  zelvanctl db check --json\n"});
  const auto no_setup = [](CLI::App&, NoOptions&) {};
  add_verb<NoOptions>(noun, context,
                      {"init", "Create the tables that are missing; safe to run again",
                       "  zelvanctl db init\n"
                       "  zelvanctl --config /opt/zelvan/config/otp_conf.con db init\n"},
                      no_setup, init);
  add_verb<NoOptions>(noun, context,
                      {"check", "Tell what the server would stumble over; changes nothing",
                       "  zelvanctl db check\n"
                       "  zelvanctl db check --json | jq '.findings[]'\n"},
                      no_setup, check);
}

}  // namespace zelvan::ctl
