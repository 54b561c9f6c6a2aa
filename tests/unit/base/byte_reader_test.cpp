#include "base/byte_reader.h"

#include <gtest/gtest.h>

#include <array>

using zelvan::ByteReader;

TEST(ByteReader, ReadsBytesAndBigEndianNumbersInOrder) {
  const std::array<unsigned char, 5> bytes{1, 0x12, 0x34, 7, 8};
  ByteReader reader(bytes);
  EXPECT_EQ(reader.u8(), 1);
  EXPECT_EQ(reader.u16(), 0x1234);
  const auto rest = reader.take(2);
  ASSERT_EQ(rest.size(), 2U);
  EXPECT_EQ(rest[1], 8);
  EXPECT_TRUE(reader.ok());
  EXPECT_EQ(reader.left(), 0U);
}

TEST(ByteReader, ReadPastTheEndFailsForGood) {
  const std::array<unsigned char, 2> bytes{1, 2};
  ByteReader reader(bytes);
  EXPECT_TRUE(reader.take(3).empty());
  EXPECT_FALSE(reader.ok());
  EXPECT_EQ(reader.u8(), 0);
  EXPECT_EQ(reader.u16(), 0);
  EXPECT_EQ(reader.left(), 0U);
}

TEST(ByteReader, TakingNothingAtTheEndIsNoFailure) {
  ByteReader reader({});
  EXPECT_TRUE(reader.take(0).empty());
  EXPECT_TRUE(reader.ok());
}
