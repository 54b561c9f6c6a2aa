#include "zelvanctl/enrolment.h"

#include <fmt/core.h>
#include <unistd.h>

#include <limits>

#include "zelvanctl/fields.h"
#include "zelvanctl/otpauth.h"
#include "zelvanctl/qr_code.h"
#include "zelvanctl/terminal.h"
#include "zelvanctl/views.h"

namespace zelvan::ctl {
namespace {

// Apps differ in whether the first code they show is that of the counter in the URI or of the one after it.
void warn_about_first_code(const Context& context, const Token& token) {
  if (value_of(token.type) == kEventToken && value_of(token.window) < 2) {
    context.out.warn("some apps begin with the code after the first one; with a window of 1 that code is refused");
  }
}

void warn_about_digits(const Context& context, const Token& token) {
  if (value_of(token.digits) > 8) context.out.warn("most authenticator apps know codes of 6 to 8 digits only");
}

// Takes the kind of a token as far as it is usable.
void take_over(const Token& token, TokenPlan& plan) {
  if (const auto type = value_of(token.type); type >= kEventToken && type <= kChallengeToken) {
    plan.type = static_cast<int>(type);
  }
  if (digits_problem(value_of(token.digits)).empty()) plan.digits = static_cast<int>(value_of(token.digits));
  if (window_problem(value_of(token.window)).empty()) plan.window = static_cast<int>(value_of(token.window));
  if (step_problem(value_of(token.step)).empty()) plan.step = static_cast<int>(value_of(token.step));
}

std::string qr_text(const Secret& uri) {
  return "\n" + draw(qr_code(uri.reveal()), colours_wanted(STDOUT_FILENO)) +
         "\nScan the code with an authenticator app. Whoever sees it can make the codes.\n";
}

}  // namespace

void declare_plan(CLI::App& verb, EnrolmentOptions& options) {
  verb.add_option("--type", options.type, "Kind of token: time (default), event or challenge")
      ->check(CLI::IsMember({"time", "event", "challenge"}));
  constexpr std::uint64_t kIntMost = std::numeric_limits<int>::max();
  decimal(verb.add_option("--digits", options.digits, "Digits of a code, 6 to 10 (default 6)"), kDigitsLeast,
          kDigitsMost);
  decimal(verb.add_option("--window", options.window, "How many codes the server tries (default 10)"), 1, kIntMost);
  decimal(verb.add_option("--step", options.step, "Seconds a code of a time-stepped token lasts (default 30)"), 1,
          kIntMost);
  decimal(verb.add_option("--counter", options.counter, "First counter of an event token (default 0)"), 0,
          std::numeric_limits<std::uint64_t>::max());
  verb.add_option("--serial", options.serial, "Serial number, at most 28 bytes (default: a random one)");
  declare_showing(verb, options);
}

void declare_showing(CLI::App& verb, EnrolmentOptions& options) {
  verb.add_flag("--qr", options.qr, "Draw the QR code for an authenticator app");
  verb.add_option("--issuer", options.issuer, "Name under which the app lists the account (default Zelvan)");
}

TokenPlan checked_plan(const EnrolmentOptions& options, const Token* replaced) {
  TokenPlan plan;
  if (replaced != nullptr) take_over(*replaced, plan);
  if (!options.type.empty()) plan.type = parse_token_type(options.type);
  plan.digits = options.digits.value_or(plan.digits);
  plan.window = options.window.value_or(plan.window);
  plan.step = options.step.value_or(plan.step);
  plan.counter = options.counter;
  plan.serial = options.serial;
  check_plan(plan);
  if (plan.type != kEventToken && plan.counter != 0) throw Failure(kUsage, "--counter is for event tokens");
  return plan;
}

bool describes_new_token(const EnrolmentOptions& options) {
  return !options.type.empty() || options.digits || options.window || options.step || options.counter != 0 ||
         !options.serial.empty();
}

void check_showing(const EnrolmentOptions& options, const Token& token, const std::string& account) {
  if (!options.qr || !app_problem(token).empty()) return;
  try {
    (void)qr_code(otpauth_uri(token, options.issuer, account.empty() ? token.serial : account).reveal());
  } catch (const Failure& failure) {
    throw Failure(kUsage, fmt::format("{}: choose a shorter --issuer", failure.what()));
  }
}

std::string hand_out_hint(const Token& token, const std::string& user) {
  return app_problem(token).empty() ? fmt::format("Hand it out with: zelvanctl token qr {}\n", printable(user)) : "";
}

void show_enrolment(Context& context, const EnrolmentOptions& options, const Token& token, const std::string& account,
                    Json json, const std::string& text) {
  const std::string problem = app_problem(token);
  if (options.qr && !problem.empty()) context.out.warn("no QR code: " + problem);
  json["token"] = token_json(token, context.show_secrets);
  std::string shown = text;
  if (problem.empty()) {
    const Secret uri = otpauth_uri(token, options.issuer, account.empty() ? token.serial : account);
    if (options.qr) {
      shown += qr_text(uri);
      warn_about_first_code(context, token);
      warn_about_digits(context, token);
    }
    if (context.show_secrets) {
      json["uri"] = uri.reveal();
      shown += fmt::format("URI           {}\n", uri.reveal());
    }
  }
  if (context.show_secrets) shown += fmt::format("Key           {}\n", printable(token.key ? token.key->reveal() : ""));
  context.out.result(json, shown);
}

}  // namespace zelvan::ctl
