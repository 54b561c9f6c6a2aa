#include "db/utf8.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace zelvan {
namespace {

// One line of the syntax of RFC 3629, section 4: the range of the first byte, that of the second, and the length.  All
// further bytes are 80 to BF.
struct Form {
  unsigned char first_low, first_high;
  unsigned char second_low, second_high;
  std::size_t length;
};

constexpr std::array<Form, 9> kForms{{
    {0x00, 0x7F, 0x00, 0x00, 1},
    {0xC2, 0xDF, 0x80, 0xBF, 2},
    {0xE0, 0xE0, 0xA0, 0xBF, 3},
    {0xE1, 0xEC, 0x80, 0xBF, 3},
    {0xED, 0xED, 0x80, 0x9F, 3},
    {0xEE, 0xEF, 0x80, 0xBF, 3},
    {0xF0, 0xF0, 0x90, 0xBF, 4},
    {0xF1, 0xF3, 0x80, 0xBF, 4},
    {0xF4, 0xF4, 0x80, 0x8F, 4},
}};

bool between(char c, unsigned char low, unsigned char high) {
  const auto byte = static_cast<unsigned char>(c);
  return low <= byte && byte <= high;
}

// Returns the length of the character that `text` begins with, or 0 when it begins with none.
std::size_t character_length(std::string_view text) {
  const auto* const form = std::find_if(kForms.begin(), kForms.end(), [&](const Form& each) {
    return between(text[0], each.first_low, each.first_high);
  });
  if (form == kForms.end() || text.size() < form->length) return 0;
  if (form->length == 1) return 1;
  if (!between(text[1], form->second_low, form->second_high)) return 0;
  const std::string_view rest = text.substr(2, form->length - 2);
  return std::ranges::all_of(rest, [](char c) { return between(c, 0x80, 0xBF); }) ? form->length : 0;
}

}  // namespace

bool is_utf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = character_length(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace zelvan
