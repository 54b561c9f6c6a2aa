// zelvanctl probe: a login as a RADIUS client sends it.
#pragma once

#include "zelvanctl/command.h"

namespace zelvan::ctl {

void register_probe_command(CLI::App& program, Context& context);

}  // namespace zelvan::ctl
