#include "otp/Hmac_fnv.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <string>
#include <type_traits>

namespace {

const std::string kKey = "foo";
const std::array<unsigned char, 3> kData{'b', 'a', 'r'};

// FNV-1a of "foobar", as its authors publish it.
constexpr std::uint32_t kHash = 0xbf9cf968U;

std::uint32_t number(int digits) { return CHmac_fnv::encrypt(kKey.data(), kData.data(), 3, 3, digits); }

std::string text(int digits) {
  std::string out(static_cast<std::size_t>(digits > 0 ? digits : 0) + 1, 'x');
  EXPECT_EQ(CHmac_fnv::encrypt(kKey.data(), kData.data(), 3, 3, digits, out.data()), 1);
  EXPECT_EQ(out.back(), '\0');
  out.pop_back();
  return out;
}

}  // namespace

TEST(HmacFnv, TextFormRefusesANullBuffer) {
  EXPECT_EQ(CHmac_fnv::encrypt(kKey.data(), kData.data(), 3, 3, 6, nullptr), 0);
}

TEST(HmacFnv, GivesThePublishedHashes) {
  EXPECT_EQ(CHmac_fnv::fnv_32a_buf("", 0, 0x811c9dc5U), 0x811c9dc5U);
  EXPECT_EQ(CHmac_fnv::fnv_32a_buf("a", 1, 0x811c9dc5U), 0xe40c292cU);
  EXPECT_EQ(CHmac_fnv::fnv_32a_buf("foobar", 6, 0x811c9dc5U), kHash);
}

TEST(HmacFnv, ContinuesAHash) {
  const std::uint32_t first = CHmac_fnv::fnv_32a_buf("foo", 3, 0x811c9dc5U);
  EXPECT_EQ(CHmac_fnv::fnv_32a_buf("bar", 3, first), kHash);
}

TEST(HmacFnv, TakesBytesAbove127AsUnsigned) {
  const unsigned char byte = 0xFF;
  EXPECT_EQ(CHmac_fnv::fnv_32a_buf(&byte, 1, 0x811c9dc5U), (0x811c9dc5U ^ 0xFFU) * 16777619U);
}

TEST(HmacFnv, NullCountsAsEmpty) {
  EXPECT_EQ(CHmac_fnv::fnv_32a_buf(nullptr, 5, 7), 7U);
  EXPECT_EQ(CHmac_fnv::encrypt(nullptr, nullptr, 5, 5, 32), 0x811c9dc5U);
}

TEST(HmacFnv, ReducesModuloAPowerOfTen) {
  EXPECT_EQ(number(6), kHash % 1000000U);
  EXPECT_EQ(number(9), kHash % 1000000000U);
}

TEST(HmacFnv, TenDigitsUseTheWrappedModulus) { EXPECT_EQ(number(10), kHash % 1410065408U); }

TEST(HmacFnv, ThirtyOneDigitsStillReduce) { EXPECT_EQ(number(31), kHash % 0x80000000U); }

TEST(HmacFnv, AModulusThatWrapsToZeroLeavesTheHashUnreduced) {
  EXPECT_EQ(number(32), kHash);
  EXPECT_EQ(number(33), kHash);
  EXPECT_EQ(number(INT_MAX), kHash);
}

TEST(HmacFnv, FewerThanOneDigitGivesZeroAndTheEmptyText) {
  for (const int digits : {0, -1, INT_MIN}) {
    EXPECT_EQ(number(digits), 0U);
    EXPECT_EQ(text(digits), "");
  }
}

TEST(HmacFnv, TextHasExactlyItsDigits) {
  EXPECT_EQ(text(1), std::to_string(kHash % 10U));
  EXPECT_EQ(text(6), std::to_string(kHash % 1000000U + 1000000U).substr(1));
  EXPECT_EQ(text(40), std::string(30, '0') + std::to_string(kHash));
}

TEST(HmacFnv, HasAVirtualDestructor) { EXPECT_TRUE(std::has_virtual_destructor_v<CHmac_fnv>); }
