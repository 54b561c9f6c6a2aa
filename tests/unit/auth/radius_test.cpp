// Who may ask, what is answered at all, and how the answers are signed.
#include <algorithm>
#include <cstring>

#include "auth/work_item.h"
#include "auth_fixture.h"
#include "config/ConfigFile.h"

using namespace zelvan::test;  // NOLINT: the fixture's words

namespace {

constexpr int kAccept = 2;
constexpr int kReject = 3;

class Radius : public AuthTest {
 protected:
  int find_secret() {
    std::ranges::copy(kClient, analyser.client_address);
    return analyser.GetShareSecret();
  }

  int check(Packet packet) {
    account.publish();
    std::ranges::copy(kClient, analyser.client_address);
    return analyser.authdatacheck(packet.data(), reply.data(), reply_length);
  }

  CAnalyseAuthData analyser;
  std::array<unsigned char, zelvan::kReplyCapacity> reply{};
  int reply_length = -1;
};

Packet authenticator_of(const Answer& answer) { return {answer.reply.begin() + 4, answer.reply.begin() + 20}; }

}  // namespace

// ---- shared secret

TEST_F(Radius, OwnSecretGoesBeforeTheCatchAll) {
  set_shares({{"0.0.0.0", "everyone"}, {"10.0.0.7", "own"}});
  EXPECT_EQ(find_secret(), 1);
  EXPECT_STREQ(analyser.client_text, "10.0.0.7");
  EXPECT_STREQ(analyser.shared_secret, "own");
  EXPECT_EQ(analyser.shared_secret_length, 3);
}

TEST_F(Radius, OtherClientsHaveTheCatchAll) {
  set_shares({{"10.0.0.8", "other"}, {"0.0.0.0", "everyone"}});
  EXPECT_EQ(find_secret(), 1);
  EXPECT_STREQ(analyser.shared_secret, "everyone");
  EXPECT_STREQ(analyser.client_text, "10.0.0.7");
}

TEST_F(Radius, WithoutAnySecretThereIsNone) {
  set_shares({{"10.0.0.8", "other"}});
  EXPECT_EQ(find_secret(), 0);
  EXPECT_STREQ(analyser.client_text, "10.0.0.7");
  set_shares({});
  EXPECT_EQ(find_secret(), 0);
}

TEST_F(Radius, SecretOf56CharactersIsTakenWhole) {
  set_shares({{"10.0.0.7", std::string(56, 's')}, {"0.0.0.0", "everyone"}});
  EXPECT_EQ(find_secret(), 1);
  EXPECT_EQ(analyser.shared_secret, std::string(56, 's'));
  EXPECT_EQ(analyser.shared_secret_length, 56);
}

TEST_F(Radius, SecretOf57CharactersFallsBackToTheCatchAll) {
  set_shares({{"10.0.0.7", std::string(57, 's')}, {"0.0.0.0", "everyone"}});
  EXPECT_EQ(find_secret(), 1);
  EXPECT_STREQ(analyser.shared_secret, "everyone");
  set_shares({{"10.0.0.7", std::string(57, 's')}, {"0.0.0.0", std::string(57, 'e')}});
  EXPECT_EQ(find_secret(), 0);
}

TEST_F(Radius, LongestAddressFitsItsText) {
  std::ranges::fill(analyser.client_address, 255);
  set_shares({{"255.255.255.255", "far"}});
  EXPECT_EQ(analyser.GetShareSecret(), 1);
  EXPECT_STREQ(analyser.client_text, "255.255.255.255");
}

// ---- who gets no reply

TEST_F(Radius, NullBuffersGetNoReply) {
  Packet packet = client.pap("alice", code(5));
  EXPECT_EQ(analyser.authdatacheck(nullptr, reply.data(), reply_length), AUTHDATA_NO_REPLY);
  EXPECT_EQ(analyser.authdatacheck(packet.data(), nullptr, reply_length), AUTHDATA_NO_REPLY);
  EXPECT_EQ(reply_length, -1);
  EXPECT_TRUE(executed().empty());
}

TEST_F(Radius, ClientWithoutASecretGetsNoReplyWhateverTheCode) {
  set_shares({});
  for (const unsigned char radius_code : Packet{1, 2, 4, 255}) {
    Packet packet = client.pap("alice", code(5));
    packet[0] = radius_code;
    EXPECT_EQ(check(packet), AUTHDATA_NO_SECRET) << int{radius_code};
  }
  EXPECT_EQ(send(client.pap("alice", code(5))).result, RESOLVE_NO_REPLY);
  EXPECT_TRUE(executed().empty());
}

TEST_F(Radius, CatchAllSecretIsAnsweredWith) {
  set_shares({{"0.0.0.0", "everyone"}});
  client.secret = "everyone";
  const Answer answer = login(code(5));
  EXPECT_EQ(answer.code(), kAccept);
  EXPECT_EQ(authenticator_of(answer), client.response_authenticator(answer.reply));
}

TEST_F(Radius, OtherCodesThanAccessRequestGetNoReply) {
  for (const unsigned char radius_code : Packet{0, 2, 3, 4, 5, 11, 12, 255}) {
    Packet packet = client.pap("alice", code(5));
    packet[0] = radius_code;
    EXPECT_EQ(check(packet), AUTHDATA_NO_REPLY) << int{radius_code};
    EXPECT_EQ(send(packet).result, RESOLVE_NO_REPLY);
  }
  EXPECT_TRUE(executed().empty());
}

// ---- what is kept of a request

TEST_F(Radius, HeaderAndNameAreKept) {
  EXPECT_EQ(check(client.pap("alice", code(5))), AUTHDATA_ACCEPT);
  EXPECT_EQ(analyser.packet_code, 1);
  EXPECT_EQ(analyser.packet_identifier, 42);
  EXPECT_EQ(analyser.packet_length, 20 + 7 + 18);
  EXPECT_EQ(Packet(analyser.request_authenticator, analyser.request_authenticator + 16), client.authenticator);
  EXPECT_STREQ(analyser.user_name, "alice");
  EXPECT_EQ(analyser.user_name_length, 5);
  EXPECT_EQ(analyser.password_seen, 1);
  EXPECT_EQ(analyser.matched, 1);
  EXPECT_EQ(std::string(analyser.password_field, analyser.password_field + 6), code(5));
  EXPECT_EQ(reply_length, 20);
}

TEST_F(Radius, ChapIsNoUserPasswordSeen) {
  EXPECT_EQ(check(client.chap("alice", code(5))), AUTHDATA_ACCEPT);
  EXPECT_EQ(analyser.password_seen, 0);
}

TEST_F(Radius, LengthFieldBoundsTheAttributes) {
  Packet packet = client.pap("alice", code(5));
  packet[3] = 27;  // ends behind the name
  EXPECT_EQ(send(packet).code(), kReject);
  EXPECT_EQ(executed().front(), sql::select_user());
}

TEST_F(Radius, LengthBelowTheHeaderIsARequestWithoutAttributes) {
  account.has_user = false;
  for (const unsigned char length : Packet{0, 19, 20}) {
    Packet packet = client.pap("alice", code(5));
    packet[3] = length;
    EXPECT_EQ(send(packet).reply.size(), 36U);
    EXPECT_EQ(executed().back(), sql::select_user(""));
  }
}

TEST_F(Radius, NameOfNineteenCharactersComesWhole) {
  const std::string name(19, 'n');
  EXPECT_EQ(send(client.pap(name, code(5))).code(), kAccept);
  EXPECT_EQ(executed().front(), sql::select_user(name));
}

TEST_F(Radius, NameEndsAtANulByte) {
  EXPECT_EQ(send(client.pap(std::string("alice\0bob", 9), code(5))).code(), kAccept);
  EXPECT_EQ(executed().front(), sql::select_user());
}

TEST_F(Radius, MalformedRequestsAreRejectedPlainlyBeforeAnyDatabaseAccess) {
  const Packet password = attribute(2, client.hide(code(5)));
  const Packet name = attribute(1, "alice");
  for (const Packet& attributes : {
           attribute(1, "") + password,                    // empty name
           attribute(1, std::string(20, 'n')) + password,  // name without room for its NUL
           name + attribute(3, std::string(16, 'c')),      // CHAP-Password too short
           name + attribute(3, std::string(18, 'c')),      // too long
           name + password + attribute(60, "1234"),        // CHAP-Challenge too short
           name + password + attribute(60, std::string(127, 'c')), name + password + Packet{26, 1},  // Length below 2
           name + password + Packet{26, 0}, name + password + Packet{26, 9, 0},                      // past the end
           name + password + Packet{26},                                                             // no Length at all
       }) {
    const Answer answer = send(client.request(attributes));
    EXPECT_EQ(answer.code(), kReject);
    EXPECT_EQ(answer.reply.size(), 20U);
    EXPECT_EQ(authenticator_of(answer), client.response_authenticator(answer.reply));
  }
  EXPECT_TRUE(executed().empty());
}

TEST_F(Radius, UnknownAttributesAreSkipped) {
  const Packet others = attribute(4, "\x0A\x01\x01\x01") + attribute(80, std::string(16, 'm')) + attribute(33, "state");
  EXPECT_EQ(send(client.request(others + attribute(1, "alice") + others + attribute(2, client.hide(code(5))) + others))
                .code(),
            kAccept);
}

TEST_F(Radius, LongestUserPasswordIsAWrongOne) {
  EXPECT_EQ(send(client.request(attribute(1, "alice") + attribute(2, std::string(253, 'p')))).code(), kReject);
  EXPECT_EQ(send(client.request(attribute(1, "alice") + attribute(2, ""))).code(), kReject);
}

// ---- replies

TEST_F(Radius, AcceptAndRejectVerifyAtTheClientForEverySecretLength) {
  for (const std::size_t length : {1U, 15U, 16U, 17U, 55U, 56U}) {
    client.secret = std::string(length, 's');
    set_shares({{"10.0.0.7", client.secret}});
    for (const std::string& password : {code(5), code(4)}) {
      const Answer answer = login(password);
      EXPECT_EQ(answer.code(), password == code(5) ? kAccept : kReject);
      EXPECT_EQ(answer.reply.size(), 20U);
      EXPECT_EQ(answer.reply[1], client.identifier);
      EXPECT_EQ(authenticator_of(answer), client.response_authenticator(answer.reply));
    }
  }
}

TEST_F(Radius, RejectOfAnUnknownUserSaysSo) {
  account.has_user = false;
  const Answer answer = login(code(5));
  EXPECT_EQ(answer.code(), kReject);
  EXPECT_EQ(answer.reply[1], client.identifier);
  EXPECT_EQ(answer.reply.size(), 36U);
  EXPECT_EQ(Packet(answer.reply.begin() + 20, answer.reply.end()), attribute(18, "USER NOT EXIST"));
}

// Deliberate: the digest does not grow by the attribute, so it does not verify at a client.
TEST_F(Radius, RejectOfAnUnknownUserIsSignedOverTwentyBytesAndTheSecretLength) {
  account.has_user = false;
  for (const std::size_t length : {1U, 6U, 15U, 16U, 17U, 56U}) {
    client.secret = std::string(length, 's');
    set_shares({{"10.0.0.7", client.secret}});
    const Answer answer = login(code(5));
    EXPECT_EQ(authenticator_of(answer), client.response_authenticator(answer.reply, 20 + length)) << length;
    EXPECT_NE(authenticator_of(answer), client.response_authenticator(answer.reply));
  }
}

TEST_F(Radius, OnlyAMissingUserIsSaidNotToExist) {
  account.has_token = false;
  EXPECT_EQ(login(code(5)).reply.size(), 20U);
  odbc_clear_answers();
  odbc_answer("select serialnum", {{}, SQL_ERROR, 0});
  EXPECT_EQ(resolve(client.pap("alice", code(5))).reply.size(), 20U);
}

TEST_F(Radius, ReplyOverwritesNoMoreThanItsLength) {
  Packet data = client.pap("alice", code(5));
  data.resize(256, 0xEE);
  const auto item = zelvan::WorkItemView::make(1645, kClient, data);
  account.publish();
  CAnalyseAuthData resolver;
  EXPECT_EQ(resolver.Resolve(item.get()), RESOLVE_SEND_REPLY);
  const unsigned char* const packet = zelvan::WorkItemView(item.get()).packet();
  EXPECT_EQ(Packet(packet + 20, packet + 256), Packet(data.begin() + 20, data.end()));
}

TEST_F(Radius, RequestWithoutAReplyStaysAsItWas) {
  Packet packet = client.pap("alice", code(5));
  packet[0] = 4;
  EXPECT_EQ(send(packet).reply, packet);
}
