#include "bench/bench_users.h"

#include <fmt/format.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace zelvan::bench {
namespace {

constexpr std::size_t kLongestName = 19;  // what the server keeps of a User-Name

User parse_user(const std::string& line, const std::string& path, std::size_t number) {
  std::istringstream fields(line);
  User user{};
  std::string rest;
  const bool read = static_cast<bool>(fields >> user.name >> user.key >> user.counter) && !(fields >> rest);
  if (!read || user.name.size() > kLongestName) {
    throw std::runtime_error(
        fmt::format("{}:{}: expected a name (1 to 19 characters), a key and a counter", path, number));
  }
  return user;
}

}  // namespace

std::vector<User> pattern_users(std::size_t count) {
  std::vector<User> users;
  users.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    users.push_back({fmt::format("user{:05}", i), fmt::format("benchkey{:012}", i), 0});
  }
  return users;
}

std::vector<User> read_users(const std::string& path) {
  std::ifstream file(path);
  std::vector<User> users;
  std::string line;
  for (std::size_t number = 1; std::getline(file, line); ++number) {
    if (!line.empty() && line.front() != '#') users.push_back(parse_user(line, path, number));
  }
  if (users.empty()) throw std::runtime_error(fmt::format("{}: no users", path));
  return users;
}

}  // namespace zelvan::bench
