// Repeatable random input for property tests.
#pragma once

#include <algorithm>
#include <cstddef>
#include <random>
#include <vector>

namespace random_input {

inline std::size_t number(std::mt19937& generator, std::size_t least, std::size_t most) {
  return std::uniform_int_distribution<std::size_t>(least, most)(generator);
}

inline std::vector<unsigned char> bytes(std::mt19937& generator, std::size_t length, unsigned char least = 0) {
  std::vector<unsigned char> result(length);
  for (auto& byte : result) byte = static_cast<unsigned char>(number(generator, least, 255));
  return result;
}

// Cuts `total` bytes into random pieces, in order, and hands each piece's offset and length to `take`.
template <typename Take>
void in_pieces(std::mt19937& generator, std::size_t total, Take take) {
  for (std::size_t offset = 0; offset < total;) {
    const std::size_t length = number(generator, 1, std::min<std::size_t>(total - offset, 70));
    take(offset, length);
    offset += length;
  }
}

}  // namespace random_input
