#include "zelvanctl/base32.h"

#include <gtest/gtest.h>

#include <string_view>

using zelvan::ctl::base32;

namespace {

struct Vector {
  std::string_view bytes;
  std::string_view text;
};

}  // namespace

// RFC 4648 section 10, without the padding.
TEST(Base32, AgreesWithThePublishedVectors) {
  for (const Vector& vector :
       {Vector{"", ""}, Vector{"f", "MY"}, Vector{"fo", "MZXQ"}, Vector{"foo", "MZXW6"}, Vector{"foob", "MZXW6YQ"},
        Vector{"fooba", "MZXW6YTB"}, Vector{"foobar", "MZXW6YTBOI"}}) {
    EXPECT_EQ(base32(vector.bytes), vector.text);
  }
}

TEST(Base32, TakesBytesWithTheHighestBit) { EXPECT_EQ(base32("\xFF\xFF\xFF\xFF\xFF"), "77777777"); }

// The key of RFC 4226 appendix D, as authenticator apps take it.
TEST(Base32, GivesTheWellKnownTextOfTheWellKnownKey) {
  EXPECT_EQ(base32("12345678901234567890"), "GEZDGNBVGY3TQOJQGEZDGNBVGY3TQOJQ");
}
