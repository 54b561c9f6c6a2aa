// Whether the data source and what the server's connection gets from it are as the server needs them.
#pragma once

#include <string>

#include "zelvanctl/database.h"
#include "zelvanctl/engine.h"
#include "zelvanctl/finding.h"

namespace zelvan::ctl {

// Looks at odbc.ini, the mode of a database file and the settings of the session: time-outs, character sets, quoting,
// collations. Throws DatabaseError when the database does not answer.
//   database  a connection with the server's login
//   dsn       name of its data source
void check_data_source_of(Database& database, const Engine& engine, const std::string& dsn, Findings& findings);

}  // namespace zelvan::ctl
