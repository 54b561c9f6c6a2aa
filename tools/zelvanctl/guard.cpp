#include "zelvanctl/guard.h"

namespace zelvan::ctl {
namespace {

bool any(Database& database, const std::string& query) { return !database.query(query).empty(); }

bool may_see_triggers(Database& database) {
  return any(database, "select 1 from information_schema.user_privileges where privilege_type = 'TRIGGER'") ||
         any(database,
             "select 1 from information_schema.schema_privileges where privilege_type = 'TRIGGER' and table_schema = "
             "database()");
}

// Sets the counter of some token to what it is, which the guard refuses, and takes it back.
std::optional<bool> try_guard(Database& database) {
  const auto serials = database.query("select serialnum from keyinfo where tktype in (1, 2) limit 1");
  if (serials.empty()) return {};
  const Transaction taken_back(database);
  try {
    database.execute("update keyinfo set hcounter = hcounter, lcounter = lcounter where serialnum = ?",
                     {serials.front().text(0)});
    return false;
  } catch (const DatabaseError& error) {
    if (refused_by_guard(error)) return true;
    return {};
  }
}

std::optional<bool> mariadb_guard(Database& database) {
  if (any(database,
          "select 1 from information_schema.triggers where event_object_schema = database() and event_object_table = "
          "'keyinfo' and trigger_name = 'keyinfo_guard'")) {
    return true;
  }
  if (may_see_triggers(database)) return false;
  return try_guard(database);
}

}  // namespace

std::optional<bool> guard_is_there(Database& database, const Engine& engine) {
  if (engine.name == "sqlite") {
    return any(database, "select 1 from sqlite_master where type = 'trigger' and name = 'keyinfo_guard'");
  }
  if (engine.name == "postgresql") {
    return any(database,
               "select 1 from pg_trigger where tgname = 'keyinfo_guard' and tgrelid = to_regclass('keyinfo') and "
               "tgenabled in ('O', 'A')");
  }
  if (engine.name == "mariadb") return mariadb_guard(database);
  return {};
}

bool refused_by_guard(const DatabaseError& error) {
  return std::string_view(error.what()).find("keyinfo: this code is used") != std::string_view::npos;
}

}  // namespace zelvan::ctl
