// One-time codes: HMAC-SHA-1 of a moving factor under the token key, cut to a number of decimal digits.
//
// Source   RFC 4226 over RFC 2104 and FIPS 180-1.
// Differs  The key is text, so a key byte of zero ends it.  Ten-digit codes are taken modulo 10^10 modulo 2^32, and
//          codes of 1 to 5 digits are refused.
// Threads  A QENT_HOTP belongs to one thread at a time, because its members work in the object; make one for each
//          code.  The SHA1 members need no object and may be called by any thread.
// Memory   Works on the caller's buffers; allocates nothing.  Copies of the key are wiped.
#pragma once

#include <array>
#include <cstdint>

// A digest under way.  It belongs to one call chain; SHA1Final wipes it.
struct SHA1_CTX {
  std::array<std::uint32_t, 5> state;    // H0 to H4
  std::array<std::uint32_t, 2> count;    // bits taken so far: low word, high word
  std::array<unsigned char, 64> buffer;  // the input bytes of the block not yet complete
};

class QENT_HOTP {
 public:
  virtual ~QENT_HOTP() = default;

  // Writes the code of `counter` under `key` as text of exactly `digits` characters with leading zeros, and a NUL.
  //   key        NUL-terminated text.  A key over 64 characters must be writable: its first 20 bytes are replaced by
  //              its SHA-1 digest, so a second call with the same buffer computes under another key
  //   keyLength  ignored; the length is strlen(key)
  //   counter    moving factor, 8 bytes, most significant byte first
  //   digits     6 to 10
  //   out        digits + 1 bytes, the NUL counted
  // Returns true, or false (and leaves `out` untouched) when a pointer is null or `digits` is out of range.
  bool hotp_generate(const char* key, unsigned long keyLength, const unsigned char* counter, int digits, char* out);

  // Returns the 6-digit code of the 8 bytes at `counter` under the NUL-terminated `key`, which is never written to.
  // A null pointer gives 0.
  std::uint32_t hotp_generate(const char* key, const unsigned char* counter);

  // The same for a key of `keyLength` bytes, which may hold any byte.
  std::uint32_t hotp_generate(const char* key, unsigned long keyLength, const unsigned char* counter);

  // Returns the dynamic truncation (RFC 4226 section 5.3) of the 20 bytes at `mac`, modulo 10^6.
  std::uint32_t truncate(const unsigned char* mac);

  // Returns the dynamic truncation of the 20 bytes at `mac`, modulo 10^digits computed in 32 bits.
  //   digits  below 1 gives 0; 10 gives the number modulo 1410065408; from 32 on, where the modulus is 0, the number
  //           stays unreduced
  std::uint32_t truncate(const unsigned char* mac, int digits);

  // Adds one to the 8 bytes at `counter`, most significant byte first; eight 0xFF bytes become eight zero bytes.
  void textadd(unsigned char* counter);

  // Starts a digest in `context`, whatever it held.
  static void SHA1Init(SHA1_CTX* context);

  // Takes the next `length` bytes of `data`; a length of 0 takes nothing, also from null.
  static void SHA1Update(SHA1_CTX* context, const unsigned char* data, unsigned long length);

  // Ends the digest, writes its 20 bytes to `digest` and wipes `context`.
  static void SHA1Final(unsigned char* digest, SHA1_CTX* context);

  // Takes one block of 64 bytes into the 5 words at `state`.
  static void SHA1Transform(std::uint32_t* state, const unsigned char* block);

 private:
  std::uint32_t step_ = 0;     // multiplications done so far
  std::uint32_t modulus_ = 1;  // 10^step_ modulo 2^32
};
