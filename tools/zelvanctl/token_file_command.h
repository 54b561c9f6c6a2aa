// zelvanctl token import and export: tokens in CSV files.
#pragma once

#include "zelvanctl/command.h"

namespace zelvan::ctl {

// Adds the two verbs to the noun `token`.
void register_token_files(CLI::App& noun, Context& context);

}  // namespace zelvan::ctl
