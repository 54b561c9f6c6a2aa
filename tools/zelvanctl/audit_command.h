// zelvanctl audit: what happened.
#pragma once

#include "zelvanctl/command.h"

namespace zelvan::ctl {

void register_audit_command(CLI::App& program, Context& context);

}  // namespace zelvan::ctl
