#include <fmt/core.h>

#include <memory>
#include <optional>

#include "base/clock.h"
#include "base/sleep.h"
#include "zelvan_token/command.h"
#include "zelvan_token/draw.h"
#include "zelvan_token/terminal.h"
#include "zelvan_token/user_name.h"

namespace zelvan::token {
namespace {

constexpr unsigned long kClockLookMs = 20;

struct Options {
  Choice choice;
  std::optional<std::uint32_t> challenge;
  bool with_pin = false;
  bool wait = false;
};

void check_pin(const SoftToken& token, const Options& options) {
  if (!options.with_pin) return;
  if (!token.pin_follows) return say("This account takes the code alone; no PIN is put behind it.");
  if (token.pin.empty()) throw Failure(kUsage, "the PIN was not kept here: leave out --with-pin and type it yourself");
  if (is_plain_text(token.pin.reveal())) return;
  // Escaped it would be another password; as it is it may give orders to the terminal.
  throw Failure(kUsage,
                "the PIN holds control characters or is no UTF-8: leave out --with-pin and type it yourself "
                "(zelvan-token show --show-secrets shows its bytes)");
}

void write_code(const Common& common, const SoftToken& token, const Options& options, Json json, const Draw& draw) {
  const Secret code = code_text(token, draw.counter, options.with_pin);
  json["code"] = code.reveal();
  json["with_pin"] = options.with_pin && token.pin_follows;
  write_result(common, json, code.reveal() + "\n");
}

void answer_challenge(const Common& common, const SoftToken& token, const Options& options) {
  if (!options.challenge) {
    throw Failure(kUsage,
                  "this is a challenge-response token: log in with the PIN, then give the number that comes back "
                  "with --challenge");
  }
  Json json;
  json["user"] = token.user;
  json["challenge"] = *options.challenge;
  Draw draw;
  draw.counter = *options.challenge;
  write_code(common, token, options, json, draw);
}

std::string remark(const Draw& draw) {
  if (!draw.ahead) return seconds_text(draw.seconds_left) + " left";
  return fmt::format("The code of this time step was given out before; this is the one of the next. {} left",
                     seconds_text(draw.seconds_left));
}

void sleep_until(std::time_t moment) {
  while (now_seconds() < moment) otp_sleep(kClockLookMs);
}

// Draws a counter; with --wait as soon as there is one.
StoredDraw draw_in_time(const Common& common, const std::filesystem::path& path, const Options& options) {
  for (;;) {
    const std::time_t now = now_seconds();
    StoredDraw drawn = draw_from_file(path, now);
    if (drawn.draw.wait == 0) return drawn;
    if (!options.wait) {
      throw Failure(kTooSoon,
                    fmt::format("the codes of this time step and the next were given out, and the server takes "
                                "each once; the next one comes in {} (--wait waits for it)",
                                seconds_text(drawn.draw.wait)));
    }
    if (!common.json) say(fmt::format("waiting {} for a fresh code", seconds_text(drawn.draw.wait)));
    sleep_until(now + static_cast<std::time_t>(drawn.draw.wait));
  }
}

void give_code(const Common& common, const std::filesystem::path& path, const Options& options) {
  const StoredDraw drawn = draw_in_time(common, path, options);
  Json json;
  json["user"] = drawn.token.user;
  json["counter"] = drawn.draw.counter;
  if (drawn.token.kind == Kind::time_stepped) {
    json["ahead"] = drawn.draw.ahead;
    json["seconds_left"] = drawn.draw.seconds_left;
  }
  write_code(common, drawn.token, options, json, drawn.draw);
  if (drawn.token.kind == Kind::time_stepped && !common.json) say(remark(drawn.draw));
}

void code(const Common& common, const Options& options) {
  const std::filesystem::path path = chosen_file(options.choice);
  const SoftToken token = load_token(path);
  check_choice(options.choice, token);
  check_pin(token, options);
  if (token.kind == Kind::challenge) return answer_challenge(common, token, options);
  if (options.challenge) throw Failure(kUsage, fmt::format("{} tokens take no challenge", kind_name(token.kind)));
  give_code(common, path, options);
}

}  // namespace

void register_code(CLI::App& program, const Common& common) {
  auto options = std::make_shared<Options>();
  CLI::App* const command = program.add_subcommand("code", "Show the next code; each is shown once");
  add_choice(*command, options->choice, false);
  add_number(
      *command, "--challenge", 0, UINT32_MAX,
      [options = options.get()](std::uint64_t number) { options->challenge = static_cast<std::uint32_t>(number); },
      "The number to answer; challenge-response tokens only")
      ->type_name("N");
  command->add_flag("--with-pin", options->with_pin, "Put the PIN behind the code, where the account wants that");
  command->add_flag("--wait", options->wait, "Wait when a time-stepped token has no fresh code yet");
  command->footer(
      "USER may be left out when there is one token.\n\n"
      "Examples:\n"
      "  zelvan-token code\n"
      "  zelvan-token code alice --with-pin --wait\n"
      "  zelvan-token code bob --challenge 76499\n");
  command->callback([&common, options] { code(common, *options); });
}

}  // namespace zelvan::token
