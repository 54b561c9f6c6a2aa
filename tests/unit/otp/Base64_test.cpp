#include "otp/Base64.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <array>
#include <limits>
#include <random>
#include <string>

#include "unit/otp/random_bytes.h"
#include "unit/otp/vectors.h"

namespace {

using vectors::Bytes;
using vectors::bytes_of;

// Encodes into a buffer of exactly the needed size, so that a sanitizer sees every byte too many.
std::string encode(const Bytes& in) {
  Bytes out((in.size() + 2) / 3 * 4 + 1, 0x55);
  unsigned long length = out.size();
  EXPECT_EQ(CBase64::Encode(in.data(), in.size(), out.data(), &length), 1);
  EXPECT_EQ(length, out.size() - 1);
  EXPECT_EQ(out[length], 0);
  return {out.begin(), out.end() - 1};
}

// Decodes into `capacity` bytes; a refusal gives the one text "refused".
Bytes decode(const std::string& text, std::size_t capacity) {
  Bytes out(capacity, 0x55);
  const Bytes in = bytes_of(text);
  unsigned long length = capacity;
  if (CBase64::Decode(in.data(), in.size(), out.data(), &length) == 0) return bytes_of("refused");
  EXPECT_LE(length, capacity);
  out.resize(length);
  return out;
}

}  // namespace

TEST(Base64, EncodeRefusesNullPointersAndNoRoom) {
  const unsigned char in = 'M';
  std::array<unsigned char, 8> out{};
  unsigned long length = out.size();
  EXPECT_EQ(CBase64::Encode(&in, 1, nullptr, &length), 0);
  EXPECT_EQ(CBase64::Encode(&in, 1, out.data(), nullptr), 0);
  EXPECT_EQ(CBase64::Encode(nullptr, 1, out.data(), &length), 0);
  length = 0;
  EXPECT_EQ(CBase64::Encode(nullptr, 0, out.data(), &length), 0);
}

TEST(Base64, EncodeNeedsRoomForTheTextAndItsNul) {
  const std::array<unsigned char, 2> in{0x4D, 0x61};
  std::array<unsigned char, 5> out{'x'};
  unsigned long length = 4;
  EXPECT_EQ(CBase64::Encode(in.data(), in.size(), out.data(), &length), 0);
  EXPECT_EQ(length, 4U);
  EXPECT_EQ(out[0], 'x');
  length = 5;
  EXPECT_EQ(CBase64::Encode(in.data(), in.size(), out.data(), &length), 1);
  EXPECT_EQ(length, 4U);
  EXPECT_STREQ(reinterpret_cast<const char*>(out.data()), "TWE=");
}

TEST(Base64, EncodeRefusesLengthsWhoseTextHasNoLength) {
  const unsigned char in = 'M';
  std::array<unsigned char, 8> out{};
  for (const unsigned long huge : {0UL, 1UL, 2UL}) {
    unsigned long length = out.size();
    EXPECT_EQ(CBase64::Encode(&in, std::numeric_limits<unsigned long>::max() - huge, out.data(), &length), 0);
  }
}

TEST(Base64, EncodesATrailingByteWithTwoPads) { EXPECT_EQ(encode({0x4D}), "TQ=="); }

TEST(Base64, EncodesATrailingPairWithOnePad) { EXPECT_EQ(encode({0x4D, 0x61}), "TWE="); }

TEST(Base64, EncodesNothingAsTheEmptyText) {
  EXPECT_EQ(encode({}), "");
  std::array<unsigned char, 1> out{'x'};
  unsigned long length = 1;
  EXPECT_EQ(CBase64::Encode(nullptr, 0, out.data(), &length), 1);
  EXPECT_EQ(length, 0U);
  EXPECT_EQ(out[0], '\0');
}

TEST(Base64, GivesThePublishedTextsBothWays) {
  for (const auto& row : vectors::read("base64.txt", 7, 4)) {
    const Bytes bytes = vectors::from_hex(row[2]);
    const Bytes text = vectors::from_hex(row[3]);
    const std::string expected(text.begin(), text.end());
    EXPECT_EQ(encode(bytes), expected) << row[vectors::kName];
    EXPECT_EQ(decode(expected, bytes.size()), bytes) << row[vectors::kName];
  }
}

TEST(Base64, AgreesWithTheOracleBothWays) {
  std::mt19937 generator(3);
  for (int round = 0; round < 1000; ++round) {
    const Bytes bytes = random_input::bytes(generator, random_input::number(generator, 0, 200));
    std::string expected(300, '\0');
    expected.resize(static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(expected.data()),
                                                             bytes.data(), static_cast<int>(bytes.size()))));
    EXPECT_EQ(encode(bytes), expected);
    EXPECT_EQ(decode(expected, bytes.size()), bytes);
  }
}

TEST(Base64, DecodeRefusesNullPointers) {
  const Bytes in = bytes_of("TWE=");
  std::array<unsigned char, 8> out{};
  unsigned long length = out.size();
  EXPECT_EQ(CBase64::Decode(in.data(), in.size(), out.data(), nullptr), 0);
  EXPECT_EQ(CBase64::Decode(in.data(), in.size(), nullptr, &length), 0);
  EXPECT_EQ(CBase64::Decode(nullptr, 4, out.data(), &length), 0);
}

TEST(Base64, DecodeOfNothingGivesNothing) {
  unsigned long length = 8;
  EXPECT_EQ(CBase64::Decode(nullptr, 0, nullptr, &length), 1);
  EXPECT_EQ(length, 0U);
}

TEST(Base64, DecodeSkipsBytesOutsideTheAlphabet) {
  const Bytes expected{0x4D, 0x61};
  EXPECT_EQ(decode("TW E=", 2), expected);
  EXPECT_EQ(decode("\r\nT-W\xFF"
                   "E_=\n",
                   2),
            expected);
}

TEST(Base64, DecodeDropsAnIncompleteLastGroup) {
  EXPECT_EQ(decode("TWE", 8), Bytes{});
  EXPECT_EQ(decode("TWFuTWE", 8), bytes_of("Man"));
}

TEST(Base64, DecodeNeedsRoomForTheBytesOfTheGroup) {
  EXPECT_EQ(decode("TWFu", 2), bytes_of("refused"));
  EXPECT_EQ(decode("TWFu", 3), bytes_of("Man"));
  EXPECT_EQ(decode("TWFuTWFu", 5), bytes_of("refused"));
}

TEST(Base64, RefusedDecodeLeavesTheLengthAlone) {
  const Bytes in = bytes_of("TWFuTWFu");
  std::array<unsigned char, 5> out{};
  unsigned long length = out.size();
  EXPECT_EQ(CBase64::Decode(in.data(), in.size(), out.data(), &length), 0);
  EXPECT_EQ(length, 5U);
}

TEST(Base64, PadsLowerTheBytesOfEveryLaterGroup) {
  EXPECT_EQ(decode("TWE=TWFu", 8), bytes_of("MaMa"));
  EXPECT_EQ(decode("TQ==TWFu", 8), bytes_of("MM"));
}

TEST(Base64, AGroupOfPadsGivesOneByteAndNeedsRoomForIt) {
  EXPECT_EQ(decode("====", 1), Bytes{0});
  EXPECT_EQ(decode("====", 0), bytes_of("refused"));
  EXPECT_EQ(decode("T===TWFu", 2), (Bytes{0x4C, 0x4D}));
}

TEST(Base64, DecodeNeverWritesBeyondTheCapacity) {
  for (std::size_t capacity = 0; capacity < 8; ++capacity) {
    EXPECT_EQ(decode(std::string(64, '='), capacity), bytes_of("refused"));
  }
  EXPECT_EQ(decode(std::string(64, '='), 16), Bytes(16, 0));
}

TEST(Base64, DecodeOfAnyBytesStaysInsideTheBuffer) {
  std::mt19937 generator(4);
  const std::string symbols = "ABCDxyz0189+/===\n ";
  for (int round = 0; round < 2000; ++round) {
    std::string text(random_input::number(generator, 0, 60), 'A');
    for (auto& c : text) c = symbols[random_input::number(generator, 0, symbols.size() - 1)];
    (void)decode(text, random_input::number(generator, 0, 45));
  }
}
