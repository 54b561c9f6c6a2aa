#include "zelvanctl/data_source_check.h"

#include <fmt/core.h>
#include <odbcinst.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>

namespace zelvan::ctl {
namespace {

std::string profile(const std::string& section, const char* key, const char* file) {
  std::array<char, 256> value{};
  (void)SQLGetPrivateProfileString(section.c_str(), key, "", value.data(), static_cast<int>(value.size()), file);
  return value.data();
}

std::string answer(Database& database, const std::string& query) {
  const auto rows = database.query(query);
  return rows.empty() ? "" : rows.front().text(0).value_or("");
}

void check_sqlite(Database& database, const std::string& dsn, const std::string& where, Findings& findings) {
  if (profile(dsn, "Timeout", "odbc.ini").empty()) {
    warning(findings, where,
            "has no Timeout: while another process writes, statements fail with \"database is locked\"");
  }
  const auto rows = database.query("select file from pragma_database_list where name = 'main'");
  const std::string file = rows.empty() ? "" : rows.front().text(0).value_or("");
  struct stat status {};
  if (file.empty() || stat(file.c_str(), &status) != 0) return;
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) == 0) return;
  warning(
      findings, file,
      fmt::format("has the mode {:03o}: other users can get at keys and PINs; chmod 600 it", status.st_mode & 0777U));
}

void check_postgresql(Database& database, const std::string& where, Findings& findings) {
  if (answer(database, "show standard_conforming_strings") != "on") {
    error(
        findings, where,
        "standard_conforming_strings is off: a backslash in a user name ends the quotes early, which lets anybody run "
        "SQL; write ConnSettings=set standard_conforming_strings = on");
  }
  if (answer(database, "show statement_timeout") == "0") {
    warning(findings, where,
            "statement_timeout is 0: a locked row or table holds a worker of the server without end; write "
            "ConnSettings=set statement_timeout = '5s'");
  }
  const std::string encoding = answer(database, "show server_encoding");
  if (encoding != "UTF8") {
    warning(findings, "database",
            fmt::format("has the encoding {}, not UTF8: statements with names that it cannot hold fail", encoding));
  }
}

void check_character_set(Database& database, const std::string& where, Findings& findings) {
  // Here the second byte of a character may be a backslash.
  constexpr std::array<std::string_view, 5> kBackslashWithin{"big5", "cp932", "gb18030", "gbk", "sjis"};
  const std::string set = answer(database, "select @@character_set_client");
  if (std::ranges::find(kBackslashWithin, set) != kBackslashWithin.end()) {
    error(
        findings, where,
        fmt::format("the character set is {}, in which a name can leave its quotes, which lets anybody run SQL; write "
                    "CHARSET=utf8mb4",
                    set));
  } else if (set != "utf8mb4") {
    warning(findings, where,
            fmt::format("the character set is {}: some names are not what they seem; write CHARSET=utf8mb4", set));
  }
}

// Asks the database itself what a column's collation takes for one text.
void check_collations(Database& database, Findings& findings) {
  const auto columns = database.query(
      "select table_name, column_name, character_set_name, collation_name from information_schema.columns where "
      "table_schema = database() and ((table_name = 'userinfo' and column_name in ('username', 'serialnum')) or "
      "(table_name = 'keyinfo' and column_name = 'serialnum')) and collation_name is not null");
  for (const Row& column : columns) {
    const auto name = [&](std::size_t index) { return column.text(index).value_or(""); };
    const auto same = [&](std::string_view left, std::string_view right) {
      return answer(database, fmt::format("select convert('{}' using {}) collate {} = convert('{}' using {})", left,
                                          name(2), name(3), right, name(2))) == "1";
    };
    const std::string where = fmt::format("{}.{}", name(0), name(1));
    if (same("anna", "Anna")) {
      warning(findings, where,
              fmt::format("the collation {} takes 'anna' and 'Anna' for one: they share a row; utf8mb4_nopad_bin does "
                          "not",
                          name(3)));
    } else if (same("anna", "anna ")) {
      warning(findings, where,
              fmt::format("the collation {} ignores blanks at the end; utf8mb4_nopad_bin does not", name(3)));
    }
  }
}

void check_mariadb(Database& database, const std::string& dsn, const std::string& where, Findings& findings) {
  check_character_set(database, where, findings);
  const std::string seconds = profile(dsn, "READ_TIMEOUT", "odbc.ini");
  if (seconds.empty() || seconds == "0") {
    warning(findings, where,
            "has no READ_TIMEOUT: a locked table or a dead database server holds a worker of the server without end");
  }
  check_collations(database, findings);
}

}  // namespace

void check_data_source_of(Database& database, const Engine& engine, const std::string& dsn, Findings& findings) {
  const std::string where = fmt::format("data source {}", dsn);
  if (engine.name == "sqlite") check_sqlite(database, dsn, where, findings);
  if (engine.name == "postgresql") check_postgresql(database, where, findings);
  if (engine.name == "mariadb") check_mariadb(database, dsn, where, findings);
}

}  // namespace zelvan::ctl
