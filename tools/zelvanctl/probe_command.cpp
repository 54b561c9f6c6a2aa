#include "zelvanctl/probe_command.h"

#include <fmt/core.h>

#include <fstream>

#include "zelvanctl/radius_exchange.h"
#include "zelvanctl/terminal.h"

namespace zelvan::ctl {
namespace {

constexpr std::size_t kNameLimit = 253;      // bytes of an attribute
constexpr std::size_t kPasswordLimit = 128;  // RFC 2865 section 5.2

struct ProbeOptions {
  std::string user;
  std::string server;
  std::string secret_file;
  bool chap = false;
  int seconds = 5;
};

// How a probe ends.
struct Outcome {
  std::string word;  // for scripts
  ExitCode code;
  std::string text;  // for people
};

ServerAddress server_address(Context& context, const ProbeOptions& options) {
  ServerAddress address{"127.0.0.1", 0};
  // The settings are needed only for what the command line leaves open.
  const bool complete = options.server.find(':') != std::string::npos;
  address.port = complete                      ? std::uint16_t{0}
                 : options.secret_file.empty() ? static_cast<std::uint16_t>(context.settings().number("radius_port"))
                                               : std::uint16_t{1812};
  if (options.server.empty()) return address;
  if (const auto parsed = parse_server(options.server, address)) return *parsed;
  throw Failure(kUsage, fmt::format("--server {} is not HOST, HOST:PORT or :PORT", printable(options.server)));
}

Secret secret_from_file(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  if (!std::getline(file, line)) {
    throw Failure(kUnreachable, fmt::format("{} holds no secret, or cannot be read", path));
  }
  if (line.ends_with('\r')) line.pop_back();
  Secret secret(line);
  explicit_bzero(line.data(), line.size());
  return secret;
}

Secret shared_secret(Context& context, const ProbeOptions& options, const std::string& client) {
  if (!options.secret_file.empty()) return secret_from_file(options.secret_file);
  if (auto secret = client_secret(context.settings().file(), client)) return *std::move(secret);
  throw Failure(kUnreachable, fmt::format("section [{}] has no secret for this client's address, {}, and none for {}: "
                                          "the server would not answer. Set one with: zelvanctl config set {}",
                                          kShareSection, client, kShareCatchAllKey, client));
}

Outcome outcome_of_reply(const RadiusReply& reply, const std::string& user) {
  if (reply.signature == Signature::wrong) {
    return {"wrong signature", kUnreachable,
            "A reply came whose signature is wrong: the server has another secret for this client. With another secret "
            "no password is right either."};
  }
  if (is_unknown_user(reply)) {
    return {"no such user", kNotFound,
            fmt::format("Rejected: the server has no active user {}.{}", printable(user),
                        reply.signature == Signature::beginning
                            ? "\nThe signature of this reply covers its beginning only, which is how the server signs "
                              "it: RADIUS clients that check\nsignatures drop the reply and report a time-out."
                            : "")};
  }
  switch (reply.code) {
    case ReplyCode::accept:
      return {"accepted", kOk, "Accepted."};
    case ReplyCode::challenge:
      return {"challenge", kFailed, "A challenge."};
    case ReplyCode::reject:
      break;
  }
  return {"rejected", kFailed, fmt::format("Rejected. To see why: zelvanctl user show {}", printable(user))};
}

Outcome outcome_of(const Exchange& exchange, const std::string& user, const std::string& client) {
  switch (exchange.end) {
    case Exchange::End::reply:
      return outcome_of_reply(exchange.reply, user);
    case Exchange::End::refused:
      return {"refused", kUnreachable, "Nothing listens on that port: the server does not run, or on another port."};
    case Exchange::End::silence:
      break;
  }
  return {
      "no reply", kUnreachable,
      fmt::format("No reply. Either the server has no secret for the address {}, or a packet filter stands between, "
                  "or the server cannot work: zelvanctl doctor tells.",
                  client)};
}

std::string_view signature_word(Signature signature) {
  switch (signature) {
    case Signature::right:
      return "right";
    case Signature::beginning:
      return "beginning only";
    case Signature::wrong:
      break;
  }
  return "wrong";
}

Json exchange_json(const Exchange& exchange, const Outcome& outcome) {
  Json json = {{"outcome", outcome.word}, {"milliseconds", exchange.milliseconds}};
  if (exchange.end == Exchange::End::reply) {
    json["code"] = static_cast<int>(exchange.reply.code);
    json["message"] = exchange.reply.message;
    json["signature"] = signature_word(exchange.reply.signature);
  }
  return json;
}

void show(const Context& context, const Exchange& exchange, const Outcome& outcome) {
  const Colour colour = outcome.code == kOk           ? Colour::green
                        : outcome.word == "challenge" ? Colour::yellow
                                                      : Colour::red;
  std::string facts = fmt::format("  {:.1f} ms", exchange.milliseconds);
  if (exchange.end == Exchange::End::reply) {
    facts += fmt::format(", signature {}", signature_word(exchange.reply.signature));
    if (!exchange.reply.message.empty()) facts += fmt::format(", message \"{}\"", printable(exchange.reply.message));
  }
  context.out.say(context.out.coloured(outcome.text, colour) + "\n" + facts);
}

RadiusLogin login_of(const ProbeOptions& options) {
  if (options.user.empty() || options.user.size() > kNameLimit) {
    throw Failure(kUsage, fmt::format("a user name has 1 to {} bytes", kNameLimit));
  }
  auto password =
      read_secret_once("Password of " + printable(options.user) + " (the code, then the PIN if there is one)");
  if (!password) throw Failure(kUsage, "no password: standard input is empty");
  return {options.user, *std::move(password), options.chap};
}

void probe(Context& context, ProbeOptions& options) {
  const ServerAddress address = server_address(context, options);
  RadiusServer server(address);
  const std::string client = server.local_address();
  const Secret secret = shared_secret(context, options, client);
  const std::string_view method = options.chap ? "CHAP" : "PAP";
  context.out.say(fmt::format("{} of {} to {} port {}, from {}", method, printable(options.user), address.host,
                              address.port, client));
  RadiusLogin login = login_of(options);
  Json exchanges = Json::array();
  Outcome outcome;
  while (true) {
    if (login.password.reveal().size() > kPasswordLimit) throw Failure(kUsage, "a password has at most 128 bytes");
    const Exchange exchange = server.ask(login, secret, options.seconds);
    outcome = outcome_of(exchange, options.user, client);
    exchanges.push_back(exchange_json(exchange, outcome));
    show(context, exchange, outcome);
    if (outcome.word != "challenge") break;
    auto answer = read_secret_once("Code for the challenge (then the PIN if there is one)");
    if (!answer) break;
    login.password = *std::move(answer);
  }
  if (context.out.json()) {
    context.out.result({{"server", fmt::format("{}:{}", address.host, address.port)},
                        {"client", client},
                        {"method", method},
                        {"outcome", outcome.word},
                        {"exchanges", exchanges}},
                       "");
  }
  context.exit_code = outcome.code;
}

}  // namespace

void register_probe_command(CLI::App& program, Context& context) {
  const auto options = std::make_shared<ProbeOptions>();
  CLI::App* command = program.add_subcommand("probe", "Log in over RADIUS and show each reply in words");
  command->footer(
      "The password is asked for, or read from standard input; a challenge is shown, and its code is the next line.\n"
      "Each probe is a login like any other: a right code is used up, a wrong one counts as a failure. A request is\n"
      "sent once. The exit code is 0 when the server accepts, 1 when it rejects, 3 when it has no such user, 5 when "
      "no\n"
      "reply comes or its signature is wrong.\n"
      "\n"
      "Examples:\n"
      "  zelvanctl probe alice\n"
      "  oathtool --totp -b JBSWY3DPEHPK3PXP | zelvanctl probe alice --chap --json\n"
      "  zelvanctl probe alice --server 192.0.2.1:1812 --secret-file secret.txt\n");
  command->add_option("user", options->user, "Login name")->required()->type_name("USER");
  command
      ->add_option("--server", options->server,
                   "The server; by default 127.0.0.1 and radius_port of the settings, with --secret-file 1812")
      ->type_name("HOST[:PORT]");
  command->add_flag("--chap", options->chap, "Send the password with CHAP instead of PAP");
  command
      ->add_option("--secret-file", options->secret_file,
                   "File whose first line is the shared secret; by default section [share] of the settings")
      ->type_name("FILE");
  decimal(command->add_option("--timeout", options->seconds, "Seconds to wait for a reply (5)")->type_name("SECONDS"),
          1, 3600);
  command->callback([&context, options] { probe(context, *options); });
}

}  // namespace zelvan::ctl
