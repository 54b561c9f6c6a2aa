// zelvan-token: a token on the user's own machine.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <sstream>
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

// Help, the version, or what is wrong with the command line.
int finish(const CLI::App& program, const CLI::ParseError& error, const Common& common) {
  if (error.get_exit_code() != 0 && common.json) {
    write_failure(common, error.what(), kUsage);
    return kUsage;
  }
  std::ostringstream output;
  std::ostringstream errors;
  const int code = program.exit(error, output, errors);
  std::fputs(errors.str().c_str(), stderr);
  write_text(output.str());
  return code == 0 ? kOk : kUsage;
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
    return finish(program, error, common);
  }
}

// A descriptor that is closed would be the next file's or socket's, and what is meant for standard output would go
// there. What stands in for it takes no output and gives no input.
void occupy_standard_descriptors() {
  for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(number, F_GETFD) >= 0) continue;
    (void)::open("/dev/null", number == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

}  // namespace

int main(int argc, char** argv) {
  occupy_standard_descriptors();
  (void)std::signal(SIGXFSZ, SIG_IGN);  // a file that may not grow is a failure to report, not the end
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
