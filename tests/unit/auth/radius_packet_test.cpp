#include "auth/radius_packet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

using namespace std::string_literals;
using zelvan::Authenticator;
using zelvan::Bytes;
using zelvan::PasswordKind;

namespace {

using Packet = std::vector<unsigned char>;

Packet attribute(unsigned char type, const std::string& value) {
  Packet bytes(value.size() + 2);
  bytes[0] = type;
  bytes[1] = static_cast<unsigned char>(bytes.size());
  std::ranges::copy(value, bytes.begin() + 2);
  return bytes;
}

Packet operator+(Packet a, const Packet& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::string text(Bytes bytes) { return {bytes.begin(), bytes.end()}; }

Packet from_hex(std::string_view hex) {
  Packet bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return bytes;
}

Packet md5(const Packet& bytes) {
  CMd5 engine;
  Packet input = bytes;
  Packet digest(16);
  EXPECT_EQ(engine.MDString(input.data(), static_cast<unsigned int>(input.size()), digest.data()), 1);
  return digest;
}

Packet bytes_of(const std::string& s) { return {s.begin(), s.end()}; }

// Hides a password as a client does, written from RFC 2865 section 5.2.
Packet hide(const std::string& password, const std::string& secret, const Packet& authenticator) {
  Packet padded = bytes_of(password);
  padded.resize((padded.size() + 15) / 16 * 16);
  Packet hidden;
  Packet chain = authenticator;
  for (std::size_t at = 0; at < padded.size(); at += 16) {
    const Packet pad = md5(bytes_of(secret) + chain);
    chain.clear();
    for (std::size_t i = 0; i < 16; ++i) chain.push_back(static_cast<unsigned char>(padded[at + i] ^ pad[i]));
    hidden = hidden + chain;
  }
  return hidden;
}

const Packet kAuthenticator = from_hex("0f403f9473978057bd83d5cb98f4227a");

Authenticator authenticator() { return Authenticator(kAuthenticator.data(), 16); }

bool pap(const std::string& candidate, const Packet& hidden, const std::string& secret) {
  CMd5 engine;
  return zelvan::user_password_matches(engine, candidate, hidden, secret, authenticator());
}

}  // namespace

// ---- attributes

TEST(RadiusAttributes, EmptyAreaHasNothing) {
  const auto request = zelvan::parse_attributes({});
  ASSERT_TRUE(request.has_value());
  EXPECT_TRUE(request->user_name.empty());
  EXPECT_EQ(request->kind, PasswordKind::none);
  EXPECT_FALSE(request->password_seen);
  EXPECT_FALSE(request->chap_challenge.has_value());
}

TEST(RadiusAttributes, KeepsNamePasswordAndChallenge) {
  const Packet area = attribute(1, "alice") + attribute(4, "\x0A\x01\x01\x01") + attribute(60, "12345") +
                      attribute(3, "\x07" + std::string(16, 'r'));
  const auto request = zelvan::parse_attributes(area);
  ASSERT_TRUE(request.has_value());
  EXPECT_EQ(text(request->user_name), "alice");
  EXPECT_EQ(request->kind, PasswordKind::chap_password);
  EXPECT_EQ(request->chap_identifier, 7);
  EXPECT_EQ(text(request->chap_response), std::string(16, 'r'));
  ASSERT_TRUE(request->chap_challenge.has_value());
  EXPECT_EQ(text(*request->chap_challenge), "12345");
  EXPECT_FALSE(request->password_seen);
}

TEST(RadiusAttributes, PasswordAttributeThatComesLastWins) {
  const Packet pap_attribute = attribute(2, std::string(16, 'p'));
  const Packet chap_attribute = attribute(3, std::string(17, 'c'));
  EXPECT_EQ(zelvan::parse_attributes(pap_attribute + chap_attribute)->kind, PasswordKind::chap_password);
  EXPECT_TRUE(zelvan::parse_attributes(pap_attribute + chap_attribute)->password_seen);
  EXPECT_EQ(zelvan::parse_attributes(chap_attribute + pap_attribute)->kind, PasswordKind::user_password);
}

TEST(RadiusAttributes, LaterOccurrenceOverwritesTheEarlier) {
  const Packet area = attribute(1, "alice") + attribute(1, "bob") + attribute(2, "x") + attribute(2, "yy");
  const auto request = zelvan::parse_attributes(area);
  ASSERT_TRUE(request.has_value());
  EXPECT_EQ(text(request->user_name), "bob");
  EXPECT_EQ(text(request->user_password), "yy");
}

TEST(RadiusAttributes, LengthBelowTwoIsMalformed) {
  EXPECT_FALSE(zelvan::parse_attributes(Packet{4, 0}).has_value());
  EXPECT_FALSE(zelvan::parse_attributes(Packet{4, 1}).has_value());
  EXPECT_TRUE(zelvan::parse_attributes(Packet{4, 2}).has_value());
}

TEST(RadiusAttributes, AttributePastTheEndIsMalformed) {
  EXPECT_FALSE(zelvan::parse_attributes(Packet{4}).has_value());
  EXPECT_FALSE(zelvan::parse_attributes(Packet{4, 3}).has_value());
  EXPECT_FALSE(zelvan::parse_attributes(attribute(1, "alice") + Packet{2, 18, 0}).has_value());
}

TEST(RadiusAttributes, UserNameHasOneToNineteenBytes) {
  EXPECT_FALSE(zelvan::parse_attributes(attribute(1, "")).has_value());
  EXPECT_TRUE(zelvan::parse_attributes(attribute(1, "a")).has_value());
  EXPECT_TRUE(zelvan::parse_attributes(attribute(1, std::string(19, 'a'))).has_value());
  EXPECT_FALSE(zelvan::parse_attributes(attribute(1, std::string(20, 'a'))).has_value());
}

TEST(RadiusAttributes, ChapPasswordHasExactlySeventeenBytes) {
  EXPECT_FALSE(zelvan::parse_attributes(attribute(3, std::string(16, 'c'))).has_value());
  EXPECT_TRUE(zelvan::parse_attributes(attribute(3, std::string(17, 'c'))).has_value());
  EXPECT_FALSE(zelvan::parse_attributes(attribute(3, std::string(18, 'c'))).has_value());
}

TEST(RadiusAttributes, ChapChallengeHasFiveToHundredTwentySixBytes) {
  EXPECT_FALSE(zelvan::parse_attributes(attribute(60, std::string(4, 'c'))).has_value());
  EXPECT_TRUE(zelvan::parse_attributes(attribute(60, std::string(5, 'c'))).has_value());
  EXPECT_TRUE(zelvan::parse_attributes(attribute(60, std::string(126, 'c'))).has_value());
  EXPECT_FALSE(zelvan::parse_attributes(attribute(60, std::string(127, 'c'))).has_value());
}

TEST(RadiusAttributes, UserPasswordMayHaveAnyLength) {
  for (const std::size_t length : {0U, 1U, 16U, 129U, 253U}) {
    const auto request = zelvan::parse_attributes(attribute(2, std::string(length, 'p')));
    ASSERT_TRUE(request.has_value());
    EXPECT_EQ(request->user_password.size(), length);
  }
}

// ---- passwords

// RFC 2865 section 7.1: user "nemo", password "arctangent", secret "xyzzy5461".
TEST(RadiusPassword, MatchesTheExampleOfRfc2865) {
  const Packet hidden = from_hex("0dbe708d93d413ce3196e43f782a0aee");
  EXPECT_TRUE(pap("arctangent", hidden, "xyzzy5461"));
  EXPECT_FALSE(pap("arctangenT", hidden, "xyzzy5461"));
  EXPECT_FALSE(pap("arctangent", hidden, "xyzzy5462"));
}

TEST(RadiusPassword, SixteenCharactersAreOneBlockAndSeventeenTwo) {
  for (const std::size_t length : {1U, 15U, 16U, 17U, 31U, 32U, 33U, 48U}) {
    const std::string password(length, '7');
    const Packet hidden = hide(password, "secret", kAuthenticator);
    EXPECT_EQ(hidden.size(), zelvan::padded_password_length(length));
    EXPECT_TRUE(pap(password, hidden, "secret")) << length;
    EXPECT_FALSE(pap(std::string(length, '8'), hidden, "secret")) << length;
  }
}

TEST(RadiusPassword, LastByteOfTheSecondBlockCounts) {
  Packet hidden = hide(std::string(20, '1'), "secret", kAuthenticator);
  hidden.back() ^= 1;
  EXPECT_FALSE(pap(std::string(20, '1'), hidden, "secret"));
}

TEST(RadiusPassword, OtherPaddedLengthNeverMatches) {
  Packet hidden = hide("123456", "secret", kAuthenticator);
  hidden.resize(32);
  EXPECT_FALSE(pap("123456", hidden, "secret"));
  EXPECT_FALSE(pap("123456", {}, "secret"));
}

TEST(RadiusPassword, EmptyCandidateMatchesAnEmptyPasswordOnly) {
  EXPECT_TRUE(pap("", {}, "secret"));
  EXPECT_FALSE(pap("", hide("1", "secret", kAuthenticator), "secret"));
}

TEST(RadiusPassword, LongestSecretIsTakenWholeAndALongerOneRefused) {
  const std::string longest(56, 's');
  EXPECT_TRUE(pap("123456", hide("123456", longest, kAuthenticator), longest));
  EXPECT_FALSE(pap("123456", hide("123456", longest + "s", kAuthenticator), longest + "s"));
}

TEST(RadiusPassword, CandidateBeyondThreeBlocksNeverMatches) {
  const std::string password(49, 'p');
  EXPECT_FALSE(pap(password, hide(password, "secret", kAuthenticator), "secret"));
}

TEST(RadiusChap, UsesTheChallengeWhenThereIsOne) {
  const Packet challenge = bytes_of("challenge");
  const Packet response = md5(Packet{9} + bytes_of("123456") + challenge);
  zelvan::RequestAttributes request;
  request.kind = PasswordKind::chap_password;
  request.chap_identifier = 9;
  request.chap_response = response;
  CMd5 engine;
  EXPECT_FALSE(zelvan::chap_password_matches(engine, "123456", request, authenticator()));
  request.chap_challenge = challenge;
  EXPECT_TRUE(zelvan::chap_password_matches(engine, "123456", request, authenticator()));
  EXPECT_FALSE(zelvan::chap_password_matches(engine, "123457", request, authenticator()));
}

TEST(RadiusChap, UsesTheRequestAuthenticatorOtherwise) {
  const Packet response = md5(Packet{9} + bytes_of("123456") + kAuthenticator);
  zelvan::RequestAttributes request;
  request.chap_identifier = 9;
  request.chap_response = response;
  CMd5 engine;
  EXPECT_TRUE(zelvan::chap_password_matches(engine, "123456", request, authenticator()));
  request.chap_identifier = 8;
  EXPECT_FALSE(zelvan::chap_password_matches(engine, "123456", request, authenticator()));
}

TEST(RadiusChap, LongestChallengeAndCandidateFitTheDigestAndLongerOnesAreRefused) {
  const Packet challenge(126, 'c');
  const std::string candidate(48, '1');
  const Packet response = md5(Packet{0} + bytes_of(candidate) + challenge);
  zelvan::RequestAttributes request;
  request.chap_response = response;
  request.chap_challenge = challenge;
  CMd5 engine;
  EXPECT_TRUE(zelvan::chap_password_matches(engine, candidate, request, authenticator()));
  EXPECT_FALSE(zelvan::chap_password_matches(engine, candidate + "1", request, authenticator()));
}

TEST(RadiusPassword, RevealsTheFirstBlockOnly) {
  std::array<unsigned char, zelvan::kPasswordFieldSize> field{};
  CMd5 engine;
  const std::string password = "0123456789abcdefSECOND";
  zelvan::reveal_user_password(engine, hide(password, "secret", kAuthenticator), "secret", authenticator(), field);
  EXPECT_EQ(text(Bytes(field).first(16)), "0123456789abcdef");
  EXPECT_NE(text(Bytes(field).subspan(16, 6)), "SECOND");
}

TEST(RadiusPassword, RevealsEightBlocksAtMostAndNoPartialBlock) {
  std::array<unsigned char, zelvan::kPasswordFieldSize> field{};
  CMd5 engine;
  zelvan::reveal_user_password(engine, Packet(253, 1), "secret", authenticator(), field);
  EXPECT_NE(text(Bytes(field).last(16)), std::string(16, '\0'));
  field.fill(0);
  zelvan::reveal_user_password(engine, Packet(31, 1), "secret", authenticator(), field);
  EXPECT_NE(text(Bytes(field).first(16)), std::string(16, '\0'));
  EXPECT_EQ(text(Bytes(field).subspan(16, 16)), std::string(16, '\0'));
}

// ---- replies

namespace {

struct Reply {
  std::array<unsigned char, zelvan::kReplyCapacity> bytes{};
  std::size_t length = 0;
};

Reply reply(const zelvan::ReplyPlan& plan, const std::string& secret) {
  Reply result;
  CMd5 engine;
  result.length = zelvan::build_reply(engine, result.bytes, plan, authenticator(), secret);
  return result;
}

Packet unsigned_reply(const Reply& built) {
  Packet bytes(built.bytes.begin(), built.bytes.begin() + static_cast<std::ptrdiff_t>(built.length));
  std::copy(kAuthenticator.begin(), kAuthenticator.end(), bytes.begin() + 4);
  return bytes;
}

Packet response_authenticator(const Reply& built) { return {built.bytes.begin() + 4, built.bytes.begin() + 20}; }

}  // namespace

// RFC 2865 section 7.1 answers with attributes that this server never sends, so the header alone is compared.
TEST(RadiusReply, AcceptIsTwentyBytesAndVerifiesAtTheClient) {
  const Reply built = reply({zelvan::ACCESS_ACCEPT, 42, {}}, "xyzzy5461");
  ASSERT_EQ(built.length, 20U);
  EXPECT_EQ(built.bytes[0], 2);
  EXPECT_EQ(built.bytes[1], 42);
  EXPECT_EQ(built.bytes[2], 0);
  EXPECT_EQ(built.bytes[3], 20);
  EXPECT_EQ(response_authenticator(built), md5(unsigned_reply(built) + bytes_of("xyzzy5461")));
}

TEST(RadiusReply, ChallengeCarriesItsMessageAndVerifiesAtTheClient) {
  const std::string message = "Challenge 1234567 , it will timeout in ten minutes.";
  const Reply built = reply({zelvan::ACCESS_CHALLENGE, 7, message}, "secret");
  ASSERT_EQ(built.length, 22 + message.size());
  EXPECT_EQ(built.bytes[0], 11);
  EXPECT_EQ(built.bytes[3], built.length);
  EXPECT_EQ(built.bytes[20], 18);
  EXPECT_EQ(built.bytes[21], message.size() + 2);
  EXPECT_EQ(text(Bytes(built.bytes).subspan(22, message.size())), message);
  EXPECT_EQ(response_authenticator(built), md5(unsigned_reply(built) + bytes_of("secret")));
}

TEST(RadiusReply, HeaderSpanDigestCoversTwentyBytesAndTheSecretLength) {
  for (const std::size_t length : {0U, 1U, 15U, 16U, 17U, 56U}) {
    const std::string secret(length, 's');
    const Reply built = reply({zelvan::ACCESS_REJECT, 9, "USER NOT EXIST", zelvan::ReplyDigest::header_span}, secret);
    ASSERT_EQ(built.length, 36U);
    Packet covered = unsigned_reply(built) + bytes_of(secret);
    covered.resize(20 + length);
    EXPECT_EQ(response_authenticator(built), md5(covered)) << length;
  }
}

TEST(RadiusReply, SecretDoesNotStayBehindTheReply) {
  const Reply built = reply({zelvan::ACCESS_ACCEPT, 1, {}}, std::string(56, 's'));
  for (std::size_t i = built.length; i < built.bytes.size(); ++i) ASSERT_EQ(built.bytes[i], 0);
}

TEST(RadiusReply, WhatDoesNotFitWithItsSecretIsNotBuilt) {
  EXPECT_EQ(reply({zelvan::ACCESS_REJECT, 1, std::string(178, 'm')}, std::string(56, 's')).length, 200U);
  EXPECT_EQ(reply({zelvan::ACCESS_REJECT, 1, std::string(179, 'm')}, std::string(56, 's')).length, 0U);
  EXPECT_EQ(reply({zelvan::ACCESS_REJECT, 1, std::string(254, 'm')}, "").length, 0U);
}
