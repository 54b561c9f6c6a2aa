// What `user add`, `token new`, `token replace` and `token qr` share: describing a new token, and handing it to a
// person.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "zelvanctl/command.h"

namespace zelvan::ctl {

// Options that describe a new token and how it is shown.  What is not given is taken from TokenPlan, or from the token
// that the new one replaces.
struct EnrolmentOptions {
  std::string type;
  std::optional<int> digits;
  std::optional<int> window;
  std::optional<int> step;
  std::uint64_t counter = 0;
  std::string serial;
  bool qr = false;
  std::string issuer = "Zelvan";
};

// Declares --type, --digits, --window, --step, --counter, --serial, and those of declare_showing.
void declare_plan(CLI::App& verb, EnrolmentOptions& options);

// Declares --qr and --issuer.
void declare_showing(CLI::App& verb, EnrolmentOptions& options);

// Returns the plan after its values are checked; throws Failure (kUsage).
//   replaced  the token whose kind the new one takes over; may be null
TokenPlan checked_plan(const EnrolmentOptions& options, const Token* replaced = nullptr);

// True when an option says how a new token is to be.
bool describes_new_token(const EnrolmentOptions& options);

// Before the token is stored: throws Failure (kUsage) when --qr is given and the code would hold too much.
//   account  as for show_enrolment()
void check_showing(const EnrolmentOptions& options, const Token& token, const std::string& account);

// Returns the line that tells how an app gets the token; empty when apps cannot take it.
std::string hand_out_hint(const Token& token, const std::string& user);

// Shows the result of a command about one token: `text` and `json`, then the QR code with --qr, then key and URI with
// --show-secrets.
//   account  the user; empty: the serial number stands in for the name
void show_enrolment(Context& context, const EnrolmentOptions& options, const Token& token, const std::string& account,
                    Json json, const std::string& text);

}  // namespace zelvan::ctl
