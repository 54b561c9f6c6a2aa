// The commands that only look at or remove what is stored.
#include <fmt/core.h>

#include <memory>
#include <vector>

#include "zelvan_token/command.h"
#include "zelvan_token/terminal.h"

namespace zelvan::token {
namespace {

std::vector<std::filesystem::path> chosen_files(const Choice& choice) {
  if (choice.user.empty() && choice.file.empty()) return token_files(token_folder());
  return {chosen_file(choice)};
}

SoftToken chosen_token(const Choice& choice, const std::filesystem::path& path) {
  SoftToken token = load_token(resolve_links(path));
  check_choice(choice, token);
  return token;
}

// A token that cannot be read must not hide the others; the first failure is reported at the end.
void show(const Common& common, const Choice& choice) {
  Json list = Json::array();
  std::string text;
  std::vector<Failure> failures;
  for (const auto& path : chosen_files(choice)) {
    try {
      const SoftToken token = chosen_token(choice, path);
      list.push_back(as_json(token, common.show_secrets));
      list.back()["file"] = path.string();
      text += (text.empty() ? "" : "\n") + describe(token, common.show_secrets);
      text += fmt::format("file          {}\n", path.string());
    } catch (const Failure& failure) {
      failures.push_back(failure);
    }
  }
  if (text.empty() && failures.empty())
    text = "There is no token here. Fetch one: zelvan-token fetch USER --server HOST\n";
  write_result(common, list, text);
  for (std::size_t i = 1; i < failures.size(); ++i) write_failure(common, failures[i].what(), failures[i].code());
  if (!failures.empty()) throw Failure(failures.front());
}

void forget(const Common& common, const Choice& choice) {
  const std::filesystem::path path = chosen_file(choice);
  const Damaged damaged = damaged_choice(choice, path);
  require_token(path);
  check_replaceable(path, choice.user, damaged);
  const std::string question = fmt::format("Remove the token {}?", path.string());
  if (!common.assume_yes && !confirm(question)) throw Failure(kRefused, "nothing changed");
  remove_token(path, choice.user, damaged);
  Json json;
  json["forgotten"] = path.string();
  write_result(common, json, fmt::format("The token {} is removed. The server still knows it.\n", path.string()));
}

}  // namespace

void register_show(CLI::App& program, const Common& common) {
  auto choice = std::make_shared<Choice>();
  CLI::App* const command = program.add_subcommand("show", "Show what is stored about a token, or about all");
  add_choice(*command, *choice, false);
  command->footer(
      "Examples:\n"
      "  zelvan-token show\n"
      "  zelvan-token show alice --show-secrets\n");
  command->callback([&common, choice] { show(common, *choice); });
}

void register_forget(CLI::App& program, const Common& common) {
  auto choice = std::make_shared<Choice>();
  CLI::App* const command = program.add_subcommand("forget", "Remove a token from this machine");
  add_choice(*command, *choice, false);
  command->footer(
      "Nothing but a token is removed.\n\n"
      "Examples:\n"
      "  zelvan-token forget alice\n"
      "  zelvan-token forget alice --yes\n");
  command->callback([&common, choice] { forget(common, *choice); });
}

}  // namespace zelvan::token
