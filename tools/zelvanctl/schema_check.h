// Whether a database is as the server needs it.
#pragma once

#include <string>
#include <vector>

#include "zelvanctl/context.h"

namespace zelvan::ctl {

struct Finding {
  enum class Level { error, warning };  // error: the server cannot work, or not for some user
  Level level;
  std::string where;  // table, table.column, or what else it is about
  std::string text;
};

// Looks at tables, columns, types, unique indexes, rights, the server's own statements, the data source and every row.
// Whatever is tried is taken back.
std::vector<Finding> check_schema(Context& context);

// Returns the tables of the server that exist.
std::vector<std::string> existing_tables(Database& database);

}  // namespace zelvan::ctl
