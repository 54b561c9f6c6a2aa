// User names: what the service takes, and the file that belongs to one.
#pragma once

#include <string>
#include <string_view>

namespace zelvan::token {

// Returns whether a text is UTF-8 without control characters (also those from U+0080 to U+009F).
bool is_plain_text(std::string_view text);

// Throws Failure (kUsage) unless `name` has 1 to 30 bytes of UTF-8 without control characters.
void check_user_name(std::string_view name);

// Returns a file name for a user: "<name>.json", with every byte other than letters, digits and "_@+-." written as %XX,
// and a dot at the beginning too.  Two names never share a file name.
std::string file_name_of(std::string_view name);

}  // namespace zelvan::token
