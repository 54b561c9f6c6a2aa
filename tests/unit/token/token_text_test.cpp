#include "zelvan_token/token_text.h"

#include <nlohmann/json.hpp>

#include "token_fixture.h"

namespace zelvan::token {
namespace {

using Json = nlohmann::ordered_json;
using test::event_token;
using test::timed_token;

// The text of a token with one member changed; a null removes it.
std::string changed(const SoftToken& token, const char* member, const Json& value) {
  Json json = Json::parse(to_text(token));
  if (value.is_null()) {
    json.erase(member);
  } else {
    json[member] = value;
  }
  return json.dump();
}

bool readable(const std::string& text) {
  try {
    (void)from_text(text);
    return true;
  } catch (const BadText&) {
    return false;
  }
}

TEST(TokenText, ComesBackAsItWent) {
  SoftToken token = timed_token();
  token.next = 105;
  token.clock_offset = -17;
  const SoftToken read = from_text(to_text(token));
  EXPECT_EQ("alice", read.user);
  EXPECT_EQ("127.0.0.1:8801", read.server);
  EXPECT_EQ(Kind::time_stepped, read.kind);
  EXPECT_EQ(6, read.digits);
  EXPECT_TRUE(read.pin_follows);
  EXPECT_EQ(token.key.reveal(), read.key.reveal());
  EXPECT_EQ("4711", read.pin.reveal());
  EXPECT_EQ(100U, read.base);
  EXPECT_EQ(105U, read.next);
  EXPECT_EQ(60, read.time_step);
  EXPECT_EQ(test::kServerClock, read.fetched_at);
  EXPECT_EQ(-17, read.clock_offset);
}

TEST(TokenText, KeepsTheLargestCounter) {
  SoftToken token = event_token();
  token.next = UINT64_MAX;
  EXPECT_EQ(UINT64_MAX, from_text(to_text(token)).next);
}

TEST(TokenText, KeepsAKeyOfAnyBytes) {
  SoftToken token = event_token();
  token.key = Secret("\x01\xFF\"\\\n\x80");
  EXPECT_EQ(token.key.reveal(), from_text(to_text(token)).key.reveal());
}

TEST(TokenText, HoldsNoSharedSecret) { EXPECT_EQ(std::string::npos, to_text(event_token()).find("s3cret")); }

TEST(TokenText, IsRefusedWhenItIsCutAnywhere) {
  const std::string text = to_text(event_token());
  for (std::size_t size = 0; size + 2 < text.size(); ++size) EXPECT_FALSE(readable(text.substr(0, size))) << size;
}

TEST(TokenText, IsRefusedWithoutAMember) {
  const Json whole = Json::parse(to_text(event_token()));
  for (const auto& member : whole.items()) EXPECT_FALSE(readable(changed(event_token(), member.key().c_str(), {})));
}

TEST(TokenText, IsRefusedWithAMemberOfAnotherKind) {
  const Json whole = Json::parse(to_text(event_token()));
  for (const auto& member : whole.items()) {
    EXPECT_FALSE(readable(changed(event_token(), member.key().c_str(), Json::array()))) << member.key();
    EXPECT_FALSE(readable(changed(event_token(), member.key().c_str(), 1.5))) << member.key();
  }
}

TEST(TokenText, IsRefusedWithImpossibleValues) {
  const std::vector<std::pair<const char*, Json>> impossible = {{"format", 2},
                                                                {"user", ""},
                                                                {"user", "a\nb"},
                                                                {"type", "event"},
                                                                {"digits", 5},
                                                                {"digits", 11},
                                                                {"key", ""},
                                                                {"key", "313"},
                                                                {"key", "3G"},
                                                                {"key", "3100"},
                                                                {"key", std::string(60, '1')},
                                                                {"pin", std::string(48, '1')},
                                                                {"counter", -1},
                                                                {"next", -1},
                                                                {"time_step", 0},
                                                                {"time_step", 1000},
                                                                {"fetched_at", -1},
                                                                {"fetched_at", std::int64_t{1} << 32},
                                                                {"clock_offset", std::int64_t{1} << 34},
                                                                {"clock_offset", UINT64_MAX},
                                                                {"next", 99},
                                                                {"next", std::uint64_t{1} << 40}};
  for (const auto& [member, value] : impossible) {
    EXPECT_FALSE(readable(changed(timed_token(), member, value))) << member << " " << value;
  }
}

TEST(TokenText, SkipsMembersItDoesNotKnow) { EXPECT_TRUE(readable(changed(event_token(), "colour", "red"))); }

TEST(TokenText, IsNotQuotedInWhatIsWrong) {
  std::string text = to_text(event_token());
  text.replace(text.find("\"key\": \""), 8, "\"key\": \"\x01");
  try {
    (void)from_text(text);
    FAIL();
  } catch (const BadText& reason) {
    EXPECT_EQ(std::string::npos, std::string(reason.what()).find("3132"));
  }
}

}  // namespace
}  // namespace zelvan::token
