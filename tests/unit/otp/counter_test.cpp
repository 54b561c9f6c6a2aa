#include "otp/counter.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <random>
#include <string>

namespace {

using Counter = std::array<unsigned char, zelvan::kCounterSize>;

Counter counter_of(std::uint64_t value) {
  Counter counter;
  for (std::size_t i = 0; i < counter.size(); ++i) counter[i] = static_cast<unsigned char>(value >> (56 - 8 * i));
  return counter;
}

Counter after_textadd(std::uint64_t value) {
  Counter counter = counter_of(value);
  textadd(counter.data());
  return counter;
}

Counter after_addition(std::uint64_t value, std::uint64_t steps) {
  Counter counter = counter_of(value);
  zelvan::add_to_counter(counter.data(), steps);
  return counter;
}

std::string decimal(int digits, std::uint32_t value) {
  std::string out(static_cast<std::size_t>(digits > 0 ? digits : 0) + 1, 'x');
  zelvan::write_decimal(out.data(), digits, value);
  EXPECT_EQ(out.back(), '\0');
  out.pop_back();
  return out;
}

}  // namespace

TEST(Counter, Atou32OfNothingIsZero) {
  EXPECT_EQ(atou32(nullptr), 0U);
  EXPECT_EQ(atou32(""), 0U);
}

TEST(Counter, Atou32ReadsDecimalText) {
  EXPECT_EQ(atou32("0"), 0U);
  EXPECT_EQ(atou32("0042"), 42U);
  EXPECT_EQ(atou32("4294967295"), 4294967295U);
}

TEST(Counter, Atou32WrapsAtTwoToThe32) {
  EXPECT_EQ(atou32("4294967296"), 0U);
  EXPECT_EQ(atou32("4294967297"), 1U);
}

TEST(Counter, Atou32TakesEveryCharacterAsADigit) {
  EXPECT_EQ(atou32("-1"), static_cast<std::uint32_t>(('-' - 48) * 10 + 1));
  EXPECT_EQ(atou32("A"), 17U);
  EXPECT_EQ(atou32(" 7"), static_cast<std::uint32_t>((' ' - 48) * 10 + 7));
}

TEST(Counter, TextaddAddsOne) {
  EXPECT_EQ(after_textadd(0), counter_of(1));
  EXPECT_EQ(after_textadd(0xFE), counter_of(0xFF));
}

TEST(Counter, TextaddCarriesOverEveryByte) {
  EXPECT_EQ(after_textadd(0xFF), counter_of(0x100));
  for (unsigned int bits = 8; bits < 64; bits += 8) {
    const std::uint64_t power = std::uint64_t{1} << bits;
    EXPECT_EQ(after_textadd(power - 1), counter_of(power)) << bits;
  }
}

TEST(Counter, TextaddCarriesOverTwoToThe32) {
  EXPECT_EQ(after_textadd(0x00000007FFFFFFFFULL), counter_of(0x0000000800000000ULL));
}

TEST(Counter, TextaddWrapsToZero) { EXPECT_EQ(after_textadd(~std::uint64_t{0}), counter_of(0)); }

TEST(Counter, TextaddTouchesEightBytesOnly) {
  std::array<unsigned char, 10> bytes;
  bytes.fill(0xFF);
  textadd(bytes.data() + 1);
  EXPECT_EQ(bytes.front(), 0xFF);
  EXPECT_EQ(bytes.back(), 0xFF);
}

TEST(Counter, AdditionOfNothingChangesNothing) {
  EXPECT_EQ(after_addition(0x0123456789ABCDEFULL, 0), counter_of(0x0123456789ABCDEFULL));
}

TEST(Counter, AdditionCarriesOverTwoToThe32AndWraps) {
  EXPECT_EQ(after_addition(0xFFFFFFFFULL, 2), counter_of(0x100000001ULL));
  EXPECT_EQ(after_addition(~std::uint64_t{0}, 1), counter_of(0));
  EXPECT_EQ(after_addition(~std::uint64_t{0}, ~std::uint64_t{0}), counter_of(~std::uint64_t{1}));
}

TEST(Counter, AdditionEqualsAsManyTextadds) {
  std::mt19937_64 generator(5);
  for (int round = 0; round < 500; ++round) {
    // Half of the starts lie just below a carry into the high word or the wrap.
    const std::uint64_t random = generator();
    const std::uint64_t low = (random & 0xFFFFFFFF00000000ULL) | (0xFFFFFFFFULL - random % 500);
    const std::uint64_t starts[] = {random, low, ~std::uint64_t{0} - random % 500};
    const std::uint64_t start = starts[round % 3];
    const std::uint64_t steps = generator() % 1000;
    Counter expected = counter_of(start);
    for (std::uint64_t i = 0; i < steps; ++i) textadd(expected.data());
    EXPECT_EQ(after_addition(start, steps), expected) << start << " + " << steps;
  }
}

TEST(Counter, StoreWritesBothWordsMostSignificantByteFirst) {
  Counter counter;
  zelvan::store_counter(counter.data(), 0x01020304U, 0xF5F6F7F8U);
  EXPECT_EQ(counter, (Counter{1, 2, 3, 4, 0xF5, 0xF6, 0xF7, 0xF8}));
}

TEST(Counter, LoadReadsBothWordsMostSignificantByteFirst) {
  const Counter counter{1, 2, 3, 4, 0xF5, 0xF6, 0xF7, 0xF8};
  std::uint32_t high = 0;
  std::uint32_t low = 0;
  zelvan::load_counter(counter.data(), high, low);
  EXPECT_EQ(high, 0x01020304U);
  EXPECT_EQ(low, 0xF5F6F7F8U);
}

TEST(Counter, ByteOrderProbeKnowsTheHost) {
  EXPECT_EQ(is_little_endian(), std::endian::native == std::endian::little ? 1 : 0);
}

TEST(Counter, DecimalHasExactlyItsDigits) {
  EXPECT_EQ(decimal(6, 42), "000042");
  EXPECT_EQ(decimal(10, 4294967295U), "4294967295");
  EXPECT_EQ(decimal(12, 4294967295U), "004294967295");
  EXPECT_EQ(decimal(2, 12345), "45");
}

TEST(Counter, DecimalOfNoDigitsIsEmpty) {
  EXPECT_EQ(decimal(0, 7), "");
  EXPECT_EQ(decimal(-3, 7), "");
}
