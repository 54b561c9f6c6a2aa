// zelvan-token: a token on the user's own machine.
#include <exception>
#include <string>

#include "zelvan_token/command.h"

namespace {

using namespace zelvan::token;

void describe_program(CLI::App& program, Common& common) {
  program.require_subcommand(1);
  program.fallthrough();
  program.set_version_flag("--version", std::string("zelvan-token ") + ZELVAN_VERSION);
  program.add_flag("--json", common.json, "Write JSON for scripts instead of text for people");
  program.add_flag("--show-secrets", common.show_secrets,
                   "Show key, PIN and shared secret; without it none is written");
  program.add_flag("-y,--yes", common.assume_yes, "Do not ask before a token is removed");
  program.footer(
      "Examples:\n"
      "  zelvan-token fetch alice --server otp.example.org\n"
      "  zelvan-token code\n"
      "\n"
      "Exit codes: 0 done; 1 failed; 2 wrong usage; 3 no such token here; 4 refused, by the server or for lack of a\n"
      "confirmation; 5 no answer; 6 the answer makes no sense; 7 the token file cannot be used; 8 no fresh code yet.\n"
      "\n"
      "Every command has its own --help.\n");
}

int run(int argc, char** argv, Common& common) {
  CLI::App program("Keeps one-time-password tokens of the Zelvan server on your own machine.", "zelvan-token");
  describe_program(program, common);
  register_fetch(program, common);
  register_code(program, common);
  register_show(program, common);
  register_forget(program, common);
  try {
    program.parse(argc, argv);
    return kOk;
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0 || !common.json) return program.exit(error) == 0 ? kOk : kUsage;
    write_failure(common, error.what(), kUsage);
    return kUsage;
  }
}

}  // namespace

int main(int argc, char** argv) {
  Common common;
  try {
    return run(argc, argv, common);
  } catch (const Failure& failure) {
    write_failure(common, failure.what(), failure.code());
    return failure.code();
  } catch (const std::exception& error) {
    write_failure(common, error.what(), kFailed);
    return kFailed;
  }
}
