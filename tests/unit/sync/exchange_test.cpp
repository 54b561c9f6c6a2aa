#include "sync/exchange.h"

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "db/account_lock.h"
#include "sync/token_state.h"
#include "unit/sync/sync_fixture.h"

namespace zelvan::test {
namespace {

using Packet = std::vector<unsigned char>;

const Packet kRefusal{3, 0, 3};

Packet request(std::string_view user_name, std::string_view password) {
  std::array<unsigned char, kSyncRequestCapacity> out{};
  const std::size_t length = build_sync_request(out, user_name, password);
  return {out.begin(), out.begin() + static_cast<std::ptrdiff_t>(length)};
}

class ExchangeTest : public SyncFixture {
 protected:
  // The reply to a datagram; empty when it was dropped.
  Packet answer(const Packet& datagram, const char* address = "127.0.0.1") {
    script();
    CQENTDatabase database(&otp_database);
    CSynpkg reply;
    if (!answer_datagram(database, address, datagram, reply)) {
      EXPECT_EQ(reply.packet, nullptr);
      return {};
    }
    const auto bytes = packet_bytes(reply);
    return {bytes.begin(), bytes.end()};
  }

  SyncReply read(const Packet& bytes) {
    const auto reply = parse_sync_reply(bytes);
    EXPECT_TRUE(reply);
    return reply.value_or(SyncReply());
  }

  // The secret found for an address; empty when there is none.
  static std::string secret_of(const char* address) {
    std::array<char, kSyncSecretLimit + 1> secret{};
    const bool found = find_shared_secret(address, secret);
    EXPECT_EQ(found, secret[0] != '\0');
    return secret.data();
  }
};

// ---- the shared secret

TEST_F(ExchangeTest, ClientHasItsOwnSecret) {
  use_settings("[share]\n0.0.0.0=all\n10.1.2.3=own\n");
  EXPECT_EQ(secret_of("10.1.2.3"), "own");
}

TEST_F(ExchangeTest, OtherClientsHaveTheCatchAllSecret) {
  use_settings("[share]\n10.1.2.3=own\n0.0.0.0=all\n");
  EXPECT_EQ(secret_of("10.1.2.4"), "all");
}

TEST_F(ExchangeTest, EmptySecretFallsBackToTheCatchAll) {
  use_settings("[share]\n10.1.2.3=\n0.0.0.0=all\n");
  EXPECT_EQ(secret_of("10.1.2.3"), "all");
}

TEST_F(ExchangeTest, SecretOf24CharactersIsTaken) {
  use_settings("[share]\n10.1.2.3=" + std::string(24, 's') + "\n");
  EXPECT_EQ(secret_of("10.1.2.3"), std::string(24, 's'));
}

TEST_F(ExchangeTest, SecretOf25CharactersCountsAsMissing) {
  use_settings("[share]\n10.1.2.3=" + std::string(25, 's') + "\n0.0.0.0=all\n");
  EXPECT_EQ(secret_of("10.1.2.3"), "all");
  use_settings("[share]\n10.1.2.3=" + std::string(25, 's') + "\n0.0.0.0=" + std::string(25, 'a') + "\n");
  EXPECT_EQ(secret_of("10.1.2.3"), "");
}

TEST_F(ExchangeTest, SectionIsShare) {
  use_settings("[other]\n127.0.0.1=x\n0.0.0.0=y\n");
  EXPECT_EQ(secret_of("127.0.0.1"), "");
}

TEST_F(ExchangeTest, SenderWithoutSecretIsRefusedBeforeTheDatagramIsLookedAt) {
  for (const Packet& datagram : {Packet{0}, Packet{9, 9, 9}, Packet{1, 0, 0x80}, request("alice", kCodes[0])}) {
    EXPECT_EQ(answer(datagram, "10.9.9.9"), kRefusal);
  }
  EXPECT_TRUE(odbc_executed().empty());
}

// ---- dropped datagrams

TEST_F(ExchangeTest, MalformedDatagramOfAKnownSenderIsDropped) {
  for (const Packet& datagram : {Packet{1}, Packet{2, 0, 3}, Packet{1, 0, 4}, Packet{1, 0, 5, 1, 1},
                                 Packet{1, 0, 5, 2, 0}, Packet{1, 0, 6, 1, 4, 'a'}}) {
    EXPECT_EQ(answer(datagram), Packet());
  }
  EXPECT_TRUE(odbc_executed().empty());
}

TEST_F(ExchangeTest, LowLengthByteOf0x80IsNeverAnswered) {
  Packet datagram{1, 0, 0x80, 9, 0x7D};
  datagram.resize(0x80);
  EXPECT_EQ(answer(datagram), Packet());
}

// ---- refusals

TEST_F(ExchangeTest, HeaderAloneIsRefusedForWantOfAUser) {
  EXPECT_EQ(answer({1, 0, 3}), kRefusal);
  EXPECT_EQ(odbc_executed(),
            std::vector<std::string>{"select authtype, pin, serialnum, preusedate from userinfo where username=''"});
}

TEST_F(ExchangeTest, EveryFailureIsTheSameRefusal) {
  EXPECT_EQ(answer(request("nobody", kCodes[0])), kRefusal);  // -2
  EXPECT_EQ(answer(request("alice", "000000")), kRefusal);    // -4
  odbc_return(OdbcCall::exec_direct, SQL_ERROR);              // -1
  EXPECT_EQ(answer(request("alice", kCodes[0])), kRefusal);
  odbc_return(OdbcCall::get_data, SQL_ERROR);  // -3
  EXPECT_EQ(answer(request("alice", kCodes[0])), kRefusal);
  odbc_return(OdbcCall::exec_direct, SQL_ERROR, 3);  // -5
  EXPECT_EQ(answer(request("alice", kCodes[0])), kRefusal);
  token.type = "3";
  token.high = "1";
  EXPECT_EQ(answer(request("alice", "000000")), kRefusal);  // -6
}

TEST_F(ExchangeTest, ReaderOfAFailedFirstSelectIsRefusedEvenWithARightCode) {
  odbc_return(OdbcCall::get_data, SQL_ERROR, 4);
  EXPECT_EQ(answer(request("alice", kCodes[0])), kRefusal);
  EXPECT_TRUE(updates().empty());
}

TEST_F(ExchangeTest, StatementThatDoesNotFitIsRefused) {
  EXPECT_EQ(answer(request(std::string(30, '\''), kCodes[0])), kRefusal);
}

// ---- answers

TEST_F(ExchangeTest, RightCodeIsAnsweredWithTheToken) {
  user = {"2", "PiN", "SN-1", kNowText};
  token.high = "0";
  token.low = "2";
  const Packet bytes = answer(request("alice", std::string(kCodes[4]) + "pin"));
  const SyncReply reply = read(bytes);
  ASSERT_EQ(reply.answer, SyncAnswer::accepted);
  EXPECT_EQ(reply.token.code_digits, 6);
  EXPECT_EQ(reply.token.token_type, 1);
  EXPECT_EQ(reply.token.auth_type, 2);
  EXPECT_EQ(reply.token.high_counter, 0U);
  EXPECT_EQ(reply.token.low_counter, 5U);
  EXPECT_STREQ(reply.token.pin.data(), "PiN");
  EXPECT_STREQ(reply.token.key.data(), kKey);
  EXPECT_STREQ(reply.token.secret.data(), "loopback-secret");
  EXPECT_EQ(reply.token.clock, static_cast<std::uint32_t>(kNow));
  EXPECT_EQ(time_step_seconds(reply.token), 60);
}

TEST_F(ExchangeTest, AttributesComeInTheirOrder) {
  const Packet bytes = answer(request("alice", kCodes[0]));
  std::vector<int> types;
  for (std::size_t at = 3; at < bytes.size(); at += bytes[at + 1]) types.push_back(bytes[at]);
  EXPECT_EQ(types, (std::vector{4, 5, 6, 7, 8, 10, 9, 12, 11, 13}));
}

TEST_F(ExchangeTest, ClockIsTheRealOneInEveryTimeZone) {
  setenv("TZ", "XYZ-5", 1);
  tzset();
  const SyncReply reply = read(answer(request("alice", kCodes[0])));
  unsetenv("TZ");
  tzset();
  EXPECT_EQ(reply.token.clock, static_cast<std::uint32_t>(kNow));
}

TEST_F(ExchangeTest, CatchAllSecretIsTheOneReturned) {
  use_settings("[share]\n0.0.0.0=for-all\n");
  EXPECT_STREQ(read(answer(request("alice", kCodes[0]), "10.1.1.1")).token.secret.data(), "for-all");
}

TEST_F(ExchangeTest, TimeStepIsTheColumnsTextPaddedWithZeros) {
  token.time_step = "07";
  const Packet bytes = answer(request("alice", kCodes[0]));
  EXPECT_EQ(Packet(bytes.end() - 5, bytes.end()), (Packet{13, 5, '0', '7', 0}));
}

TEST_F(ExchangeTest, ChallengeIsIssuedThenAnswered) {
  token.type = "3";
  user.pin = "pin";
  const SyncReply challenge = read(answer(request("alice", "pin")));
  ASSERT_EQ(challenge.answer, SyncAnswer::challenged);
  EXPECT_GE(challenge.challenge, 1000U);
  EXPECT_LE(challenge.challenge, 999998U);
  ASSERT_EQ(updates().size(), 1U);
  EXPECT_TRUE(
      updates()[0].starts_with("update keyinfo set hcounter=1, lcounter=" + std::to_string(challenge.challenge) + ","));

  token.high = "1";
  token.low = "7";
  const SyncReply accepted = read(answer(request("alice", kCodes[7])));
  ASSERT_EQ(accepted.answer, SyncAnswer::accepted);
  EXPECT_EQ(accepted.token.token_type, 3);
  EXPECT_EQ(accepted.token.high_counter, 0U);
  EXPECT_EQ(accepted.token.low_counter, 7U);
  EXPECT_TRUE(updates()[1].starts_with("update keyinfo set hcounter=0, lcounter=0,"));
}

// ---- one at a time for an account

TEST_F(ExchangeTest, AccountIsLockedFromTheFirstSelectToTheUpdate) {
  std::mutex mutex;
  std::condition_variable entered;
  bool other_in = false;
  std::thread other;
  odbc_on_execute([&](const std::string& sql) {
    if (sql.starts_with("select authtype")) {
      other = std::thread([&] {
        const AccountLock lock("alice");
        const std::scoped_lock guard(mutex);
        other_in = true;
        entered.notify_all();
      });
    }
    if (sql.starts_with("update")) {
      std::unique_lock guard(mutex);
      // Without the lock the other thread is in long before this time is over.
      EXPECT_FALSE(entered.wait_for(guard, std::chrono::milliseconds(100), [&] { return other_in; }));
    }
  });
  EXPECT_EQ(read(answer(request("alice", kCodes[0]))).answer, SyncAnswer::accepted);
  other.join();
  EXPECT_TRUE(other_in);
}

TEST_F(ExchangeTest, AccountIsFreeAfterARefusal) {
  EXPECT_EQ(answer(request("nobody", "x")), kRefusal);
  std::thread([] { const AccountLock lock("nobody"); }).join();
}

}  // namespace
}  // namespace zelvan::test
