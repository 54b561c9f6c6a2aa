// zelvanctl doctor: everything at once, and a verdict.
#pragma once

#include "zelvanctl/command.h"

namespace zelvan::ctl {

void register_doctor_command(CLI::App& program, Context& context);

}  // namespace zelvan::ctl
