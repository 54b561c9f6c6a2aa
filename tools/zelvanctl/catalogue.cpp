#include "zelvanctl/catalogue.h"

namespace zelvan::ctl {
namespace {

// The schema in which PostgreSQL finds a table; elsewhere there is none.
std::string schema_of(Database& database, const Engine& engine, const std::string& table) {
  if (engine.name != "postgresql") return {};
  const auto rows = database.query(
      "select nspname from pg_namespace where oid = (select relnamespace from pg_class where oid = to_regclass(?))",
      {table});
  return rows.empty() ? "" : rows.front().text(0).value_or("");
}

}  // namespace

std::vector<ColumnDescription> table_columns(Database& database, const Engine& engine, const std::string& table) {
  return database.columns(table, schema_of(database, engine, table));
}

std::vector<std::vector<std::string>> unique_columns(Database& database, const Engine& engine,
                                                     const std::string& table) {
  return database.unique_indexes(table, schema_of(database, engine, table));
}

}  // namespace zelvan::ctl
