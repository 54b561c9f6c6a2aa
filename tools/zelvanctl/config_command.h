// zelvanctl config: the settings file.
#pragma once

#include <string>

#include "zelvanctl/command.h"
#include "zelvanctl/finding.h"
#include "zelvanctl/surroundings.h"

namespace zelvan::ctl {

void register_config_command(CLI::App& program, Context& context);

// Returns what `config check` finds in the settings file and around it.
//   folder  the server's working folder
Findings check_configuration(Context& context, const WorkingFolder& folder);

}  // namespace zelvan::ctl
