// The work item: one heap block per datagram, from the receive loop through a worker to the sender.
//
//   offset  size  content
//   0       1     client's UDP port, low-order byte
//   1       1     client's UDP port, high-order byte
//   2       4     client's IPv4 address, network order
//   6       n     the datagram, n >= 256; the reply is written over it
//
// This file is the only place that knows these offsets.
//
// Threads  An item belongs to one thread at a time; queues hand it on as an untyped pointer.
// Memory   Allocated with array new.  A view borrows the block; WorkItem owns it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace zelvan {

// Owns a work item.  Handing it to a queue is `release()`; taking it from one is constructing this from the pointer.
using WorkItem = std::unique_ptr<unsigned char[]>;

// The data area is never smaller, so that every reply fits over every request.
inline constexpr std::size_t kSmallestDataArea = 256;

// Reads and writes the fields of a work item.  The block must outlive the view.
class WorkItemView {
 public:
  explicit WorkItemView(unsigned char* item) : item_(item) {}

  // The client's UDP port in host order.
  [[nodiscard]] std::uint16_t port() const { return big_endian(item_[1], item_[0]); }

  // Bytes 0 and 1 in the order they lie: good for telling ports apart, and for nothing else.
  [[nodiscard]] std::uint16_t port_key() const { return big_endian(item_[0], item_[1]); }

  // The client's IPv4 address, network order.
  [[nodiscard]] std::span<const unsigned char, 4> address() const {
    return std::span<const unsigned char, 4>(item_ + kAddressOffset, 4);
  }

  // The RADIUS packet, at least kSmallestDataArea bytes.
  [[nodiscard]] unsigned char* packet() const { return item_ + kPacketOffset; }

  // The Identifier of the packet (RFC 2865 section 3).
  [[nodiscard]] std::uint8_t identifier() const { return packet()[1]; }

  // The Length field of the packet, which counts its header (RFC 2865 section 3).
  [[nodiscard]] std::uint16_t packet_length() const { return big_endian(packet()[2], packet()[3]); }

  // Makes an item for a datagram whose data area holds `data`.
  //   port     UDP port in host order
  //   address  IPv4 address, network order
  //   data     at least kSmallestDataArea bytes: the datagram and, when it is shorter, bytes to fill up with
  [[nodiscard]] static WorkItem make(std::uint16_t port, std::span<const unsigned char, 4> address,
                                     std::span<const unsigned char> data) {
    auto item = std::make_unique<unsigned char[]>(kPacketOffset + std::max(data.size(), kSmallestDataArea));
    item[0] = static_cast<unsigned char>(port & 0xFFU);
    item[1] = static_cast<unsigned char>(port >> 8U);
    std::ranges::copy(address, item.get() + kAddressOffset);
    std::ranges::copy(data, item.get() + kPacketOffset);
    return item;
  }

 private:
  static constexpr std::size_t kAddressOffset = 2;
  static constexpr std::size_t kPacketOffset = 6;

  static constexpr std::uint16_t big_endian(unsigned char high, unsigned char low) {
    return static_cast<std::uint16_t>(high << 8U | low);
  }

  unsigned char* item_;
};

}  // namespace zelvan
