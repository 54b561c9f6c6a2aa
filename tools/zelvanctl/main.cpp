// zelvanctl: users, tokens, tables, settings, the audit trail and diagnosis from the command line.
#include <fmt/core.h>
#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <string_view>

#include "zelvanctl/audit_command.h"
#include "zelvanctl/command.h"
#include "zelvanctl/config_command.h"
#include "zelvanctl/context.h"
#include "zelvanctl/db_command.h"
#include "zelvanctl/doctor_command.h"
#include "zelvanctl/probe_command.h"
#include "zelvanctl/token_command.h"
#include "zelvanctl/user_command.h"

namespace {

using namespace zelvan::ctl;

void add_common_options(CLI::App& program, Context& context) {
  program
      .add_option("--config", context.settings_path,
                  "The server's settings file; by default config/otp_conf.con in the folder of this executable")
      ->type_name("FILE");
  program.add_flag_callback(
      "--json", [&context] { context.out.set_json(true); }, "Write JSON for scripts instead of text for people");
  CLI::Option* login = program.add_option("--login", context.login,
                                          "Log in to the database as NAME, not as the server does; the password is "
                                          "asked for, or is the first line of standard input");
  login->type_name("NAME");
  program
      .add_option("--password-file", context.password_file, "Take the password of --login from the file's first line")
      ->type_name("FILE")
      ->needs(login);
  program.add_flag("-y,--yes", context.assume_yes, "Do not ask before something is destroyed");
  program.add_flag("--show-secrets", context.show_secrets, "Show keys and PINs; without it no secret is written");
}

void describe(CLI::App& program) {
  program.require_subcommand(1);
  program.fallthrough();
  program.set_version_flag("--version", std::string("zelvanctl ") + ZELVAN_VERSION);
  program.footer(
      "Examples:\n"
      "  zelvanctl db init\n"
      "  zelvanctl user add alice --mail alice@example.com --pin --qr\n"
      "  zelvanctl user show alice\n"
      "  zelvanctl token resync alice 123456 654321\n"
      "  zelvanctl audit --user alice --since 2h\n"
      "  zelvanctl config check\n"
      "  zelvanctl probe alice\n"
      "  zelvanctl doctor\n"
      "\n"
      "Exit codes: 0 done; 1 failed, or a check found errors; 2 wrong usage; 3 no such user or token;\n"
      "4 refused: exists already, wrong state, or not confirmed; 5 settings or database out of reach.\n"
      "\n"
      "Every noun and verb has its own --help.\n");
}

// Help and version are no failures; a failure may come before --json was read.
int end_parsing(const CLI::App& program, const CLI::ParseError& error, int argc, char** argv, Context& context) {
  const bool json = std::any_of(argv, argv + argc, [](const char* word) { return std::string_view(word) == "--json"; });
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success) || !json) {
    const int code = program.exit(error);
    if (!std::cout.flush()) throw Failure(kFailed, "cannot write to standard output");
    return code == 0 ? kOk : kUsage;
  }
  context.out.set_json(true);
  context.out.failure(error.what(), kUsage);
  return kUsage;
}

int run(int argc, char** argv, Context& context) {
  CLI::App program("Administers the users and tokens of the Zelvan one-time-password server.", "zelvanctl");
  describe(program);
  add_common_options(program, context);
  register_db_command(program, context);
  register_user_command(program, context);
  register_token_command(program, context);
  register_audit_command(program, context);
  register_config_command(program, context);
  register_probe_command(program, context);
  register_doctor_command(program, context);
  try {
    program.parse(argc, argv);
    return context.exit_code;
  } catch (const CLI::ParseError& error) {
    return end_parsing(program, error, argc, argv, context);
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Whatever is made holds secrets, a database file of SQLite too.
  (void)umask(umask(0) | S_IRWXG | S_IRWXO);
  Context context;
  try {
    return run(argc, argv, context);
  } catch (const DatabaseError& error) {
    const bool helpless = error.forbidden() && context.login.empty();
    context.out.failure(
        std::string(error.what()) +
            (helpless ? "; the server's login may not do this: name an administrator's with --login NAME" : ""),
        error.code());
    return error.code();
  } catch (const Failure& failure) {
    context.out.failure(failure.what(), failure.code());
    return failure.code();
  } catch (const std::exception& error) {
    context.out.failure(error.what(), kFailed);
    return kFailed;
  }
}
