// The guard for several servers on one database: a trigger that refuses to take a code twice.
#pragma once

#include <optional>

#include "zelvanctl/database.h"
#include "zelvanctl/engine.h"

namespace zelvan::ctl {

// Returns whether the guard is there; nothing when it cannot be told.  MariaDB shows triggers to those who may make
// them only; for others a token's counter is set to what it is, and that is taken back.
std::optional<bool> guard_is_there(Database& database, const Engine& engine);

// True when the guard refused a statement.
bool refused_by_guard(const DatabaseError& error);

}  // namespace zelvan::ctl
