#include <fmt/core.h>

#include <memory>

#include "base/clock.h"
#include "zelvan_token/command.h"
#include "zelvan_token/sync_client.h"
#include "zelvan_token/terminal.h"

namespace zelvan::token {
namespace {

constexpr int kLongestTimeout = 600;  // seconds
constexpr int kMostTries = 20;

struct Options {
  Choice choice;
  std::string server = "127.0.0.1";
  Patience patience;
  bool no_pin = false;
};

Failure refused(const std::string& user, bool repeated) {
  std::string text = fmt::format(
      "the server refused. It gives no reason: the user {} may be unknown, the password wrong or "
      "used already, or this machine not among the server's clients.",
      user);
  if (repeated) {
    text +=
        " The request had to be repeated: if only the first answer was lost, the first request used up the password, "
        "or the challenge. Try again, with the next code.";
  }
  return {kRefused, text};
}

// One password, and the answer to a challenge when one comes.
ServerAnswer run_dialogue(SyncClient& client, const Options& options) {
  const std::string& user = options.choice.user;
  ServerAnswer answer = client.ask(user, read_secret(fmt::format("Password for {}", user)), options.patience);
  bool repeated = answer.tries > 1;
  if (answer.reply.answer == SyncAnswer::challenged) {
    say(fmt::format("Challenge number: {}", answer.reply.challenge));
    const Secret code = read_secret("The token's code for it (with the PIN behind it where the account wants that)");
    answer = client.ask(user, code, options.patience);
    repeated = repeated || answer.tries > 1;
  }
  if (answer.reply.answer == SyncAnswer::refused) throw refused(user, repeated);
  if (answer.reply.answer == SyncAnswer::accepted) return answer;
  throw Failure(kRefused, "the server issued another challenge: the first one was too old. Start again");
}

void report(const Common& common, const SoftToken& token, const SyncToken& received,
            const std::filesystem::path& path) {
  Json json = as_json(token, common.show_secrets);
  json["file"] = path.string();
  std::string text = fmt::format("The server accepted. The token is in {}.\n", path.string());
  text += describe(token, common.show_secrets);
  if (common.show_secrets) {
    json["shared_secret"] = received.secret.data();
    text += fmt::format("shared secret {}\n", visible(received.secret.data()));
  }
  write_result(common, json, text);
  if (const std::string warning = clock_warning(token); !warning.empty()) say(warning);
}

void check_place(const std::filesystem::path& path, const Options& options) {
  check_replaceable(path, options.choice.user, damaged_choice(options.choice, path));
}

// The password is good for once, so a file that cannot be written must show before it is sent.
void prepare_place(const std::filesystem::path& path, const Options& options) {
  check_place(path, options);
  make_folder_for(path);
  const FileLock lock(path);
  rehearse_save(path);
}

void fetch(const Common& common, const Options& options) {
  const std::filesystem::path path = chosen_file(options.choice);
  const ServerAddress server = parse_server(options.server);
  prepare_place(path, options);

  SyncClient client(server);
  const ServerAnswer answer = run_dialogue(client, options);
  SoftToken token = make_token(options.choice.user, server_text(server), answer.reply.token, now_seconds());
  if (options.no_pin) token.pin = Secret();
  {
    const FileLock lock(path);
    check_place(path, options);  // somebody may have put a file there meanwhile
    save_token(path, token);
  }
  report(common, token, answer.reply.token, path);
}

}  // namespace

void register_fetch(CLI::App& program, const Common& common) {
  auto options = std::make_shared<Options>();
  CLI::App* const command = program.add_subcommand("fetch", "Get a user's token from the server and keep it here");
  add_choice(*command, options->choice, true);
  command->add_option("--server", options->server, "The server's synchronisation service; port 8801 unless given")
      ->type_name("HOST[:PORT]")
      ->capture_default_str();
  Patience& patience = options->patience;
  add_number(
      *command, "--timeout", 1, kLongestTimeout,
      [&patience](std::uint64_t number) { patience.seconds = static_cast<int>(number); },
      fmt::format("Seconds to wait for each answer, 1 to {}", kLongestTimeout))
      ->type_name("SECONDS")
      ->default_str(std::to_string(patience.seconds));
  add_number(
      *command, "--tries", 1, kMostTries,
      [&patience](std::uint64_t number) { patience.tries = static_cast<int>(number); },
      fmt::format("Requests to send before giving up, 1 to {}", kMostTries))
      ->type_name("N")
      ->default_str(std::to_string(patience.tries));
  command->add_flag("--no-pin", options->no_pin, "Do not keep the PIN on this machine");
  command->footer(
      "The password is what the token shows now, with the PIN behind it where the account wants that; for a\n"
      "challenge-response token it is the PIN, and the number that comes back is to be answered.  It is read without\n"
      "echo, or line by line from standard input when that is no terminal.\n\n"
      "A file that is there already is replaced only when it is the user's token.\n\n"
      "Examples:\n"
      "  zelvan-token fetch alice --server otp.example.org\n"
      "  printf '%s\\n' \"$password\" | zelvan-token fetch alice --json\n");
  command->callback([&common, options] { fetch(common, *options); });
}

}  // namespace zelvan::token
