#include "zelvanctl/catalogue.h"

#include <algorithm>
#include <array>
#include <map>

namespace zelvan::ctl {
namespace {

using Kind = ColumnDescription::Kind;

// The schema in which PostgreSQL finds a table; elsewhere there is none.
std::string schema_of(Database& database, const Engine& engine, const std::string& table) {
  if (engine.name != "postgresql") return {};
  const auto rows = database.query(
      "select nspname from pg_namespace where oid = (select relnamespace from pg_class where oid = to_regclass(?))",
      {table});
  return rows.empty() ? "" : rows.front().text(0).value_or("");
}

Kind mariadb_kind(std::string_view type) {
  constexpr std::array<std::string_view, 5> kTexts{"varchar", "text", "tinytext", "mediumtext", "longtext"};
  constexpr std::array<std::string_view, 6> kIntegers{"tinyint", "smallint", "mediumint", "int", "bigint", "bit"};
  constexpr std::array<std::string_view, 3> kDecimals{"decimal", "float", "double"};
  constexpr std::array<std::string_view, 3> kDates{"datetime", "timestamp", "date"};
  const auto among = [type](const auto& types) { return std::ranges::find(types, type) != types.end(); };
  if (among(kTexts)) return Kind::text;
  if (type == "char") return Kind::padded_text;
  if (among(kIntegers)) return Kind::integer;
  if (among(kDecimals)) return Kind::decimal;
  return among(kDates) ? Kind::date : Kind::other;
}

// Not the driver's SQLColumns: its query, with all the long texts of the catalogue, has ended a server (10.11.19) with
// a segmentation fault.
std::vector<ColumnDescription> mariadb_columns(Database& database, const std::string& table) {
  std::vector<ColumnDescription> columns;
  for (const Row& row : database.query("select column_name, data_type, character_maximum_length from "
                                       "information_schema.columns where table_schema = database() and table_name = ?",
                                       {table})) {
    columns.push_back(
        {row.text(0).value_or(""), mariadb_kind(row.text(1).value_or("")), static_cast<std::uint64_t>(row.number(2))});
  }
  return columns;
}

std::vector<std::vector<std::string>> mariadb_unique_columns(Database& database, const std::string& table) {
  std::map<std::string, std::vector<std::string>> groups;
  for (const Row& row : database.query("select index_name, column_name from information_schema.statistics where "
                                       "table_schema = database() and table_name = ? and non_unique = 0",
                                       {table})) {
    groups[row.text(0).value_or("")].push_back(row.text(1).value_or(""));
  }
  std::vector<std::vector<std::string>> indexes;
  indexes.reserve(groups.size());
  for (auto& [name, columns] : groups) indexes.push_back(std::move(columns));
  return indexes;
}

}  // namespace

std::vector<ColumnDescription> table_columns(Database& database, const Engine& engine, const std::string& table) {
  if (engine.name == "mariadb") return mariadb_columns(database, table);
  return database.columns(table, schema_of(database, engine, table));
}

std::vector<std::vector<std::string>> unique_columns(Database& database, const Engine& engine,
                                                     const std::string& table) {
  if (engine.name == "mariadb") return mariadb_unique_columns(database, table);
  return database.unique_indexes(table, schema_of(database, engine, table));
}

}  // namespace zelvan::ctl
