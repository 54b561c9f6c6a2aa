// The users that the measuring tools work with: names, token keys and the next counter of each token.
//
// Differs  A users file has one user a line: name, key, next counter, separated by blanks; "#" begins a comment line.
// Threads  No shared state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zelvan::bench {

// One user with an event token of six digits.
struct User {
  std::string name;       // as in User-Name, 1 to 19 characters
  std::string key;        // the token's key: the characters are the key bytes
  std::uint64_t counter;  // the counter of the token's next code
};

// Makes `count` users "user00000", "user00001", ... with the keys "benchkey000000000000", ... and the counter 0.
std::vector<User> pattern_users(std::size_t count);

// Reads the users file at `path`.
// Throws std::runtime_error naming the line when the file cannot be read, holds no user or a line is not a user.
std::vector<User> read_users(const std::string& path);

}  // namespace zelvan::bench
