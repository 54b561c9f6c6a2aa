#include "otp/Md5.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <type_traits>

#include "unit/otp/random_bytes.h"
#include "unit/otp/vectors.h"

namespace {

using vectors::Bytes;

Bytes md5(const Bytes& message) {
  // A vector without elements may have no address, and null is refused.
  static const unsigned char nothing = 0;
  Bytes digest(16);
  const unsigned char* data = message.empty() ? &nothing : message.data();
  EXPECT_EQ(CMd5::MDString(data, static_cast<unsigned int>(message.size()), digest.data()), 1);
  return digest;
}

Bytes oracle(const Bytes& message) {
  Bytes digest(16);
  EXPECT_EQ(EVP_Digest(message.data(), message.size(), digest.data(), nullptr, EVP_md5(), nullptr), 1);
  return digest;
}

}  // namespace

TEST(Md5, NullDataIsRefusedAndWritesNothing) {
  std::array<unsigned char, 16> digest{};
  digest.fill(0x55);
  EXPECT_EQ(CMd5::MDString(nullptr, 0, digest.data()), 0);
  EXPECT_TRUE(std::all_of(digest.begin(), digest.end(), [](unsigned char byte) { return byte == 0x55; }));
}

TEST(Md5, NullDigestIsRefused) {
  const unsigned char byte = 'a';
  EXPECT_EQ(CMd5::MDString(&byte, 1, nullptr), 0);
}

TEST(Md5, GivesThePublishedDigests) {
  for (const auto& row : vectors::read("md5.txt", 7, 4)) {
    EXPECT_EQ(md5(vectors::from_hex(row[2])), vectors::from_hex(row[3])) << row[vectors::kName];
  }
}

TEST(Md5, AgreesWithTheOracleAtEveryLength) {
  std::mt19937 generator(1);
  for (std::size_t length = 0; length <= 200; ++length) {
    const Bytes message = random_input::bytes(generator, length);
    EXPECT_EQ(md5(message), oracle(message)) << length;
  }
}

TEST(Md5, UpdatesMayCutTheInputAnywhere) {
  std::mt19937 generator(2);
  for (int round = 0; round < 500; ++round) {
    const Bytes message = random_input::bytes(generator, random_input::number(generator, 0, 200));
    MD5_CTX context;
    CMd5::MD5Init(&context);
    random_input::in_pieces(generator, message.size(), [&](std::size_t offset, std::size_t length) {
      CMd5::MD5Update(&context, message.data() + offset, static_cast<unsigned int>(length));
    });
    Bytes digest(16);
    CMd5::MD5Final(digest.data(), &context);
    EXPECT_EQ(digest, oracle(message));
  }
}

TEST(Md5, UpdateWithNothingChangesNothing) {
  MD5_CTX context;
  CMd5::MD5Init(&context);
  CMd5::MD5Update(&context, nullptr, 0);
  Bytes digest(16);
  CMd5::MD5Final(digest.data(), &context);
  EXPECT_EQ(digest, vectors::from_hex("d41d8cd98f00b204e9800998ecf8427e"));
}

TEST(Md5, BitCountCarriesIntoItsHighWord) {
  MD5_CTX context;
  CMd5::MD5Init(&context);
  context.count = {0xFFFFFE00U, 0};  // 64 bytes, a whole block, short of 2^32 bits
  const std::array<unsigned char, 65> block{};
  CMd5::MD5Update(&context, block.data(), 65);
  EXPECT_EQ(context.count[0], 8U);
  EXPECT_EQ(context.count[1], 1U);
}

TEST(Md5, FinalWipesTheContext) {
  MD5_CTX context;
  const Bytes secret = vectors::bytes_of("shared secret");
  CMd5::MD5Init(&context);
  CMd5::MD5Update(&context, secret.data(), static_cast<unsigned int>(secret.size()));
  Bytes digest(16);
  CMd5::MD5Final(digest.data(), &context);
  const MD5_CTX wiped{};
  EXPECT_EQ(std::memcmp(&context, &wiped, sizeof context), 0);
}

TEST(Md5, OneObjectServesSeveralDigests) {
  CMd5 object;
  const Bytes abc = vectors::bytes_of("abc");
  Bytes first(16);
  Bytes second(16);
  EXPECT_EQ(object.MDString(abc.data(), 3, first.data()), 1);
  EXPECT_EQ(object.MDString(abc.data(), 3, second.data()), 1);
  EXPECT_EQ(first, second);
}

TEST(Md5, HasAVirtualDestructor) { EXPECT_TRUE(std::has_virtual_destructor_v<CMd5>); }
