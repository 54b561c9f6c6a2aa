// What the database's catalogue says about a table: also about columns that a "select *" leaves out, and without the
// right to read the table.
#pragma once

#include <string>
#include <vector>

#include "zelvanctl/database.h"
#include "zelvanctl/engine.h"

namespace zelvan::ctl {

// Returns the columns of a table; none when there is no such table.  MariaDB lists those only on which the login has
// some right.  Throws DatabaseError.
std::vector<ColumnDescription> table_columns(Database& database, const Engine& engine, const std::string& table);

// Returns the groups of columns that the database keeps unique.  Throws DatabaseError.
std::vector<std::vector<std::string>> unique_columns(Database& database, const Engine& engine,
                                                     const std::string& table);

}  // namespace zelvan::ctl
