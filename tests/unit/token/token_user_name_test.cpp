#include "zelvan_token/user_name.h"

#include "token_fixture.h"

namespace zelvan::token {
namespace {

using test::failure_of;

ExitCode checked(const std::string& name) {
  return failure_of([&] { check_user_name(name); });
}

TEST(UserName, HasOneToThirtyBytes) {
  EXPECT_EQ(kUsage, checked(""));
  EXPECT_EQ(kOk, checked("a"));
  EXPECT_EQ(kOk, checked(std::string(30, 'a')));
  EXPECT_EQ(kUsage, checked(std::string(31, 'a')));
}

TEST(UserName, HoldsNoControlCharacters) {
  EXPECT_EQ(kUsage, checked("a\nb"));
  EXPECT_EQ(kUsage, checked("a\x1B[2J"));
  EXPECT_EQ(kUsage, checked(std::string("a\0b", 3)));
  EXPECT_EQ(kUsage, checked("a\x7F"));
  EXPECT_EQ(kUsage, checked("a\xC2\x9Bm"));
  EXPECT_EQ(kOk, checked("\xC2\xA0\xC3\x9B"));
}

TEST(UserName, IsUtf8) {
  EXPECT_EQ(kOk, checked("j\xC3\xBCrgen"));
  EXPECT_EQ(kUsage, checked("j\xFCrgen"));
}

TEST(UserName, StaysReadableInTheFileName) { EXPECT_EQ("Alice.B_1@x+y-z.json", file_name_of("Alice.B_1@x+y-z")); }

TEST(UserName, CannotLeaveTheFolder) {
  EXPECT_EQ("%2E.%2F..%2Fetc%2Fpasswd.json", file_name_of("../../etc/passwd"));
  EXPECT_EQ("%2E.json", file_name_of("."));
  EXPECT_EQ("%2E..json", file_name_of(".."));
}

TEST(UserName, NeverSharesAFile) {
  EXPECT_NE(file_name_of("a/b"), file_name_of("a%2Fb"));
  EXPECT_EQ("a%252Fb.json", file_name_of("a%2Fb"));
}

}  // namespace
}  // namespace zelvan::token
