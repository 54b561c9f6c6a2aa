#include "otp/Base64.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned char kPad = '=';
constexpr unsigned char kPadMark = 254;
constexpr unsigned char kForeignMark = 255;

// The 6-bit value of each alphabet character, or one of the marks above.
constexpr std::array<unsigned char, 256> kReverse = [] {
  std::array<unsigned char, 256> map{};
  map.fill(kForeignMark);
  for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
    map[static_cast<unsigned char>(kAlphabet[i])] = static_cast<unsigned char>(i);
  }
  map[kPad] = kPadMark;
  return map;
}();

unsigned char symbol(std::uint32_t value) { return static_cast<unsigned char>(kAlphabet[value & 63U]); }

// Writes the 4 characters of one group of `count` input bytes, 1 to 3.
void encode_group(const unsigned char* in, unsigned long count, unsigned char* out) {
  const std::uint32_t group =
      std::uint32_t{in[0]} << 16U | (count > 1 ? std::uint32_t{in[1]} << 8U : 0U) | (count > 2 ? in[2] : 0U);
  out[0] = symbol(group >> 18U);
  out[1] = symbol(group >> 12U);
  out[2] = count > 1 ? symbol(group >> 6U) : kPad;
  out[3] = count > 2 ? symbol(group) : kPad;
}

}  // namespace

int CBase64::Encode(const unsigned char* in, unsigned long inLength, unsigned char* out, unsigned long* outLength) {
  if (out == nullptr || outLength == nullptr || *outLength == 0 || (in == nullptr && inLength != 0)) return 0;

  // groups * 4 + 1 <= *outLength, written so that no length can overflow.
  const unsigned long groups = inLength / 3 + (inLength % 3 != 0 ? 1 : 0);
  if (groups > (*outLength - 1) / 4) return 0;

  for (unsigned long group = 0; group < groups; ++group) {
    encode_group(in + 3 * group, std::min(inLength - 3 * group, 3UL), out + 4 * group);
  }
  out[4 * groups] = '\0';
  *outLength = 4 * groups;
  return 1;
}

int CBase64::Decode(const unsigned char* in, unsigned long inLength, unsigned char* out, unsigned long* outLength) {
  if (outLength == nullptr || (in == nullptr && inLength != 0)) return 0;

  const unsigned long capacity = out == nullptr ? 0 : *outLength;
  unsigned long written = 0;  // never above capacity
  unsigned long bytes_per_group = 3;
  unsigned int symbols = 0;
  std::uint32_t group = 0;
  for (unsigned long i = 0; i < inLength; ++i) {
    const unsigned char value = kReverse[in[i]];
    if (value == kForeignMark) continue;
    // Deliberate: the count is not restored after a group, so text behind a padded group decodes short.
    // It stops at 1, because a full group always gives its first byte.
    if (value == kPadMark) bytes_per_group = std::max(bytes_per_group - 1, 1UL);
    group = group << 6U | (value == kPadMark ? 0U : value);
    if (++symbols < 4) continue;

    if (bytes_per_group > capacity - written) return 0;
    for (unsigned int k = 0; k < bytes_per_group; ++k) {
      out[written++] = static_cast<unsigned char>(group >> (16U - 8U * k));
    }
    symbols = 0;
    group = 0;
  }
  *outLength = written;
  return 1;
}
