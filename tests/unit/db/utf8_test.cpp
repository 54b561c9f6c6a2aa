#include "db/utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using zelvan::is_utf8;

TEST(Utf8, TheEmptyTextAndAsciiAre) {
  EXPECT_TRUE(is_utf8(""));
  for (int byte = 0; byte < 0x80; ++byte) EXPECT_TRUE(is_utf8(std::string(1, static_cast<char>(byte)))) << byte;
}

TEST(Utf8, AByteAbove7FAloneIsNot) {
  for (int byte = 0x80; byte < 0x100; ++byte) EXPECT_FALSE(is_utf8(std::string(1, static_cast<char>(byte)))) << byte;
}

// The examples of RFC 3629, section 7.
TEST(Utf8, TheExamplesOfTheRfcAre) {
  EXPECT_TRUE(is_utf8("\x41\xE2\x89\xA2\xCE\x91\x2E"));
  EXPECT_TRUE(is_utf8("\xED\x95\x9C\xEA\xB5\xAD\xEC\x96\xB4"));
  EXPECT_TRUE(is_utf8("\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E"));
  EXPECT_TRUE(is_utf8("\xEF\xBB\xBF\xF0\xA3\x8E\xB4"));
}

TEST(Utf8, TheFirstAndTheLastCharacterOfEachLengthAre) {
  for (const char* const text : {"\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBF",
                                 "\xF0\x90\x80\x80", "\xF3\xBF\xBF\xBF", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(is_utf8(text)) << text;
  }
}

TEST(Utf8, OverlongFormsSurrogatesAndWhatLiesAboveTheLastCharacterAreNot) {
  for (const char* const text :
       {"\xC0\xAF", "\xC1\xBF", "\xE0\x80\xAF", "\xE0\x9F\xBF", "\xF0\x80\x80\xAF", "\xF0\x8F\xBF\xBF", "\xED\xA0\x80",
        "\xED\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xF8\x88\x80\x80\x80", "\xFF"}) {
    EXPECT_FALSE(is_utf8(text)) << text;
  }
}

TEST(Utf8, ACharacterThatIsCutOrBrokenIsNot) {
  for (const char* const text : {"\xC3", "a\xC3", "\xC3'", "\xE2\x82", "\xE2\x82'", "\xE2'\xAC", "\xF0\x9F\x98",
                                 "\xF0\x9F\x98z", "\xF0\x9Fz\x80", "\x80", "a\xBF"}) {
    EXPECT_FALSE(is_utf8(text)) << text;
  }
}

}  // namespace
