// A cursor over bytes that came from the network.
//
// Every read is checked against the end.  The first one that would run past it makes the reader fail for good and
// yields zeros, so a parser may read a whole header and test once.
//
// Threads  Each reader belongs to one thread.
// Memory   Borrows the bytes; they must outlive the reader and the spans that it hands out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace zelvan {

class ByteReader {
 public:
  explicit ByteReader(std::span<const unsigned char> bytes) : rest_(bytes) {}

  // True until a read has run past the end.
  [[nodiscard]] bool ok() const { return ok_; }

  // Bytes not read yet.
  [[nodiscard]] std::size_t left() const { return rest_.size(); }

  // Reads one byte; 0 once the reader has failed.
  std::uint8_t u8() {
    const auto bytes = take(1);
    return bytes.empty() ? std::uint8_t{0} : bytes[0];
  }

  // Reads a 16-bit number, most significant byte first; 0 once the reader has failed.
  std::uint16_t u16() {
    const auto bytes = take(2);
    return bytes.empty() ? std::uint16_t{0} : static_cast<std::uint16_t>(bytes[0] << 8U | bytes[1]);
  }

  // Reads `count` bytes; an empty span once the reader has failed (and for a count of 0).
  std::span<const unsigned char> take(std::size_t count) {
    if (!ok_ || count > rest_.size()) {
      ok_ = false;
      rest_ = {};
      return {};
    }
    const auto bytes = rest_.first(count);
    rest_ = rest_.subspan(count);
    return bytes;
  }

 private:
  std::span<const unsigned char> rest_;
  bool ok_ = true;
};

}  // namespace zelvan
