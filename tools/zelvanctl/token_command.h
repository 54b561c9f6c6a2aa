// zelvanctl token: tokens and their keys.
#pragma once

#include "zelvanctl/command.h"

namespace zelvan::ctl {

void register_token_command(CLI::App& program, Context& context);

}  // namespace zelvan::ctl
