#include "zelvan_token/command.h"

#include <fmt/core.h>

#include <charconv>
#include <cstdio>

#include "zelvan_token/terminal.h"
#include "zelvan_token/user_name.h"

namespace zelvan::token {
namespace {

std::filesystem::path only_token() {
  const auto folder = token_folder();
  const auto files = token_files(folder);
  if (files.size() == 1) return files.front();
  if (files.empty()) {
    throw Failure(kNotFound, fmt::format("there is no token in {}: fetch one first", folder.string()));
  }
  throw Failure(kNotFound,
                fmt::format("there are {} tokens: name the user (zelvan-token show lists them)", files.size()));
}

}  // namespace

void add_choice(CLI::App& command, Choice& choice, bool user_required) {
  auto* const user = command.add_option("USER", choice.user, "The user's login name");
  if (user_required) user->required();
  command.add_option("--file", choice.file, "The token file, in place of the user's own one")->type_name("PATH");
}

std::filesystem::path chosen_file(const Choice& choice) {
  if (!choice.user.empty()) check_user_name(choice.user);
  if (!choice.file.empty()) return resolve_links(choice.file);
  return resolve_links(choice.user.empty() ? only_token() : token_folder() / file_name_of(choice.user));
}

void check_choice(const Choice& choice, const SoftToken& token) {
  if (choice.user.empty() || choice.user == token.user) return;
  throw Failure(kUsage, fmt::format("the token file is that of {}, not of {}", token.user, choice.user));
}

Damaged damaged_choice(const Choice& choice, const std::filesystem::path& path) {
  const bool own_place = choice.file.empty() && path.parent_path() == token_folder();
  return own_place ? Damaged::allowed : Damaged::refused;
}

CLI::Option* add_number(CLI::App& command, const std::string& name, std::uint64_t least, std::uint64_t most,
                        const std::function<void(std::uint64_t)>& store, const std::string& description) {
  const auto read = [=](const std::string& text) {
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stopped_at, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc{} || stopped_at != end || number < least || number > most) {
      throw CLI::ValidationError(name, fmt::format("\"{}\" is no number from {} to {}", text, least, most));
    }
    store(number);
  };
  return command.add_option_function<std::string>(name, read, description);
}

void write_result(const Common& common, const Json& value, const std::string& text) {
  write_text(common.json ? json_text(value) + "\n" : text);
}

void write_text(const std::string& text) {
  const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
  if (std::fflush(stdout) != 0 || !written) throw Failure(kFailed, "standard output cannot be written");
}

void write_failure(const Common& common, const std::string& text, int exit_code) {
  if (!common.json) return say("zelvan-token: " + text);
  Json json;
  json["error"] = text;
  json["exit_code"] = exit_code;
  say(json_text(json));
}

}  // namespace zelvan::token
