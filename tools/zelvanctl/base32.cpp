#include "zelvanctl/base32.h"

#include <cstdint>

namespace zelvan::ctl {

std::string base32(std::string_view bytes) {
  constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
  std::string text;
  text.reserve((bytes.size() * 8 + 4) / 5);
  std::uint32_t bits = 0;
  unsigned held = 0;  // bits waiting in `bits`, below 5 after each byte
  for (const char byte : bytes) {
    bits = bits << 8U | static_cast<unsigned char>(byte);
    held += 8;
    while (held >= 5) {
      held -= 5;
      text += kAlphabet[bits >> held & 31U];
    }
  }
  if (held > 0) text += kAlphabet[bits << (5 - held) & 31U];
  return text;
}

}  // namespace zelvan::ctl
