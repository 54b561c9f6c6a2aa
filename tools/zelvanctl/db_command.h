// zelvanctl db: the tables.
#pragma once

#include "zelvanctl/command.h"

namespace zelvan::ctl {

void register_db_command(CLI::App& program, Context& context);

}  // namespace zelvan::ctl
