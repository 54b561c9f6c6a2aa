// What the commands share: the options that all of them take, the choice of a token, and the output.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "zelvan_token/failure.h"
#include "zelvan_token/token_file.h"
#include "zelvan_token/words.h"

namespace zelvan::token {

// The options in front of or behind any command.
struct Common {
  bool json = false;
  bool show_secrets = false;
  bool assume_yes = false;
};

// Which token a command is about.
struct Choice {
  std::string user;
  std::string file;
};

// Declares USER and --file.
void add_choice(CLI::App& command, Choice& choice, bool user_required);

// Returns the token file of a choice, with symbolic links resolved: --file, the file of USER, or the only token there
// is. Throws Failure: kUsage for an impossible user name, kNotFound when there is no token or more than one to choose
// from.
std::filesystem::path chosen_file(const Choice& choice);

// Throws Failure (kUsage) when the choice names a user and the token is another one's.
void check_choice(const Choice& choice, const SoftToken& token);

// Returns whether the chosen file may be replaced or removed although it holds no usable token: in the program's own
// folder it was one, elsewhere it may be anything.
Damaged damaged_choice(const Choice& choice, const std::filesystem::path& path);

// Declares an option that takes decimal digits, for a number from `least` to `most`, and nothing else: no sign, no
// leading zero that would mean octal.
//   store  called with the number
CLI::Option* add_number(CLI::App& command, const std::string& name, std::uint64_t least, std::uint64_t most,
                        const std::function<void(std::uint64_t)>& store, const std::string& description);

// Writes the result of a command to standard output: `value` for scripts, `text` (whole lines) for people.
// Throws Failure (kFailed) when it cannot be written.
void write_result(const Common& common, const Json& value, const std::string& text);

// Writes text to standard output.
// Throws Failure (kFailed) when it cannot be written.
void write_text(const std::string& text);

// Reports to standard error how the command failed.
void write_failure(const Common& common, const std::string& text, int exit_code);

// Each registers one command.
void register_fetch(CLI::App& program, const Common& common);
void register_code(CLI::App& program, const Common& common);
void register_show(CLI::App& program, const Common& common);
void register_forget(CLI::App& program, const Common& common);

}  // namespace zelvan::token
