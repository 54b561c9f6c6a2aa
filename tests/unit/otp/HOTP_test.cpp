#include "otp/HOTP.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>
#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <type_traits>

#include "otp/counter.h"
#include "unit/otp/random_bytes.h"
#include "unit/otp/vectors.h"

namespace {

using vectors::Bytes;

const std::string kRfcKey = "12345678901234567890";
const Bytes kZeroCounter(8, 0);

Bytes sha1(const Bytes& message) {
  SHA1_CTX context;
  QENT_HOTP::SHA1Init(&context);
  QENT_HOTP::SHA1Update(&context, message.data(), message.size());
  Bytes digest(20);
  QENT_HOTP::SHA1Final(digest.data(), &context);
  return digest;
}

Bytes sha1_oracle(const Bytes& message) {
  Bytes digest(20);
  EXPECT_EQ(EVP_Digest(message.data(), message.size(), digest.data(), nullptr, EVP_sha1(), nullptr), 1);
  return digest;
}

Bytes hmac_oracle(const Bytes& key, const Bytes& message) {
  Bytes mac(20);
  EXPECT_NE(
      HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), message.data(), message.size(), mac.data(), nullptr),
      nullptr);
  return mac;
}

// RFC 2104 as it is written there, over the SHA-1 under test.
Bytes hmac_by_definition(Bytes key, const Bytes& message) {
  if (key.size() > 64) key = sha1(key);
  key.resize(64, 0);
  Bytes inner;
  Bytes outer;
  for (const unsigned char byte : key) {
    inner.push_back(byte ^ 0x36U);
    outer.push_back(byte ^ 0x5CU);
  }
  inner.insert(inner.end(), message.begin(), message.end());
  const Bytes digest = sha1(inner);
  outer.insert(outer.end(), digest.begin(), digest.end());
  return sha1(outer);
}

std::uint32_t truncated_oracle(const Bytes& mac) {
  const std::size_t offset = mac[19] % 16U;
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) value = value * 256U + mac[offset + i];
  return static_cast<std::uint32_t>(value % 0x80000000U);
}

std::string text_of(std::uint32_t truncated, std::size_t digits) {
  constexpr std::uint64_t kModulus[] = {1000000, 10000000, 100000000, 1000000000, 1410065408};
  const std::string number = std::to_string(truncated % kModulus[digits - 6]);
  return std::string(digits - number.size(), '0') + number;
}

// The code of a key that is copied into a buffer of its own; "refused" when there is none.
std::string code(const std::string& key, const Bytes& counter, int digits) {
  Bytes buffer = vectors::bytes_of(key);
  buffer.push_back(0);
  std::string out(static_cast<std::size_t>(digits) + 1, 'x');
  QENT_HOTP hotp;
  if (!hotp.hotp_generate(reinterpret_cast<char*>(buffer.data()), 0, counter.data(), digits, out.data())) {
    return "refused";
  }
  EXPECT_EQ(out.back(), '\0');
  out.pop_back();
  return out;
}

// A mac whose truncation is `value`, found at `offset`.
Bytes mac_with(std::uint32_t value, unsigned char offset) {
  Bytes mac(20, 0xA5);
  mac[19] = static_cast<unsigned char>(0xF0U | offset);
  for (std::size_t i = 0; i < 4; ++i) mac[offset + i] = static_cast<unsigned char>(value >> (24 - 8 * i));
  return mac;
}

}  // namespace

TEST(HOTP, NullPointersAreRefused) {
  QENT_HOTP hotp;
  std::array<char, 11> out{'x'};
  EXPECT_FALSE(hotp.hotp_generate(kRfcKey.c_str(), 20, kZeroCounter.data(), 6, nullptr));
  EXPECT_FALSE(hotp.hotp_generate(nullptr, 20, kZeroCounter.data(), 6, out.data()));
  EXPECT_FALSE(hotp.hotp_generate(kRfcKey.c_str(), 20, nullptr, 6, out.data()));
  EXPECT_EQ(out[0], 'x');
  EXPECT_EQ(hotp.hotp_generate(nullptr, kZeroCounter.data()), 0U);
  EXPECT_EQ(hotp.hotp_generate(kRfcKey.c_str(), nullptr), 0U);
  EXPECT_EQ(hotp.hotp_generate(nullptr, 20, kZeroCounter.data()), 0U);
}

TEST(HOTP, OtherThanSixToTenDigitsAreRefusedAndLeaveTheBufferAlone) {
  QENT_HOTP hotp;
  for (const int digits : {INT_MIN, -1, 0, 1, 2, 3, 4, 5, 11, 12, INT_MAX}) {
    std::array<char, 16> out;
    out.fill('x');
    EXPECT_FALSE(hotp.hotp_generate(kRfcKey.c_str(), 20, kZeroCounter.data(), digits, out.data())) << digits;
    for (const char c : out) EXPECT_EQ(c, 'x') << digits;
  }
}

TEST(HOTP, Sha1GivesThePublishedDigests) {
  for (const auto& row : vectors::read("sha1.txt", 2, 4)) {
    EXPECT_EQ(sha1(vectors::from_hex(row[2])), vectors::from_hex(row[3])) << row[vectors::kName];
  }
}

TEST(HOTP, Sha1OfAMillionLettersIsThePublishedDigest) {
  // FIPS 180-1 appendix C.
  EXPECT_EQ(sha1(Bytes(1000000, 'a')), vectors::from_hex("34aa973cd4c4daa4f61eeb2bdbad27316534016f"));
}

TEST(HOTP, Sha1AgreesWithTheOracleAtEveryLength) {
  std::mt19937 generator(6);
  for (std::size_t length = 0; length <= 200; ++length) {
    const Bytes message = random_input::bytes(generator, length);
    EXPECT_EQ(sha1(message), sha1_oracle(message)) << length;
  }
}

TEST(HOTP, Sha1UpdatesMayCutTheInputAnywhere) {
  std::mt19937 generator(7);
  for (int round = 0; round < 500; ++round) {
    const Bytes message = random_input::bytes(generator, random_input::number(generator, 0, 200));
    SHA1_CTX context;
    QENT_HOTP::SHA1Init(&context);
    random_input::in_pieces(generator, message.size(), [&](std::size_t offset, std::size_t length) {
      QENT_HOTP::SHA1Update(&context, message.data() + offset, length);
    });
    Bytes digest(20);
    QENT_HOTP::SHA1Final(digest.data(), &context);
    EXPECT_EQ(digest, sha1_oracle(message));
  }
}

TEST(HOTP, Sha1BitCountCarriesIntoItsHighWord) {
  SHA1_CTX context;
  QENT_HOTP::SHA1Init(&context);
  context.count = {0xFFFFFE00U, 0};  // 64 bytes, a whole block, short of 2^32 bits
  const std::array<unsigned char, 65> block{};
  QENT_HOTP::SHA1Update(&context, block.data(), block.size());
  EXPECT_EQ(context.count[0], 8U);
  EXPECT_EQ(context.count[1], 1U);
}

TEST(HOTP, Sha1FinalWipesTheContext) {
  SHA1_CTX context;
  QENT_HOTP::SHA1Init(&context);
  QENT_HOTP::SHA1Update(&context, vectors::bytes_of("secret").data(), 6);
  Bytes digest(20);
  QENT_HOTP::SHA1Final(digest.data(), &context);
  const SHA1_CTX wiped{};
  EXPECT_EQ(std::memcmp(&context, &wiped, sizeof context), 0);
}

TEST(HOTP, Sha1CarriesThePublishedMacs) {
  for (const auto& row : vectors::read("hmac_sha1.txt", 7, 5)) {
    EXPECT_EQ(hmac_by_definition(vectors::from_hex(row[2]), vectors::from_hex(row[3])), vectors::from_hex(row[4]))
        << row[vectors::kName];
  }
}

TEST(HOTP, GivesTheCodesOfThePublishedMacWithAnEightByteMessage) {
  // RFC 2202 section 3, case 1: its message has the length of a moving factor.
  const auto row = vectors::read("hmac_sha1.txt", 7, 5)[0];
  const Bytes key = vectors::from_hex(row[2]);
  const Bytes message = vectors::from_hex(row[3]);
  ASSERT_EQ(message.size(), 8U);
  const std::uint32_t truncated = truncated_oracle(vectors::from_hex(row[4]));
  for (int digits = 6; digits <= 10; ++digits) {
    EXPECT_EQ(code({key.begin(), key.end()}, message, digits), text_of(truncated, static_cast<std::size_t>(digits)));
  }
}

TEST(HOTP, GivesThePublishedCodesAndTheLongerOnesThatFollow) {
  for (const auto& row : vectors::read("hotp.txt", 10, 11)) {
    const Bytes key = vectors::from_hex(row[2]);
    const Bytes counter = vectors::from_hex(row[3]);
    for (int digits = 6; digits <= 10; ++digits) {
      EXPECT_EQ(code({key.begin(), key.end()}, counter, digits), row[static_cast<std::size_t>(digits)])
          << row[vectors::kName];
    }
  }
}

TEST(HOTP, GivesThePublishedIntermediateValues) {
  QENT_HOTP hotp;
  for (const auto& row : vectors::read("hotp.txt", 10, 11)) {
    const Bytes mac = vectors::from_hex(row[4]);
    EXPECT_EQ(hmac_by_definition(vectors::from_hex(row[2]), vectors::from_hex(row[3])), mac) << row[vectors::kName];
    EXPECT_EQ(std::to_string(hotp.truncate(mac.data(), 32)), row[5]) << row[vectors::kName];
    EXPECT_EQ(hotp.truncate(mac.data()), std::stoul(row[6])) << row[vectors::kName];
  }
}

TEST(HOTP, FormsThatReturnANumberGiveTheCodeOfSixDigits) {
  QENT_HOTP hotp;
  EXPECT_EQ(hotp.hotp_generate(kRfcKey.c_str(), kZeroCounter.data()), 755224U);
  EXPECT_EQ(hotp.hotp_generate(kRfcKey.c_str(), 20, kZeroCounter.data()), 755224U);
}

TEST(HOTP, KeyLengthIsIgnoredWhenTextIsWritten) {
  QENT_HOTP hotp;
  for (const unsigned long length : {0UL, 1UL, 20UL, ULONG_MAX}) {
    std::array<char, 7> out{};
    EXPECT_TRUE(hotp.hotp_generate(kRfcKey.c_str(), length, kZeroCounter.data(), 6, out.data()));
    EXPECT_STREQ(out.data(), "755224");
  }
}

TEST(HOTP, KeyLengthCountsWhenANumberIsReturned) {
  QENT_HOTP hotp;
  const std::string longer = kRfcKey + "more";
  EXPECT_EQ(hotp.hotp_generate(longer.c_str(), 20, kZeroCounter.data()), 755224U);
  EXPECT_NE(hotp.hotp_generate(longer.c_str(), 24, kZeroCounter.data()), 755224U);
}

TEST(HOTP, AZeroByteEndsTheTextKeyOnly) {
  QENT_HOTP hotp;
  const Bytes key{'a', 'b', 0, 'c'};
  const auto* text = reinterpret_cast<const char*>(key.data());
  const std::uint32_t whole = truncated_oracle(hmac_oracle(key, kZeroCounter)) % 1000000U;
  const std::uint32_t cut = truncated_oracle(hmac_oracle({'a', 'b'}, kZeroCounter)) % 1000000U;
  ASSERT_NE(whole, cut);
  EXPECT_EQ(hotp.hotp_generate(text, key.size(), kZeroCounter.data()), whole);
  EXPECT_EQ(hotp.hotp_generate(text, kZeroCounter.data()), cut);
}

TEST(HOTP, AKeyOfABlockIsUsedAsItIs) {
  std::string key(64, 'k');
  std::array<char, 7> out{};
  QENT_HOTP hotp;
  EXPECT_TRUE(hotp.hotp_generate(key.data(), 64, kZeroCounter.data(), 6, out.data()));
  EXPECT_EQ(key, std::string(64, 'k'));
  EXPECT_EQ(out.data(), text_of(truncated_oracle(hmac_oracle(vectors::bytes_of(key), kZeroCounter)), 6));
}

TEST(HOTP, ALongerKeyIsReplacedByItsDigest) {
  std::string key(65, 'k');
  const Bytes digest = sha1_oracle(vectors::bytes_of(key));
  const std::string expected = text_of(truncated_oracle(hmac_oracle(vectors::bytes_of(key), kZeroCounter)), 6);
  std::array<char, 7> out{};
  QENT_HOTP hotp;
  EXPECT_TRUE(hotp.hotp_generate(key.data(), 65, kZeroCounter.data(), 6, out.data()));
  EXPECT_EQ(out.data(), expected);
  EXPECT_EQ(key, std::string(digest.begin(), digest.end()) + std::string(45, 'k'));
}

TEST(HOTP, ALongerKeyIsReplacedAlsoWhenOneToFiveDigitsAreRefused) {
  std::array<char, 16> out{'x'};
  QENT_HOTP hotp;
  std::string key(65, 'k');
  EXPECT_FALSE(hotp.hotp_generate(key.data(), 65, kZeroCounter.data(), 5, out.data()));
  EXPECT_NE(key, std::string(65, 'k'));
  EXPECT_EQ(out[0], 'x');
}

TEST(HOTP, ALongerKeyStaysWhenTheDigitsAreOutOfTheWholeRange) {
  std::array<char, 16> out{};
  QENT_HOTP hotp;
  std::string key(65, 'k');
  EXPECT_FALSE(hotp.hotp_generate(key.data(), 65, kZeroCounter.data(), 11, out.data()));
  EXPECT_FALSE(hotp.hotp_generate(key.data(), 65, kZeroCounter.data(), 0, out.data()));
  EXPECT_EQ(key, std::string(65, 'k'));
}

TEST(HOTP, FormsThatReturnANumberLeaveALongerKeyAlone) {
  const std::string key(65, 'k');
  const std::uint32_t expected = truncated_oracle(hmac_oracle(vectors::bytes_of(key), kZeroCounter)) % 1000000U;
  QENT_HOTP hotp;
  EXPECT_EQ(hotp.hotp_generate(key.c_str(), kZeroCounter.data()), expected);
  EXPECT_EQ(hotp.hotp_generate(key.c_str(), 65, kZeroCounter.data()), expected);
  EXPECT_EQ(key, std::string(65, 'k'));
}

TEST(HOTP, TheEmptyKeyHasItsCode) {
  EXPECT_EQ(code("", kZeroCounter, 8), text_of(truncated_oracle(hmac_oracle({0}, kZeroCounter)), 8));
}

TEST(HOTP, AgreesWithTheOracleForAnyTextKey) {
  std::mt19937 generator(8);
  for (int round = 0; round < 1000; ++round) {
    const Bytes key = random_input::bytes(generator, random_input::number(generator, 1, 130), 1);
    const Bytes counter = random_input::bytes(generator, 8);
    const std::size_t digits = random_input::number(generator, 6, 10);
    const std::uint32_t truncated = truncated_oracle(hmac_oracle(key, counter));
    EXPECT_EQ(code({key.begin(), key.end()}, counter, static_cast<int>(digits)), text_of(truncated, digits));
  }
}

TEST(HOTP, AgreesWithTheOracleForAnyByteKey) {
  std::mt19937 generator(9);
  QENT_HOTP hotp;
  for (int round = 0; round < 1000; ++round) {
    const Bytes key = random_input::bytes(generator, random_input::number(generator, 1, 130));
    const Bytes counter = random_input::bytes(generator, 8);
    EXPECT_EQ(hotp.hotp_generate(reinterpret_cast<const char*>(key.data()), key.size(), counter.data()),
              truncated_oracle(hmac_oracle(key, counter)) % 1000000U);
  }
}

TEST(HOTP, TruncationReadsAtEveryOffset) {
  QENT_HOTP hotp;
  for (unsigned char offset = 0; offset < 16; ++offset) {
    const Bytes mac = mac_with(0x12345678U, offset);
    EXPECT_EQ(hotp.truncate(mac.data(), 9), 0x12345678U % 1000000000U) << int{offset};
    EXPECT_EQ(hotp.truncate(mac.data()), 0x12345678U % 1000000U) << int{offset};
  }
}

TEST(HOTP, TruncationDropsTheHighestBit) {
  QENT_HOTP hotp;
  EXPECT_EQ(hotp.truncate(mac_with(0xFFFFFFFFU, 3).data(), 32), 0x7FFFFFFFU);
}

TEST(HOTP, TenDigitsUseTheWrappedModulus) {
  QENT_HOTP hotp;
  EXPECT_EQ(hotp.truncate(mac_with(1500000000U, 0).data(), 10), 89934592U);
  EXPECT_EQ(hotp.truncate(mac_with(1410065407U, 0).data(), 10), 1410065407U);
  EXPECT_EQ(hotp.truncate(mac_with(1410065408U, 0).data(), 10), 0U);
}

TEST(HOTP, ACodeAboveTheWrappedModulusIsPaddedToTenCharacters) {
  // RFC 4226 appendix D, count 3: truncated 1726969429.
  Bytes counter(8, 0);
  counter[7] = 3;
  EXPECT_EQ(code(kRfcKey, counter, 10), "0316904021");
}

TEST(HOTP, TruncationTakesAnyNumberOfDigits) {
  QENT_HOTP hotp;
  const Bytes mac = mac_with(1234567890U, 0);
  EXPECT_EQ(hotp.truncate(mac.data(), INT_MIN), 0U);
  EXPECT_EQ(hotp.truncate(mac.data(), 0), 0U);
  EXPECT_EQ(hotp.truncate(mac.data(), 1), 0U);
  EXPECT_EQ(hotp.truncate(mac.data(), 2), 90U);
  EXPECT_EQ(hotp.truncate(mac.data(), 32), 1234567890U);
  EXPECT_EQ(hotp.truncate(mac.data(), INT_MAX), 1234567890U);
}

TEST(HOTP, OneObjectGivesCodeAfterCode) {
  QENT_HOTP hotp;
  Bytes counter(8, 0);
  std::array<char, 11> out{};
  EXPECT_TRUE(hotp.hotp_generate(kRfcKey.c_str(), 20, counter.data(), 10, out.data()));
  EXPECT_STREQ(out.data(), "1284755224");
  hotp.textadd(counter.data());
  EXPECT_TRUE(hotp.hotp_generate(kRfcKey.c_str(), 20, counter.data(), 6, out.data()));
  EXPECT_STREQ(out.data(), "287082");
}

TEST(HOTP, TextaddIsTheFreeFunction) {
  QENT_HOTP hotp;
  for (const unsigned int last : {0x00U, 0xFEU, 0xFFU}) {
    Bytes member(8, 0xFF);
    member[7] = static_cast<unsigned char>(last);
    Bytes free = member;
    hotp.textadd(member.data());
    textadd(free.data());
    EXPECT_EQ(member, free);
  }
}

TEST(HOTP, HasAVirtualDestructor) { EXPECT_TRUE(std::has_virtual_destructor_v<QENT_HOTP>); }
