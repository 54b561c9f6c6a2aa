#include "sync/sync_packet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

using zelvan::build_sync_acceptance;
using zelvan::build_sync_challenge;
using zelvan::build_sync_refusal;
using zelvan::build_sync_request;
using zelvan::packet_bytes;
using zelvan::parse_sync_reply;
using zelvan::parse_sync_request;
using zelvan::SyncAnswer;
using zelvan::SyncToken;

namespace {

using Packet = std::vector<unsigned char>;

Packet operator+(const Packet& a, const Packet& b) {
  Packet both;
  both.reserve(a.size() + b.size());
  for (const unsigned char byte : a) both.push_back(byte);
  for (const unsigned char byte : b) both.push_back(byte);
  return both;
}

// A packet of that code around the attributes, with the right length.
Packet packet(unsigned char code, const Packet& attributes) {
  const std::size_t size = attributes.size() + 3;
  return Packet{code, static_cast<unsigned char>(size >> 8), static_cast<unsigned char>(size)} + attributes;
}

Packet attribute(unsigned char type, const std::string& value) {
  return Packet{type, static_cast<unsigned char>(value.size() + 2)} + Packet(value.begin(), value.end());
}

// The whole request "alice" with the attributes behind it.
Packet request_with(const Packet& attributes) { return packet(1, attribute(1, "alice") + attributes); }

std::string user_of(const Packet& datagram) { return parse_sync_request(datagram)->user_name.data(); }
std::string password_of(const Packet& datagram) { return parse_sync_request(datagram)->password.data(); }

template <std::size_t Size>
void set_text(std::array<char, Size>& field, const std::string& text) {
  std::ranges::copy(text, field.begin());
}

SyncToken sample_token() {
  SyncToken token;
  token.code_digits = 6;
  token.token_type = 2;
  token.auth_type = 1;
  token.high_counter = 0x01020304;
  token.low_counter = 0xA1A2A3A4;
  token.clock = 0x6553F100;
  set_text(token.pin, "ab");
  set_text(token.key, "key");
  set_text(token.secret, "sec");
  set_text(token.time_step, "60");
  return token;
}

Packet acceptance(const SyncToken& token) {
  CSynpkg package;
  build_sync_acceptance(package, token);
  const auto bytes = packet_bytes(package);
  return {bytes.begin(), bytes.end()};
}

// The ten attributes of an acceptance, one by one.
std::vector<Packet> acceptance_attributes() {
  const Packet whole = acceptance(sample_token());
  std::vector<Packet> attributes;
  for (std::size_t at = 3; at < whole.size(); at += whole[at + 1]) {
    const auto begin = whole.begin() + static_cast<std::ptrdiff_t>(at);
    attributes.emplace_back(begin, begin + whole[at + 1]);
  }
  return attributes;
}

Packet joined(const std::vector<Packet>& attributes) {
  Packet all;
  for (const Packet& each : attributes) all = all + each;
  return all;
}

}  // namespace

// ---- requests, as the server reads them

TEST(SyncRequest, EmptyDatagramIsDropped) { EXPECT_FALSE(parse_sync_request({})); }

TEST(SyncRequest, DatagramShorterThanTheHeaderIsDropped) {
  EXPECT_FALSE(parse_sync_request(Packet{1}));
  EXPECT_FALSE(parse_sync_request(Packet{1, 0}));
  EXPECT_FALSE(parse_sync_request(Packet{1, 2}));
}

TEST(SyncRequest, HeaderAloneIsARequestOfEmptyTexts) {
  const auto request = parse_sync_request(Packet{1, 0, 3});
  ASSERT_TRUE(request);
  EXPECT_STREQ(request->user_name.data(), "");
  EXPECT_STREQ(request->password.data(), "");
}

TEST(SyncRequest, OtherCodesAreDropped) {
  for (int code = 0; code < 256; ++code) {
    const auto request = parse_sync_request(Packet{static_cast<unsigned char>(code), 0, 3});
    EXPECT_EQ(request.has_value(), code == 1) << code;
  }
}

TEST(SyncRequest, LengthOneBelowTheSizeIsDropped) { EXPECT_FALSE(parse_sync_request(Packet{1, 0, 4, 9, 2})); }

TEST(SyncRequest, LengthOneAboveTheSizeIsDropped) { EXPECT_FALSE(parse_sync_request(Packet{1, 0, 6, 9, 2})); }

TEST(SyncRequest, ReadsUserNameAndPassword) {
  const Packet datagram = request_with(attribute(2, "755224"));
  EXPECT_EQ(user_of(datagram), "alice");
  EXPECT_EQ(password_of(datagram), "755224");
}

TEST(SyncRequest, LowLengthByteOf0x7fIsTheLastThatIsAnswered) {
  const Packet good = request_with(Packet{99, 117} + Packet(115, 0));
  ASSERT_EQ(good.size(), 0x7FU);
  EXPECT_TRUE(parse_sync_request(good));
}

TEST(SyncRequest, LowLengthByteOf0x80OrMoreIsDropped) {
  for (std::size_t size = 0x80; size <= 0xFF; ++size) {
    const std::size_t first = (size - 10) / 2;  // two attributes, each short enough by itself
    const std::size_t second = size - 10 - first;
    const Packet datagram = request_with(Packet{99, static_cast<unsigned char>(first)} + Packet(first - 2, 0) +
                                         Packet{99, static_cast<unsigned char>(second)} + Packet(second - 2, 0));
    ASSERT_EQ(datagram.size(), size);
    EXPECT_FALSE(parse_sync_request(datagram)) << size;
  }
}

TEST(SyncRequest, LengthOf256IsAnsweredAgain) {
  const Packet filler = Packet{99, 100} + Packet(98, 0);
  const Packet datagram = request_with(filler + filler + Packet{99, 46} + Packet(44, 0));
  ASSERT_EQ(datagram.size(), 256U);
  EXPECT_TRUE(parse_sync_request(datagram));
}

TEST(SyncRequest, LongestDatagramIsRead) {
  Packet attributes = attribute(2, "pw");
  while (attributes.size() < 1024 - 10) {
    const std::size_t size = std::min<std::size_t>(1024 - 10 - attributes.size(), 120);
    attributes = attributes + Packet{99, static_cast<unsigned char>(size)} + Packet(size - 2, 0);
  }
  const Packet datagram = request_with(attributes);
  ASSERT_EQ(datagram.size(), 1024U);
  EXPECT_EQ(password_of(datagram), "pw");
}

TEST(SyncRequest, LaterAttributeOfATypeWins) {
  const Packet datagram = request_with(attribute(2, "longer") + attribute(1, "bob") + attribute(2, "pw"));
  EXPECT_EQ(user_of(datagram), "bob");
  EXPECT_EQ(password_of(datagram), "pw");
}

TEST(SyncRequest, OrderOfTheAttributesDoesNotMatter) {
  const Packet datagram = packet(1, attribute(2, "pw") + attribute(1, "alice"));
  EXPECT_EQ(user_of(datagram), "alice");
  EXPECT_EQ(password_of(datagram), "pw");
}

TEST(SyncRequest, OtherTypesAreSkipped) {
  const Packet datagram =
      request_with(attribute(0, "") + attribute(3, "x") + attribute(255, "yy") + attribute(2, "pw"));
  EXPECT_EQ(password_of(datagram), "pw");
}

TEST(SyncRequest, EmptyValueIsAnEmptyText) { EXPECT_EQ(password_of(request_with(attribute(2, ""))), ""); }

TEST(SyncRequest, NulEndsAText) {
  EXPECT_EQ(password_of(request_with(attribute(2, std::string("pw\0rest", 7)))), "pw");
}

TEST(SyncRequest, UserNameOf30CharactersIsTaken) {
  EXPECT_EQ(user_of(packet(1, attribute(1, std::string(30, 'u')))), std::string(30, 'u'));
}

TEST(SyncRequest, UserNameOf31CharactersIsDropped) {
  EXPECT_FALSE(parse_sync_request(packet(1, attribute(1, std::string(31, 'u')))));
}

TEST(SyncRequest, PasswordOf30CharactersIsTaken) {
  EXPECT_EQ(password_of(request_with(attribute(2, std::string(30, 'p')))), std::string(30, 'p'));
}

TEST(SyncRequest, PasswordOf31CharactersIsDropped) {
  EXPECT_FALSE(parse_sync_request(request_with(attribute(2, std::string(31, 'p')))));
}

TEST(SyncRequest, TooLongPasswordIsDroppedEvenWhenALaterOneFits) {
  EXPECT_FALSE(parse_sync_request(request_with(attribute(2, std::string(31, 'p')) + attribute(2, "pw"))));
}

TEST(SyncRequest, LengthByteOfZeroIsDropped) { EXPECT_FALSE(parse_sync_request(request_with({2, 0, 'x'}))); }

TEST(SyncRequest, LengthByteOfOneIsDropped) { EXPECT_FALSE(parse_sync_request(request_with({2, 1, 'x'}))); }

TEST(SyncRequest, LengthByteOfTwoIsTheSmallest) { EXPECT_TRUE(parse_sync_request(request_with({2, 2}))); }

TEST(SyncRequest, AttributeWithoutLengthByteIsDropped) { EXPECT_FALSE(parse_sync_request(request_with({2}))); }

TEST(SyncRequest, AttributeOneByteBeyondTheEndIsDropped) {
  EXPECT_FALSE(parse_sync_request(request_with({2, 5, 'x', 'y'})));
}

TEST(SyncRequest, AttributeThatEndsAtTheEndIsTaken) { EXPECT_EQ(password_of(request_with({2, 4, 'x', 'y'})), "xy"); }

TEST(SyncRequest, MalformedAttributeOfAnotherTypeIsDroppedToo) {
  EXPECT_FALSE(parse_sync_request(request_with({99, 1})));
  EXPECT_FALSE(parse_sync_request(request_with({99, 3})));
}

TEST(SyncRequest, LengthByteThatIsNegativeAsSignedIsDropped) {
  const Packet filler = Packet{99, 120} + Packet(118, 0);
  const Packet datagram = request_with(Packet{99, 0x80} + Packet(0x7E, 0) + filler);
  ASSERT_EQ(datagram.size(), 258U);
  EXPECT_FALSE(parse_sync_request(datagram));
}

TEST(SyncRequest, LengthByteOf127IsTheLargest) {
  const Packet datagram = request_with(Packet{99, 127} + Packet(125, 0) + Packet{99, 127} + Packet(125, 0));
  ASSERT_EQ(datagram.size(), 264U);
  EXPECT_TRUE(parse_sync_request(datagram));
}

TEST(SyncRequest, RandomAttributesNeverOverrun) {
  std::mt19937 random(20231114);
  int taken = 0;
  for (int round = 0; round < 20000; ++round) {
    Packet attributes(random() % 60);
    for (auto& byte : attributes) byte = static_cast<unsigned char>(random() % 8 == 0 ? random() : random() % 6);
    const auto request = parse_sync_request(packet(1, attributes));
    if (!request) continue;
    ++taken;
    ASSERT_LE(std::string(request->user_name.data()).size(), 30U);
    ASSERT_LE(std::string(request->password.data()).size(), 30U);
  }
  EXPECT_GT(taken, 0);
}

// ---- requests, as a client builds them

TEST(BuildSyncRequest, IsCodeLengthUserNamePassword) {
  std::array<unsigned char, zelvan::kSyncRequestCapacity> out{};
  const std::size_t length = build_sync_request(out, "bob", "12");
  EXPECT_EQ(Packet(out.begin(), out.begin() + length), (Packet{1, 0, 12, 1, 5, 'b', 'o', 'b', 2, 4, '1', '2'}));
}

TEST(BuildSyncRequest, EmptyTextsAreEmptyAttributes) {
  std::array<unsigned char, zelvan::kSyncRequestCapacity> out{};
  const std::size_t length = build_sync_request(out, "", "");
  EXPECT_EQ(Packet(out.begin(), out.begin() + length), (Packet{1, 0, 7, 1, 2, 2, 2}));
}

TEST(BuildSyncRequest, LongestTextsFillTheBufferAndAreReadBack) {
  std::array<unsigned char, zelvan::kSyncRequestCapacity> out{};
  const std::string name(30, 'n');
  const std::string password(30, 'p');
  ASSERT_EQ(build_sync_request(out, name, password), out.size());
  const auto request = parse_sync_request(out);
  ASSERT_TRUE(request);
  EXPECT_EQ(request->user_name.data(), name);
  EXPECT_EQ(request->password.data(), password);
}

TEST(BuildSyncRequest, RefusesALongerTextAndWritesNothing) {
  std::array<unsigned char, zelvan::kSyncRequestCapacity> out{};
  EXPECT_EQ(build_sync_request(out, std::string(31, 'n'), "p"), 0U);
  EXPECT_EQ(build_sync_request(out, "n", std::string(31, 'p')), 0U);
  EXPECT_TRUE(std::ranges::all_of(out, [](unsigned char byte) { return byte == 0; }));
}

TEST(BuildSyncRequest, RefusesANul) {
  std::array<unsigned char, zelvan::kSyncRequestCapacity> out{};
  EXPECT_EQ(build_sync_request(out, std::string("n\0", 2), "p"), 0U);
  EXPECT_EQ(build_sync_request(out, "n", std::string("\0p", 2)), 0U);
}

// ---- replies, as the server builds them

TEST(SyncAcceptance, CarriesTheTenAttributesInTheirOrder) {
  const Packet expected =
      packet(2, Packet{4, 3, 6} + Packet{5, 3, 2} + Packet{6, 3, 1} + Packet{7, 6, 1, 2, 3, 4} +
                    Packet{8, 6, 0xA1, 0xA2, 0xA3, 0xA4} + Packet{10, 4, 'a', 'b'} + Packet{9, 5, 'k', 'e', 'y'} +
                    Packet{12, 5, 's', 'e', 'c'} + Packet{11, 6, 0x65, 0x53, 0xF1, 0x00} + Packet{13, 5, '6', '0', 0});
  EXPECT_EQ(acceptance(sample_token()), expected);
}

TEST(SyncAcceptance, EmptyPinIsAnEmptyAttribute) {
  SyncToken token = sample_token();
  token.pin = {};
  const Packet whole = acceptance(token);
  EXPECT_EQ(whole[24], 10);
  EXPECT_EQ(whole[25], 2);
  EXPECT_EQ(whole[26], 9);
}

TEST(SyncAcceptance, TimeStepOfOneDigitHasTwoZeroBytes) {
  SyncToken token = sample_token();
  token.time_step = {'5', '\0', '\0'};
  const Packet whole = acceptance(token);
  EXPECT_EQ(Packet(whole.end() - 5, whole.end()), (Packet{13, 5, '5', 0, 0}));
}

TEST(SyncAcceptance, LongestIsBelow128Bytes) {
  SyncToken token = sample_token();
  std::ranges::fill_n(token.pin.begin(), 23, 'p');
  std::ranges::fill_n(token.key.begin(), 29, 'k');
  std::ranges::fill_n(token.secret.begin(), 24, 's');
  EXPECT_EQ(acceptance(token).size(), 117U);
}

TEST(SyncChallenge, CarriesTheTextWithTheNumber) {
  CSynpkg package;
  build_sync_challenge(package, 12034);
  const auto bytes = packet_bytes(package);
  EXPECT_EQ(Packet(bytes.begin(), bytes.end()), packet(4, attribute(3, "Challenge code:12034")));
}

TEST(SyncRefusal, IsThreeBytes) {
  CSynpkg package;
  build_sync_refusal(package);
  const auto bytes = packet_bytes(package);
  EXPECT_EQ(Packet(bytes.begin(), bytes.end()), (Packet{3, 0, 3}));
}

TEST(PacketBytes, NoPacketHasNoBytes) { EXPECT_TRUE(packet_bytes(CSynpkg()).empty()); }

// ---- replies, as a client reads them

TEST(SyncReply, TooShortOrWithAWrongLengthIsRefused) {
  EXPECT_FALSE(parse_sync_reply({}));
  EXPECT_FALSE(parse_sync_reply(Packet{3}));
  EXPECT_FALSE(parse_sync_reply(Packet{3, 0}));
  EXPECT_FALSE(parse_sync_reply(Packet{3, 0, 2}));
  EXPECT_FALSE(parse_sync_reply(Packet{3, 0, 4}));
  EXPECT_FALSE(parse_sync_reply(Packet{3, 1, 3}));
}

TEST(SyncReply, OtherCodesAreRefused) {
  for (const int code : {0, 1, 5, 11, 255}) {
    EXPECT_FALSE(parse_sync_reply(Packet{static_cast<unsigned char>(code), 0, 3})) << code;
  }
}

TEST(SyncReply, ReadsARefusal) {
  const auto reply = parse_sync_reply(Packet{3, 0, 3});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->answer, SyncAnswer::refused);
}

TEST(SyncReply, ReadsAChallenge) {
  const auto reply = parse_sync_reply(packet(4, attribute(3, "Challenge code:999998")));
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->answer, SyncAnswer::challenged);
  EXPECT_EQ(reply->challenge, 999998U);
}

TEST(SyncReply, ChallengeWithoutItsNumberIsRefused) {
  EXPECT_FALSE(parse_sync_reply(packet(4, {})));
  EXPECT_FALSE(parse_sync_reply(packet(4, attribute(9, "Challenge code:12"))));
  for (const char* text : {"", "Challenge code:", "Challenge code:x", "Challenge code:12x", "Challenge code:-1",
                           "Challenge code: 12", "challenge code:12", "Challenge code:4294967296"}) {
    EXPECT_FALSE(parse_sync_reply(packet(4, attribute(3, text)))) << text;
  }
}

TEST(SyncReply, LargestChallengeIsRead) {
  EXPECT_EQ(parse_sync_reply(packet(4, attribute(3, "Challenge code:4294967295")))->challenge, 4294967295U);
}

TEST(SyncReply, ReadsAnAcceptance) {
  const auto reply = parse_sync_reply(acceptance(sample_token()));
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->answer, SyncAnswer::accepted);
  const SyncToken& token = reply->token;
  EXPECT_EQ(token.code_digits, 6);
  EXPECT_EQ(token.token_type, 2);
  EXPECT_EQ(token.auth_type, 1);
  EXPECT_EQ(token.high_counter, 0x01020304U);
  EXPECT_EQ(token.low_counter, 0xA1A2A3A4U);
  EXPECT_EQ(token.clock, 0x6553F100U);
  EXPECT_STREQ(token.pin.data(), "ab");
  EXPECT_STREQ(token.key.data(), "key");
  EXPECT_STREQ(token.secret.data(), "sec");
  EXPECT_EQ(time_step_seconds(token), 60);
}

TEST(SyncReply, AttributesOfAnAcceptanceMayComeInAnyOrder) {
  auto attributes = acceptance_attributes();
  ASSERT_EQ(attributes.size(), 10U);
  std::ranges::reverse(attributes);
  const auto reply = parse_sync_reply(packet(2, joined(attributes)));
  ASSERT_TRUE(reply);
  EXPECT_STREQ(reply->token.key.data(), "key");
}

TEST(SyncReply, AcceptanceWithoutOneOfItsAttributesIsRefused) {
  for (std::size_t left_out = 0; left_out < 10; ++left_out) {
    auto attributes = acceptance_attributes();
    attributes.erase(attributes.begin() + static_cast<std::ptrdiff_t>(left_out));
    EXPECT_FALSE(parse_sync_reply(packet(2, joined(attributes)))) << left_out;
  }
}

TEST(SyncReply, UnknownAttributesAreSkipped) {
  const Packet extra = attribute(200, std::string(253, 'x')) + attribute(0, "") + attribute(14, "y");
  EXPECT_TRUE(parse_sync_reply(packet(2, extra + joined(acceptance_attributes()))));
}

TEST(SyncReply, NumberOfAnotherSizeIsRefused) {
  const Packet all = joined(acceptance_attributes());
  for (const unsigned char type : Packet{4, 5, 6, 7, 8, 11, 13}) {
    const std::size_t right = type <= 6 ? 1 : (type == 13 ? 3 : 4);
    for (const std::size_t size : {right - 1, right, right + 1}) {
      const auto reply = parse_sync_reply(packet(2, all + attribute(type, std::string(size, '1'))));
      EXPECT_EQ(reply.has_value(), size == right) << int{type} << ' ' << size;
    }
  }
}

TEST(SyncReply, TextBeyondItsLimitIsRefused) {
  const Packet all = joined(acceptance_attributes());
  constexpr std::array<std::pair<unsigned char, std::size_t>, 3> kLimits{{{9, 29}, {10, 23}, {12, 24}}};
  for (const auto& [type, limit] : kLimits) {
    EXPECT_TRUE(parse_sync_reply(packet(2, all + attribute(type, std::string(limit, 'x'))))) << int{type};
    EXPECT_FALSE(parse_sync_reply(packet(2, all + attribute(type, std::string(limit + 1, 'x'))))) << int{type};
  }
}

TEST(SyncReply, MalformedWalkIsRefusedUnderEveryCode) {
  for (const Packet& tail : {Packet{9}, Packet{9, 0}, Packet{9, 1}, Packet{9, 4, 'x'}}) {
    EXPECT_FALSE(parse_sync_reply(packet(2, joined(acceptance_attributes()) + tail)));
    EXPECT_FALSE(parse_sync_reply(packet(3, tail)));
    EXPECT_FALSE(parse_sync_reply(packet(4, attribute(3, "Challenge code:1") + tail)));
  }
}

TEST(SyncReply, RandomBytesNeverOverrun) {
  std::mt19937 random(20231114);
  const Packet good = acceptance(sample_token());
  for (int round = 0; round < 20000; ++round) {
    Packet bad = good;
    for (unsigned int changes = 1 + random() % 4; changes > 0; --changes) {
      bad[3 + random() % (bad.size() - 3)] = static_cast<unsigned char>(random());
    }
    const auto reply = parse_sync_reply(bad);
    ASSERT_TRUE(!reply || reply->answer == SyncAnswer::accepted);
  }
}

TEST(TimeStepSeconds, ReadsTheDigits) {
  SyncToken token;
  EXPECT_EQ(time_step_seconds(token), 0);
  token.time_step = {'3', '0', '\0'};
  EXPECT_EQ(time_step_seconds(token), 30);
  token.time_step = {'1', '2', '0'};
  EXPECT_EQ(time_step_seconds(token), 120);
  token.time_step = {'x', '1', '\0'};
  EXPECT_EQ(time_step_seconds(token), 0);
}
