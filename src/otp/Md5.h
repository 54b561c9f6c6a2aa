// MD5, as RADIUS uses it for password hiding, CHAP and the signature of a reply.
//
// Source   RFC 1321.
// Threads  No state but the caller's context: any thread may call any member.
// Memory   Works on the caller's buffers; allocates nothing.
#pragma once

#include <array>
#include <cstdint>

// A digest under way.  It belongs to one call chain; MD5Final wipes it.
struct MD5_CTX {
  std::array<std::uint32_t, 4> state;    // A, B, C, D
  std::array<std::uint32_t, 2> count;    // bits taken so far: low word, high word
  std::array<unsigned char, 64> buffer;  // the input bytes of the block not yet complete
};

class CMd5 {
 public:
  virtual ~CMd5() = default;

  // Writes the MD5 of the `length` bytes at `data` to the 16 bytes at `digest` (raw bytes).
  // Returns 1, or 0 (and writes nothing) when `data` or `digest` is null.
  static int MDString(const unsigned char* data, unsigned int length, unsigned char* digest);

  // Starts a digest in `context`, whatever it held.
  static void MD5Init(MD5_CTX* context);

  // Takes the next `length` bytes of `input`; a length of 0 takes nothing, also from null.
  static void MD5Update(MD5_CTX* context, const unsigned char* input, unsigned int length);

  // Ends the digest, writes its 16 bytes to `digest` and wipes `context`.
  static void MD5Final(unsigned char* digest, MD5_CTX* context);

 private:
  // Takes one block of 64 bytes into the 4 words at `state`.
  static void MD5Transform(std::uint32_t* state, const unsigned char* block);

  // Writes the words at `input` as `length` bytes, low-order byte first; `length` is a multiple of 4.
  static void Encode(unsigned char* output, const std::uint32_t* input, unsigned int length);

  // Reads `length` bytes as words, low-order byte first; `length` is a multiple of 4.
  static void Decode(std::uint32_t* output, const unsigned char* input, unsigned int length);

  // Copies `length` bytes; the buffers do not overlap.
  static void MD5_memcpy(unsigned char* output, const unsigned char* input, unsigned int length);

  // Sets `length` bytes to `value`.
  static void MD5_memset(unsigned char* output, int value, unsigned int length);
};
