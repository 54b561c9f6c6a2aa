#include "zelvanctl/audit_command.h"

namespace zelvan::ctl {

void register_audit_command(CLI::App&, Context&) {}

}  // namespace zelvan::ctl
