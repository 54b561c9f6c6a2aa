#include "otp/Md5.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

constexpr unsigned int kBlockSize = 64;
constexpr unsigned int kLengthOffset = 56;  // the bit count fills the last 8 bytes of the last block

// floor(2^32 * abs(sin(i + 1))), i in radians (RFC 1321 section 3.4).
constexpr std::array<std::uint32_t, 64> kSine{
    0xd76aa478U, 0xe8c7b756U, 0x242070dbU, 0xc1bdceeeU, 0xf57c0fafU, 0x4787c62aU, 0xa8304613U, 0xfd469501U,
    0x698098d8U, 0x8b44f7afU, 0xffff5bb1U, 0x895cd7beU, 0x6b901122U, 0xfd987193U, 0xa679438eU, 0x49b40821U,
    0xf61e2562U, 0xc040b340U, 0x265e5a51U, 0xe9b6c7aaU, 0xd62f105dU, 0x02441453U, 0xd8a1e681U, 0xe7d3fbc8U,
    0x21e1cde6U, 0xc33707d6U, 0xf4d50d87U, 0x455a14edU, 0xa9e3e905U, 0xfcefa3f8U, 0x676f02d9U, 0x8d2a4c8aU,
    0xfffa3942U, 0x8771f681U, 0x6d9d6122U, 0xfde5380cU, 0xa4beea44U, 0x4bdecfa9U, 0xf6bb4b60U, 0xbebfbc70U,
    0x289b7ec6U, 0xeaa127faU, 0xd4ef3085U, 0x04881d05U, 0xd9d4d039U, 0xe6db99e5U, 0x1fa27cf8U, 0xc4ac5665U,
    0xf4292244U, 0x432aff97U, 0xab9423a7U, 0xfc93a039U, 0x655b59c3U, 0x8f0ccc92U, 0xffeff47dU, 0x85845dd1U,
    0x6fa87e4fU, 0xfe2ce6e0U, 0xa3014314U, 0x4e0811a1U, 0xf7537e82U, 0xbd3af235U, 0x2ad7d2bbU, 0xeb86d391U,
};

struct Registers {
  std::uint32_t a;
  std::uint32_t b;
  std::uint32_t c;
  std::uint32_t d;
};

// One of the four rounds of 16 steps: the rotations that its steps take in turn, the word that the first step takes,
// and how far each next step's word lies behind.
struct Round {
  std::array<int, 4> rotations;
  unsigned int first_word;
  unsigned int stride;
};

constexpr std::array<Round, 4> kRounds{{
    {{7, 12, 17, 22}, 0, 1},
    {{5, 9, 14, 20}, 1, 5},
    {{4, 11, 16, 23}, 5, 3},
    {{6, 10, 15, 21}, 0, 7},
}};

template <unsigned int kRound, typename Mix>
Registers sixteen_steps(Registers r, const std::array<std::uint32_t, 16>& words, Mix mix) {
  constexpr Round kThis = kRounds[kRound];
  for (unsigned int step = 0; step < 16; ++step) {
    const std::uint32_t word = words[(kThis.first_word + kThis.stride * step) % 16];
    const std::uint32_t sum = r.a + mix(r.b, r.c, r.d) + word + kSine[16 * kRound + step];
    r = {r.d, r.b + std::rotl(sum, kThis.rotations[step % 4]), r.b, r.c};
  }
  return r;
}

unsigned int used_bytes(const MD5_CTX& context) { return (context.count[0] >> 3U) % kBlockSize; }

void count_bytes(MD5_CTX& context, unsigned int length) {
  const std::uint64_t bits =
      (std::uint64_t{context.count[1]} << 32U | context.count[0]) + (std::uint64_t{length} << 3U);
  context.count = {static_cast<std::uint32_t>(bits), static_cast<std::uint32_t>(bits >> 32U)};
}

}  // namespace

int CMd5::MDString(const unsigned char* data, unsigned int length, unsigned char* digest) {
  if (data == nullptr || digest == nullptr) return 0;
  MD5_CTX context;
  MD5Init(&context);
  MD5Update(&context, data, length);
  MD5Final(digest, &context);
  return 1;
}

void CMd5::MD5Init(MD5_CTX* context) {
  context->state = {0x67452301U, 0xefcdab89U, 0x98badcfeU, 0x10325476U};
  context->count = {0, 0};
}

void CMd5::MD5Update(MD5_CTX* context, const unsigned char* input, unsigned int length) {
  unsigned int used = used_bytes(*context);
  count_bytes(*context, length);
  while (length > 0) {
    const unsigned int part = std::min(length, kBlockSize - used);
    MD5_memcpy(context->buffer.data() + used, input, part);
    used += part;
    input += part;
    length -= part;
    if (used == kBlockSize) {
      MD5Transform(context->state.data(), context->buffer.data());
      used = 0;
    }
  }
}

void CMd5::MD5Final(unsigned char* digest, MD5_CTX* context) {
  std::array<unsigned char, 8> bits;
  Encode(bits.data(), context->count.data(), bits.size());

  const unsigned int used = used_bytes(*context);
  std::array<unsigned char, kBlockSize> padding;
  MD5_memset(padding.data(), 0, padding.size());
  padding[0] = 0x80;
  MD5Update(context, padding.data(), (used < kLengthOffset ? kLengthOffset : kBlockSize + kLengthOffset) - used);
  MD5Update(context, bits.data(), bits.size());

  Encode(digest, context->state.data(), 16);
  explicit_bzero(context, sizeof *context);
}

void CMd5::MD5Transform(std::uint32_t* state, const unsigned char* block) {
  std::array<std::uint32_t, 16> words;
  Decode(words.data(), block, kBlockSize);

  // The mixing functions F, G, H and I of RFC 1321 section 3.4.
  using Word = std::uint32_t;
  Registers r{state[0], state[1], state[2], state[3]};
  r = sixteen_steps<0>(r, words, [](Word x, Word y, Word z) { return (x & y) | (~x & z); });
  r = sixteen_steps<1>(r, words, [](Word x, Word y, Word z) { return (x & z) | (y & ~z); });
  r = sixteen_steps<2>(r, words, [](Word x, Word y, Word z) { return x ^ y ^ z; });
  r = sixteen_steps<3>(r, words, [](Word x, Word y, Word z) { return y ^ (x | ~z); });

  state[0] += r.a;
  state[1] += r.b;
  state[2] += r.c;
  state[3] += r.d;
}

void CMd5::Encode(unsigned char* output, const std::uint32_t* input, unsigned int length) {
  for (unsigned int i = 0; i < length; ++i) output[i] = static_cast<unsigned char>(input[i / 4] >> (8U * (i % 4)));
}

void CMd5::Decode(std::uint32_t* output, const unsigned char* input, unsigned int length) {
  for (unsigned int i = 0; i < length; i += 4) {
    output[i / 4] = std::uint32_t{input[i]} | std::uint32_t{input[i + 1]} << 8U | std::uint32_t{input[i + 2]} << 16U |
                    std::uint32_t{input[i + 3]} << 24U;
  }
}

void CMd5::MD5_memcpy(unsigned char* output, const unsigned char* input, unsigned int length) {
  std::memcpy(output, input, length);
}

void CMd5::MD5_memset(unsigned char* output, int value, unsigned int length) { std::memset(output, value, length); }
