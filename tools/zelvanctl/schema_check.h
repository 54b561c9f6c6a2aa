// Whether a database is as the server needs it.
#pragma once

#include <string>
#include <vector>

#include "zelvanctl/context.h"
#include "zelvanctl/finding.h"

namespace zelvan::ctl {

// Looks at the data source, tables, columns, types, unique indexes, the server's own statements and its rights, and
// every row, all with the server's login; and at the rights of the command line's login.  Whatever is tried is taken
// back.
Findings check_schema(Context& context);

// Returns whether the login of the settings file gets in and may do what the server does.
bool server_may_work(Context& context);

// Returns the tables of the server that exist.
std::vector<std::string> existing_tables(Database& database, const Engine& engine);

}  // namespace zelvan::ctl
