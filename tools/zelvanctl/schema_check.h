// Whether a database is as the server needs it.
#pragma once

#include <string>
#include <vector>

#include "zelvanctl/context.h"
#include "zelvanctl/finding.h"

namespace zelvan::ctl {

// Looks at tables, columns, types, unique indexes, rights, the server's own statements, the data source and every row.
// Whatever is tried is taken back.
std::vector<Finding> check_schema(Context& context);

// Returns the tables of the server that exist.
std::vector<std::string> existing_tables(Database& database);

}  // namespace zelvan::ctl
