#include "sync/Synpkg.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

namespace {

using Packet = std::vector<unsigned char>;

std::size_t length_of(const CSynpkg& package) {
  return static_cast<std::size_t>(package.packet[1] << 8 | package.packet[2]);
}

Packet bytes(const CSynpkg& package) { return {package.packet, package.packet + length_of(package)}; }

void add(CSynpkg& package, unsigned char type, std::size_t size, unsigned char fill = 0xAB) {
  Packet value(size, fill);
  package.addattr(type, static_cast<unsigned char>(size), value.data());
}

// A packet of exactly `size` bytes, attributes of type 1 only.
void fill_to(CSynpkg& package, std::size_t size) {
  package.initpkg(2);
  while (length_of(package) < size) {
    const std::size_t missing = size - length_of(package);
    add(package, 1, missing <= 202 ? missing - 2 : std::min<std::size_t>(200, missing - 4));
  }
}

}  // namespace

TEST(Synpkg, HasNoBufferBeforeTheFirstPacket) {
  const CSynpkg package;
  EXPECT_EQ(package.packet, nullptr);
  EXPECT_EQ(package.capacity, 0);
}

TEST(Synpkg, PacketWithoutAttributesHasThreeBytes) {
  CSynpkg package;
  package.initpkg(3);
  EXPECT_EQ(bytes(package), (Packet{3, 0, 3}));
  EXPECT_EQ(package.capacity, 1024);
}

TEST(Synpkg, FreshBufferIsZeroBeyondTheHeader) {
  CSynpkg package;
  package.initpkg(2);
  for (int i = 3; i <= package.capacity; ++i) ASSERT_EQ(package.packet[i], 0) << i;
}

TEST(Synpkg, AttributeOfLengthZeroIsItsHeader) {
  CSynpkg package;
  package.initpkg(2);
  package.addattr(10, 0, nullptr);
  EXPECT_EQ(bytes(package), (Packet{2, 0, 5, 10, 2}));
}

TEST(Synpkg, AttributesStandBackToBackInTheOrderOfTheCalls) {
  CSynpkg package;
  package.initpkg(2);
  add(package, 9, 2, 0x41);
  add(package, 4, 1, 6);
  EXPECT_EQ(bytes(package), (Packet{2, 0, 10, 9, 4, 0x41, 0x41, 4, 3, 6}));
}

TEST(Synpkg, LengthIsWrittenBigEndian) {
  CSynpkg package;
  fill_to(package, 0x0123);
  EXPECT_EQ(package.packet[1], 0x01);
  EXPECT_EQ(package.packet[2], 0x23);
}

TEST(Synpkg, SecondInitpkgDiscardsTheFirstPacketAndItsSize) {
  CSynpkg package;
  fill_to(package, 1200);
  package.initpkg(4);
  EXPECT_EQ(bytes(package), (Packet{4, 0, 3}));
  EXPECT_EQ(package.capacity, 1024);
  EXPECT_EQ(package.packet[3], 0);
}

TEST(Synpkg, PacketThatEndsOneByteBelowTheCapacityDoesNotGrow) {
  CSynpkg package;
  fill_to(package, 1023);
  EXPECT_EQ(package.capacity, 1024);
}

TEST(Synpkg, PacketThatEndsAtTheCapacityDoesNotGrow) {
  CSynpkg package;
  fill_to(package, 1024);
  EXPECT_EQ(length_of(package), 1024U);
  EXPECT_EQ(package.capacity, 1024);
}

TEST(Synpkg, PacketThatEndsOneByteBeyondTheCapacityGrowsByOneStep) {
  CSynpkg package;
  fill_to(package, 1025);
  EXPECT_EQ(length_of(package), 1025U);
  EXPECT_EQ(package.capacity, 1536);
}

TEST(Synpkg, GrowingKeepsWhatWasThere) {
  CSynpkg package;
  fill_to(package, 1024);
  const Packet before = bytes(package);
  add(package, 7, 253, 0x5A);
  ASSERT_EQ(length_of(package), 1024U + 255U);
  const Packet after = bytes(package);
  EXPECT_TRUE(std::equal(before.begin() + 3, before.end(), after.begin() + 3));
  EXPECT_EQ(after[1024], 7);
  EXPECT_EQ(after[1025], 255);
  EXPECT_EQ(after.back(), 0x5A);
}

TEST(Synpkg, GrowsAsOftenAsItTakes) {
  CSynpkg package;
  fill_to(package, 4000);
  EXPECT_EQ(package.capacity, 1024 + 6 * 512);
  EXPECT_EQ(length_of(package), 4000U);
}

TEST(Synpkg, LongestValueWithAnHonestLengthByteHas253Bytes) {
  CSynpkg package;
  package.initpkg(2);
  add(package, 1, 253);
  EXPECT_EQ(package.packet[4], 255);
  EXPECT_EQ(length_of(package), 258U);
}

TEST(Synpkg, LengthByteOf254BytesWrapsToZero) {
  CSynpkg package;
  package.initpkg(2);
  add(package, 1, 254);
  EXPECT_EQ(package.packet[4], 0);
  EXPECT_EQ(length_of(package), 259U);
}

TEST(Synpkg, LengthByteOf255BytesWrapsToOne) {
  CSynpkg package;
  package.initpkg(2);
  add(package, 1, 255);
  EXPECT_EQ(package.packet[4], 1);
  EXPECT_EQ(length_of(package), 260U);
}

TEST(Synpkg, AttributeBeyondTheLongestPacketIsLeftOut) {
  CSynpkg package;
  fill_to(package, 32767);
  ASSERT_EQ(length_of(package), 32767U);
  add(package, 1, 0);
  add(package, 1, 255);
  EXPECT_EQ(length_of(package), 32767U);
}
