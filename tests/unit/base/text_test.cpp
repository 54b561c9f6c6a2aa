#include "base/text.h"

#include <gtest/gtest.h>

#include <array>

TEST(Text, CopyTakesTextThatFitsWithItsNul) {
  std::array<char, 6> out{};
  EXPECT_TRUE(zelvan::copy_text(out, "hello"));
  EXPECT_STREQ(out.data(), "hello");
}

TEST(Text, CopyRefusesOneCharacterMoreAndWritesNothing) {
  std::array<char, 5> out{'x', '\0'};
  EXPECT_FALSE(zelvan::copy_text(out, "hello"));
  EXPECT_STREQ(out.data(), "x");
}

TEST(Text, CopyIntoNothingFails) { EXPECT_FALSE(zelvan::copy_text({}, "")); }

TEST(Text, CopyTakesAnEmptyViewWithoutAnyText) {
  std::array<char, 2> out{'x', '\0'};
  EXPECT_TRUE(zelvan::copy_text(out, std::string_view{}));
  EXPECT_STREQ(out.data(), "");
}

TEST(Text, FormatTakesTextThatFitsWithItsNul) {
  std::array<char, 4> out{};
  EXPECT_TRUE(zelvan::format_text(out, "%d", 123));
  EXPECT_STREQ(out.data(), "123");
}

TEST(Text, FormatLeavesAnEmptyTextWhenItDoesNotFit) {
  std::array<char, 4> out{};
  EXPECT_FALSE(zelvan::format_text(out, "%d", 1234));
  EXPECT_STREQ(out.data(), "");
  EXPECT_FALSE(zelvan::format_text({}, "%d", 1));
}
