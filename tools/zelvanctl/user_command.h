// zelvanctl user: accounts.
#pragma once

#include "zelvanctl/command.h"

namespace zelvan::ctl {

void register_user_command(CLI::App& program, Context& context);

}  // namespace zelvan::ctl
