// Tokens, and their users, as lines of a CSV file.
//
// The first line names the columns, in any order:
//
//   serial   demanded; at most 28 bytes
//   key      demanded; 16 to 54 characters, which are the key bytes as they stand
//   type     demanded; event, time, challenge, or 1, 2, 3
//   digits   6 to 10; 6 when absent or empty
//   window   at least 1; 10 when absent or empty
//   step     seconds, time-stepped tokens only; 30 when absent or empty
//   counter  moving factor, 64 bits; without it an event token begins at 0 and a time-stepped one agrees with RFC 6238
//   date     UTC, YYYY-MM-DD HH:MM:SS; the present when absent or empty
//   user     makes a user for the token; at most 19 bytes
//   mail     of the user
//   pin      of the user; the code is then followed by it
//   state    of the user; active when absent or empty, or locked, disabled, "disabled locked"; a lock counts from the
//            import on
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "zelvanctl/records.h"

namespace zelvan::ctl {

struct BadLine {
  std::size_t number;  // from 1
  std::string reason;
};

struct ImportedToken {
  std::size_t line;  // where it stands in the file, from 1
  Token token;
  std::optional<User> user;
};

struct TokenImport {
  std::vector<ImportedToken> tokens;
  std::vector<BadLine> bad_lines;  // ascending; when there are any, nothing may be imported
};

// Takes a file apart and checks every line, also for serial numbers and users that come twice in it.
TokenImport parse_tokens(std::string_view text, std::time_t now);

// Returns the names of the columns as the first line of a file.
//   secrets  with the columns key and pin
std::string token_csv_titles(bool secrets);

// Returns a token as a line.
//   user  null when nobody has the token
std::string token_csv_line(const Token& token, const User* user, bool secrets);

}  // namespace zelvan::ctl
