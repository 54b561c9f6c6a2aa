#include "otp/Hmac_fnv.h"

#include "otp/counter.h"

namespace {

constexpr std::uint32_t kOffsetBasis = 0x811c9dc5U;
constexpr std::uint32_t kPrime = 16777619U;

// 10^digits modulo 2^32.  It is 0 from 32 digits on, because 2^32 divides 10^32; multiplying further changes nothing.
std::uint32_t modulus_of(int digits) {
  std::uint32_t modulus = 1;
  for (int i = 0; i < digits && modulus != 0; ++i) modulus *= 10U;
  return modulus;
}

}  // namespace

std::uint32_t CHmac_fnv::fnv_32a_buf(const void* buffer, unsigned int length, unsigned int hash) {
  if (buffer == nullptr) return hash;
  const auto* bytes = static_cast<const unsigned char*>(buffer);
  for (unsigned int i = 0; i < length; ++i) hash = (hash ^ bytes[i]) * kPrime;
  return hash;
}

std::uint32_t CHmac_fnv::encrypt(const char* key, const unsigned char* data, unsigned int keyLength,
                                 unsigned int dataLength, int digits) {
  const std::uint32_t hash = fnv_32a_buf(data, dataLength, fnv_32a_buf(key, keyLength, kOffsetBasis));
  const std::uint32_t modulus = modulus_of(digits);
  return modulus == 0 ? hash : hash % modulus;
}

int CHmac_fnv::encrypt(const char* key, const unsigned char* data, unsigned int keyLength, unsigned int dataLength,
                       int digits, char* out) {
  if (out == nullptr) return 0;
  zelvan::write_decimal(out, digits, encrypt(key, data, keyLength, dataLength, digits));
  return 1;
}
