#include "sync/Synpkg.h"

#include <string.h>

#include <algorithm>
#include <utility>

namespace {

constexpr int kFirstCapacity = 1024;
constexpr int kGrowth = 512;  // an attribute has at most 257 bytes, so one step is always enough
constexpr int kHeaderSize = 3;
constexpr int kAttributeHeaderSize = 2;
constexpr int kLongestPacket = 32767;  // the length is kept in a signed 16-bit number

unsigned char* zeroed_buffer(int capacity) { return new unsigned char[static_cast<std::size_t>(capacity) + 1]{}; }

void write_length(unsigned char* packet, int length) {
  packet[1] = static_cast<unsigned char>(length >> 8);
  packet[2] = static_cast<unsigned char>(length);
}

}  // namespace

CSynpkg::~CSynpkg() { release(); }

void CSynpkg::release() {
  if (packet == nullptr) return;
  explicit_bzero(packet, static_cast<std::size_t>(capacity));
  delete[] std::exchange(packet, nullptr);
}

void CSynpkg::grow(int used) {
  unsigned char* const larger = zeroed_buffer(capacity + kGrowth);
  std::copy_n(packet, used, larger);
  release();
  packet = larger;
  capacity += kGrowth;
}

void CSynpkg::initpkg(unsigned char code) {
  release();
  packet = zeroed_buffer(kFirstCapacity);
  capacity = kFirstCapacity;
  packet[0] = code;
  write_length(packet, kHeaderSize);
}

void CSynpkg::addattr(unsigned char type, unsigned char len, unsigned char* value) {
  const auto used = static_cast<short>(packet[1] << 8 | packet[2]);
  const int needed = used + len + kAttributeHeaderSize;
  if (needed > kLongestPacket) return;
  if (needed > capacity) grow(used);
  unsigned char* const attribute = packet + used;
  attribute[0] = type;
  // Deliberate: the length byte of a value of 254 or 255 bytes wraps to 0 or 1; the service adds none that long.
  attribute[1] = static_cast<unsigned char>(len + kAttributeHeaderSize);
  std::copy_n(value, len, attribute + kAttributeHeaderSize);
  write_length(packet, needed);
}
