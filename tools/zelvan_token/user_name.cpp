#include "zelvan_token/user_name.h"

#include <fmt/core.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "sync/sync_packet.h"
#include "zelvan_token/failure.h"

namespace zelvan::token {
namespace {

constexpr std::string_view kPlainPunctuation = "_@+-.";

bool is_plain(char c) {
  const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  return letter || (c >= '0' && c <= '9') || kPlainPunctuation.find(c) != std::string_view::npos;
}

bool is_control(char c) { return (static_cast<unsigned char>(c) < 0x20) || c == 0x7F; }

bool is_utf8(std::string_view text) {
  try {
    (void)nlohmann::json(std::string(text)).dump();
    return true;
  } catch (const nlohmann::json::type_error&) {
    return false;
  }
}

}  // namespace

void check_user_name(std::string_view name) {
  if (name.empty()) throw Failure(kUsage, "the user name is empty");
  if (name.size() > kSyncFieldLimit) {
    throw Failure(kUsage,
                  fmt::format("the user name has {} bytes; the service takes {}", name.size(), kSyncFieldLimit));
  }
  if (std::ranges::any_of(name, is_control) || !is_utf8(name)) {
    throw Failure(kUsage, "the user name holds control characters or is no UTF-8");
  }
}

std::string file_name_of(std::string_view name) {
  std::string file;
  for (const char c : name) {
    const bool hides = file.empty() && c == '.';
    file += is_plain(c) && !hides ? std::string(1, c) : fmt::format("%{:02X}", static_cast<unsigned char>(c));
  }
  return file + ".json";
}

}  // namespace zelvan::token
