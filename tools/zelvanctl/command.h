// The shape of the command line: zelvanctl NOUN VERB [OPTIONS] [ARGUMENTS].
//
// Each noun has a pair of files <noun>_command.{h,cpp} with one function that registers it; main.cpp calls them all.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "zelvanctl/context.h"

namespace zelvan::ctl {

// What --help says about a noun or a verb.
struct Help {
  std::string name;
  std::string description;  // one sentence, shown in the list of the level above
  std::string examples;     // lines of "  zelvanctl ...", shown at the end
};

// Adds a noun, which needs a verb.
CLI::App& add_noun(CLI::App& program, const Help& help);

// Makes an option take plain decimal numbers of a range only: by itself it would read 010 as 8, and let numbers beyond
// the type wrap round.  Returns the option.
CLI::Option* decimal(CLI::Option* option, std::uint64_t least, std::uint64_t most);

// Adds a verb.
//   setup  void(CLI::App&, Options&): declares options and arguments
//   run    void(Context&, Options&): does the work; throws Failure
template <typename Options, typename Setup, typename Run>
void add_verb(CLI::App& noun, Context& context, const Help& help, Setup setup, Run run) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = noun.add_subcommand(help.name, help.description);
  verb->footer("Examples:\n" + help.examples);
  setup(*verb, *options);
  verb->callback([&context, options, run] { run(context, *options); });
}

}  // namespace zelvan::ctl
