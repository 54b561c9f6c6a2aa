// Key URIs, as authenticator apps read them from a QR code.
//
// Source   The "Key URI Format" that authenticator apps share: otpauth://TYPE/ISSUER:ACCOUNT?secret=BASE32&...
// Threads  No state.
#pragma once

#include <string>
#include <string_view>

#include "zelvanctl/records.h"
#include "zelvanctl/secret.h"

namespace zelvan::ctl {

// Returns why apps cannot make the codes that the server expects of this token; empty when they can.
std::string app_problem(const Token& token);

// Returns the URI of an event or time-stepped token for which app_problem() is empty.
//   issuer   the name under which the app lists the account; may be empty
//   account  the user
Secret otpauth_uri(const Token& token, std::string_view issuer, std::string_view account);

// Returns the text with every byte but letters, digits and "-._~" as %XX (RFC 3986 section 2).
std::string percent_encoded(std::string_view text);

}  // namespace zelvan::ctl
