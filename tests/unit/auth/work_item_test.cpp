#include "auth/work_item.h"

#include <gtest/gtest.h>

#include <array>

using zelvan::WorkItemView;

namespace {

constexpr std::array<unsigned char, 4> kClient{10, 0, 0, 7};

std::array<unsigned char, 300> data() {
  std::array<unsigned char, 300> bytes{};
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i);
  return bytes;
}

}  // namespace

TEST(WorkItem, HoldsPortLowByteFirstThenAddressThenPacket) {
  const auto bytes = data();
  const auto item = WorkItemView::make(0x1234, kClient, bytes);
  EXPECT_EQ(item[0], 0x34);
  EXPECT_EQ(item[1], 0x12);
  EXPECT_EQ(item[2], 10);
  EXPECT_EQ(item[5], 7);
  for (std::size_t i = 0; i < bytes.size(); ++i) ASSERT_EQ(item[6 + i], bytes[i]);
}

TEST(WorkItem, ViewReadsWhatWasWritten) {
  const auto bytes = data();
  const auto item = WorkItemView::make(1645, kClient, bytes);
  const WorkItemView view(item.get());
  EXPECT_EQ(view.port(), 1645);
  EXPECT_TRUE(std::ranges::equal(view.address(), kClient));
  EXPECT_EQ(view.packet(), item.get() + 6);
  EXPECT_EQ(view.identifier(), 1);
  EXPECT_EQ(view.packet_length(), 2 * 256 + 3);
}

TEST(WorkItem, PortKeyTakesTheBytesAsTheyLie) {
  const auto item = WorkItemView::make(0x1234, kClient, data());
  EXPECT_EQ(WorkItemView(item.get()).port_key(), 0x3412);
}

TEST(WorkItem, DataAreaIsNeverSmallerThanAReply) {
  const std::array<unsigned char, 20> bytes{1};
  const auto item = WorkItemView::make(1, kClient, bytes);
  unsigned char* last = WorkItemView(item.get()).packet() + zelvan::kSmallestDataArea - 1;
  EXPECT_EQ(*last, 0);
  *last = 1;  // the address sanitizer objects when the block is too small
}
