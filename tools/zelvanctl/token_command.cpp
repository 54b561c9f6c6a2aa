#include "zelvanctl/token_command.h"

namespace zelvan::ctl {

void register_token_command(CLI::App&, Context&) {}

}  // namespace zelvan::ctl
