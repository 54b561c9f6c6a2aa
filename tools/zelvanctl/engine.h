// The database systems that the tool knows, as one table.
#pragma once

#include <string>
#include <string_view>

namespace zelvan::ctl {

struct Engine {
  std::string_view name;   // as in sql/schema.<name>.sql
  std::string_view label;  // as people write it
  std::string_view dbms;   // what SQL_DBMS_NAME begins with, in lower case; empty: any other system
  // SQL of a date-time value that is bound as text.
  std::string_view date_value;
  // SQL of a date-time column as text: this, the column, and that.  It takes a column that holds dates as text too.
  std::string_view date_text_before;
  std::string_view date_text_after;
};

// Returns the engine of a driver by its SQL_DBMS_NAME; for an unknown one a row without a schema.
const Engine& engine_of(std::string_view dbms_name);

// Returns the SQL expression that selects a date-time column as text.
std::string date_text(const Engine& engine, std::string_view column);

// Returns the statements that create the tables; empty when the tool has none for the engine.
std::string_view schema_text(std::string_view engine);

// Returns the statements that create the guard for several servers on one database; empty when the tool has none.
std::string_view guard_text(std::string_view engine);

}  // namespace zelvan::ctl
