#include "zelvanctl/engine.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace zelvan::ctl {
namespace {

constexpr std::array kEngines{
    Engine{"sqlite", "SQLite", "sqlite", "?", "", ""},
    Engine{"postgresql", "PostgreSQL", "postgresql", "cast(? as timestamp)", "left(cast(", " as text), 19)"},
    Engine{"mariadb", "MariaDB", "mariadb", "?", "date_format(", ", '%Y-%m-%d %H:%i:%s')"},
    Engine{"mariadb", "MySQL", "mysql", "?", "date_format(", ", '%Y-%m-%d %H:%i:%s')"},
    Engine{"", "unknown", "", "?", "", ""},
};

}  // namespace

const Engine& engine_of(std::string_view dbms_name) {
  std::string name(dbms_name);
  std::ranges::transform(name, name.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return *std::ranges::find_if(kEngines, [&](const Engine& engine) { return name.starts_with(engine.dbms); });
}

std::string date_text(const Engine& engine, std::string_view column) {
  return std::string(engine.date_text_before) + std::string(column) + std::string(engine.date_text_after);
}

}  // namespace zelvan::ctl
