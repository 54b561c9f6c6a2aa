// Numbers as the token columns and the moving factor hold them: decimal text and 8-byte counters.
//
// A counter here is the moving factor of a one-time password: 8 bytes, most significant byte first.
//
// Source   RFC 4226 section 5.1 (moving factor).
// Threads  No state: any thread may call any function.
// Memory   Works on the caller's buffers; allocates nothing.
#pragma once

#include <cstddef>
#include <cstdint>

// Reads the NUL-terminated decimal `text`, modulo 2^32.
// No sign, no check for digits, no overflow detection: every character counts as its code minus 48.
// Returns the number; 0 for the empty text and for null.
std::uint32_t atou32(const char* text);

// Adds one to the 8 bytes at `counter` in place.  Eight 0xFF bytes become eight zero bytes.
void textadd(unsigned char* counter);

// Returns 1 on a little-endian host, 0 otherwise.
int is_little_endian();

namespace zelvan {

// Bytes of a moving factor.
inline constexpr std::size_t kCounterSize = 8;

// Adds `steps` to the 8 bytes at `counter` in place: the result of that many textadd calls, wrap included, at the
// cost of one addition.
void add_to_counter(unsigned char* counter, std::uint64_t steps);

// Writes high * 2^32 + low to the 8 bytes at `counter`.
void store_counter(unsigned char* counter, std::uint32_t high, std::uint32_t low);

// Reads the 8 bytes at `counter`: the first four into `high`, the last four into `low`.
void load_counter(const unsigned char* counter, std::uint32_t& high, std::uint32_t& low);

// Writes `value` as exactly `digits` decimal characters with leading zeros, and a terminating NUL.
//   out     digits + 1 bytes, the NUL counted
//   digits  0 and below give the empty text; a longer number loses its leading digits
void write_decimal(char* out, int digits, std::uint32_t value);

}  // namespace zelvan
