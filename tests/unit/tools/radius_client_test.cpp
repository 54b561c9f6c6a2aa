#include "zelvanctl/radius_client.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "auth/radius_packet.h"
#include "zelvanctl/radius_exchange.h"

using namespace zelvan::ctl;

namespace {

// RFC 2865 section 7.1: user nemo, password arctangent, secret xyzzy5461.
constexpr std::array<unsigned char, 16> kAuthenticator{0x0f, 0x40, 0x3f, 0x94, 0x73, 0x97, 0x80, 0x57,
                                                       0xbd, 0x83, 0xd5, 0xcb, 0x98, 0xf4, 0x22, 0x7a};
const Secret kSecret("xyzzy5461");

RequestMark mark() { return {0, kAuthenticator, {}}; }

std::vector<unsigned char> reply(zelvan::RadiusCode code, std::string_view message, zelvan::ReplyDigest digest,
                                 std::string_view secret) {
  std::array<unsigned char, zelvan::kReplyCapacity> buffer{};
  CMd5 md5;
  const std::size_t length = zelvan::build_reply(md5, buffer, {code, 0, message, digest}, kAuthenticator, secret);
  return {buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(length)};
}

// What the server makes of a request.
zelvan::RequestAttributes parsed(const std::vector<unsigned char>& packet) {
  EXPECT_EQ(packet.size(), packet[2] * 256U + packet[3]);
  const auto attributes = zelvan::parse_attributes(zelvan::Bytes(packet).subspan(20));
  EXPECT_TRUE(attributes.has_value());
  return attributes.value_or(zelvan::RequestAttributes{});
}

}  // namespace

// RFC 2865 section 7.1, without its NAS attributes.
TEST(RadiusClient, HidesThePasswordOfTheExample) {
  const std::vector<unsigned char> expected{0x01, 0x00, 0x00, 0x2c, 0x0f, 0x40, 0x3f, 0x94, 0x73, 0x97, 0x80,
                                            0x57, 0xbd, 0x83, 0xd5, 0xcb, 0x98, 0xf4, 0x22, 0x7a, 0x01, 0x06,
                                            0x6e, 0x65, 0x6d, 0x6f, 0x02, 0x12, 0x0d, 0xbe, 0x70, 0x8d, 0x93,
                                            0xd4, 0x13, 0xce, 0x31, 0x96, 0xe4, 0x3f, 0x78, 0x2a, 0x0a, 0xee};
  EXPECT_EQ(access_request(mark(), {"nemo", Secret("arctangent"), false}, kSecret), expected);
}

TEST(RadiusClient, TheServerUnderstandsPasswordsOfEveryLength) {
  for (std::size_t length = 0; length <= 48; ++length) {
    const std::string password(length, 'p');
    const auto packet = access_request(mark(), {"nemo", Secret(password), false}, kSecret);
    CMd5 md5;
    const auto hidden = parsed(packet).user_password;
    EXPECT_EQ(hidden.size(), std::max<std::size_t>(16, zelvan::padded_password_length(length)));
    if (length > 0) {
      EXPECT_TRUE(zelvan::user_password_matches(md5, password, hidden, kSecret.reveal(), kAuthenticator)) << length;
    }
  }
}

TEST(RadiusClient, TheServerUnderstandsChap) {
  RequestMark chap = mark();
  chap.identifier = 7;
  chap.chap_challenge.fill(0xA5);
  const auto packet = access_request(chap, {"nemo", Secret("123456"), true}, kSecret);
  CMd5 md5;
  EXPECT_TRUE(zelvan::chap_password_matches(md5, "123456", parsed(packet), kAuthenticator));
  EXPECT_FALSE(zelvan::chap_password_matches(md5, "123457", parsed(packet), kAuthenticator));
}

TEST(RadiusClient, ReadsTheServersReplies) {
  const auto accept =
      read_reply(reply(zelvan::ACCESS_ACCEPT, "", zelvan::ReplyDigest::whole_reply, "xyzzy5461"), mark(), kSecret);
  ASSERT_TRUE(accept);
  EXPECT_EQ(accept->code, ReplyCode::accept);
  EXPECT_EQ(accept->signature, Signature::right);
  const auto challenge = read_reply(
      reply(zelvan::ACCESS_CHALLENGE, "Challenge 5", zelvan::ReplyDigest::whole_reply, "xyzzy5461"), mark(), kSecret);
  ASSERT_TRUE(challenge);
  EXPECT_EQ(challenge->message, "Challenge 5");
  EXPECT_EQ(challenge->signature, Signature::right);
}

TEST(RadiusClient, KnowsTheRejectOfAnUnknownUserWithSecretsOfEveryLength) {
  for (std::size_t length = 1; length <= 56; ++length) {
    const std::string secret(length, 's');
    const auto packet = reply(zelvan::ACCESS_REJECT, "USER NOT EXIST", zelvan::ReplyDigest::header_span, secret);
    const auto read = read_reply(packet, mark(), Secret(secret));
    ASSERT_TRUE(read);
    EXPECT_TRUE(is_unknown_user(*read));
    EXPECT_EQ(read->signature, Signature::beginning) << length;
  }
}

TEST(RadiusClient, AnotherSecretOrAChangedReplyIsAWrongSignature) {
  auto packet = reply(zelvan::ACCESS_ACCEPT, "", zelvan::ReplyDigest::whole_reply, "xyzzy5461");
  EXPECT_EQ(read_reply(packet, mark(), Secret("other"))->signature, Signature::wrong);
  packet[0] = zelvan::ACCESS_REJECT;
  EXPECT_EQ(read_reply(packet, mark(), kSecret)->signature, Signature::wrong);
}

TEST(RadiusClient, WhatIsNoReplyIsPassedOver) {
  const auto good = reply(zelvan::ACCESS_CHALLENGE, "m", zelvan::ReplyDigest::whole_reply, "xyzzy5461");
  ASSERT_TRUE(read_reply(good, mark(), kSecret));
  for (std::size_t length = 0; length < good.size(); ++length) {
    EXPECT_FALSE(read_reply(RadiusBytes(good).first(length), mark(), kSecret)) << length;
  }
  const auto spoilt = [&](std::size_t offset, unsigned char value) {
    auto packet = good;
    packet[offset] = value;
    return read_reply(packet, mark(), kSecret).has_value();
  };
  EXPECT_FALSE(spoilt(0, 1));    // a request
  EXPECT_FALSE(spoilt(1, 9));    // another Identifier
  EXPECT_FALSE(spoilt(3, 19));   // a Length below the header
  EXPECT_FALSE(spoilt(3, 200));  // a Length beyond the datagram
  EXPECT_FALSE(spoilt(21, 0));   // an attribute below its own header
  EXPECT_FALSE(spoilt(21, 90));  // an attribute beyond the packet
}

TEST(RadiusClient, PaddingBehindTheLengthIsIgnored) {
  auto packet = reply(zelvan::ACCESS_ACCEPT, "", zelvan::ReplyDigest::whole_reply, "xyzzy5461");
  packet.insert(packet.end(), 5, 0);
  ASSERT_TRUE(read_reply(packet, mark(), kSecret));
  EXPECT_EQ(read_reply(packet, mark(), kSecret)->signature, Signature::right);
}

TEST(RadiusExchange, ServersAreNamedByHostAndPort) {
  const ServerAddress fallback{"127.0.0.1", 1812};
  const auto is = [&](std::string_view text, const std::string& host, int port) {
    const auto address = parse_server(text, fallback);
    return address && address->host == host && address->port == port;
  };
  EXPECT_TRUE(is("radius.example", "radius.example", 1812));
  EXPECT_TRUE(is("192.0.2.1:1645", "192.0.2.1", 1645));
  EXPECT_TRUE(is(":1645", "127.0.0.1", 1645));
  for (const char* wrong : {"", "a:", "a:0", "a:65536", "a:1x", "a:-1", "::1", "a:1:2"}) {
    EXPECT_FALSE(parse_server(wrong, fallback)) << wrong;
  }
}

TEST(RadiusExchange, SecretsAreLookedUpAsTheServerDoes) {
  CConfigFile file;
  EXPECT_FALSE(client_secret(file, "192.0.2.1"));
  file.additem("share", "192.0.2.1", "own");
  file.additem("share", "192.0.2.2", std::string(57, 'x').c_str());
  EXPECT_EQ(client_secret(file, "192.0.2.1")->reveal(), "own");
  EXPECT_FALSE(client_secret(file, "192.0.2.2"));
  file.additem("share", "0.0.0.0", "all");
  EXPECT_EQ(client_secret(file, "192.0.2.1")->reveal(), "own");
  EXPECT_EQ(client_secret(file, "192.0.2.2")->reveal(), "all");
  EXPECT_EQ(client_secret(file, "192.0.2.3")->reveal(), "all");
}
