// 32-bit numbers as four bytes, most significant byte first.
//
// Threads  No state.
// Memory   Works on the caller's buffers; allocates nothing.
#pragma once

#include <cstdint>

namespace zelvan {

// Reads the 4 bytes at `in`.
inline std::uint32_t load_u32(const unsigned char* in) {
  return std::uint32_t{in[0]} << 24U | std::uint32_t{in[1]} << 16U | std::uint32_t{in[2]} << 8U | in[3];
}

// Writes `value` to the 4 bytes at `out`.
inline void store_u32(unsigned char* out, std::uint32_t value) {
  out[0] = static_cast<unsigned char>(value >> 24U);
  out[1] = static_cast<unsigned char>(value >> 16U);
  out[2] = static_cast<unsigned char>(value >> 8U);
  out[3] = static_cast<unsigned char>(value);
}

}  // namespace zelvan
