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

// U+0080 to U+009F: C2 80 to C2 9F.
bool holds_c1_control(std::string_view text) {
  for (std::size_t at = text.find('\xC2'); at != std::string_view::npos; at = text.find('\xC2', at + 1)) {
    if (at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) < 0xA0) return true;
  }
  return false;
}

bool is_utf8(std::string_view text) {
  try {
    (void)nlohmann::json(std::string(text)).dump();
    return true;
  } catch (const nlohmann::json::type_error&) {
    return false;
  }
}

}  // namespace

bool is_plain_text(std::string_view text) {
  return is_utf8(text) && std::ranges::none_of(text, is_control) && !holds_c1_control(text);
}

void check_user_name(std::string_view name) {
  if (name.empty()) throw Failure(kUsage, "the user name is empty");
  if (name.size() > kSyncFieldLimit) {
    throw Failure(kUsage,
                  fmt::format("the user name has {} bytes; the service takes {}", name.size(), kSyncFieldLimit));
  }
  if (!is_plain_text(name)) {
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
