#include "zelvanctl/command.h"

#include <fmt/core.h>

#include <charconv>

namespace zelvan::ctl {

CLI::Option* decimal(CLI::Option* option, std::uint64_t least, std::uint64_t most) {
  const auto check = [least, most](std::string& text) -> std::string {
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc{} || rest != end || number < least || number > most) {
      return fmt::format("{} is no whole number from {} to {}", text, least, most);
    }
    text = std::to_string(number);  // without zeros at the front
    return {};
  };
  return option->transform(CLI::Validator(check, ""));
}

CLI::App& add_noun(CLI::App& program, const Help& help) {
  CLI::App* noun = program.add_subcommand(help.name, help.description);
  noun->require_subcommand(1);
  noun->footer("Examples:\n" + help.examples);
  return *noun;
}

}  // namespace zelvan::ctl
