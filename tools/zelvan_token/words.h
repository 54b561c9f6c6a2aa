// A token in plain words, and as JSON for scripts.  Neither shows a secret unless asked to.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "zelvan_token/soft_token.h"

namespace zelvan::token {

using Json = nlohmann::ordered_json;

// Returns "1 second", "2 seconds".
std::string seconds_text(std::int64_t seconds);

// Returns a text as a terminal may get it: a byte that is no printable ASCII becomes "\xHH".  Whoever sees a request
// can forge the answer, and with it what this program shows as key, PIN and shared secret.
std::string visible(std::string_view text);

// Returns several lines about a token.
//   show_secrets  key and PIN too
std::string describe(const SoftToken& token, bool show_secrets);

// The same as JSON.
Json as_json(const SoftToken& token, bool show_secrets);

// Returns a warning when this machine's clock and the server's differ by so much that codes depend on it; else "".
std::string clock_warning(const SoftToken& token);

// Returns JSON text in ASCII; bytes that are no UTF-8 are replaced.
std::string json_text(const Json& value);

}  // namespace zelvan::token
