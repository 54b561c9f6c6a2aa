// A short decimal code from a key and data by FNV-1a.
//
// FNV is no cryptographic hash: the code shows a mistake, never a forgery.
//
// Source   FNV-1a, 32 bits: offset basis 0x811c9dc5, prime 16777619.
// Threads  No state: any thread may call any member.
// Memory   Works on the caller's buffers; allocates nothing.
#pragma once

#include <cstdint>

class CHmac_fnv {
 public:
  virtual ~CHmac_fnv() = default;

  // Continues `hash` over the `length` bytes at `buffer` (null counts as empty) and returns the new hash.
  static std::uint32_t fnv_32a_buf(const void* buffer, unsigned int length, unsigned int hash);

  // Returns the hash of the key followed by the data, modulo 10^digits.
  //   key, data  keyLength and dataLength bytes; null counts as empty
  //   digits     below 1 gives 0; from 10 on the modulus is 10^digits modulo 2^32, and from 32 on, where that is 0,
  //              the hash stays unreduced
  static std::uint32_t encrypt(const char* key, const unsigned char* data, unsigned int keyLength,
                               unsigned int dataLength, int digits);

  // Writes the number of the function above as exactly `digits` decimal characters with leading zeros and a NUL.
  //   out  digits + 1 bytes, the NUL counted; one byte (for the empty text) when digits is below 1
  // Returns 1, or 0 when `out` is null.
  static int encrypt(const char* key, const unsigned char* data, unsigned int keyLength, unsigned int dataLength,
                     int digits, char* out);
};
