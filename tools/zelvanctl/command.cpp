#include "zelvanctl/command.h"

namespace zelvan::ctl {

CLI::App& add_noun(CLI::App& program, const Help& help) {
  CLI::App* noun = program.add_subcommand(help.name, help.description);
  noun->require_subcommand(1);
  noun->footer("Examples:\n" + help.examples);
  return *noun;
}

}  // namespace zelvan::ctl
