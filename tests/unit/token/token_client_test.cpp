#include "zelvan_token/sync_client.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "token_fixture.h"

namespace zelvan::token {
namespace {

using test::failure_of;
using Datagram = std::vector<unsigned char>;

const Patience kShort{2, 1};
const Patience kOnce{1, 1};

Datagram bytes_of(const CSynpkg& packet) {
  const Bytes bytes = packet_bytes(packet);
  return {bytes.begin(), bytes.end()};
}

Datagram refusal() { return {3, 0, 3}; }

// A server on a loopback port: for each request it says what to answer; nothing means silence.
class ScriptedServer {
 public:
  using Script = std::function<std::optional<Datagram>(const Datagram& request, int number)>;

  ScriptedServer(Script script, int requests) : socket_(::socket(AF_INET, SOCK_DGRAM, 0)), script_(std::move(script)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(0, ::bind(socket_, reinterpret_cast<sockaddr*>(&address), size));
    EXPECT_EQ(0, ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size));
    port_ = ntohs(address.sin_port);
    timeval patience{20, 0};
    EXPECT_EQ(0, ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience));
    thread_ = std::thread([this, requests] { serve(requests); });
  }
  ~ScriptedServer() {
    finish();
    (void)::close(socket_);
  }
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  // Lets another socket send a challenge to each client before this server answers.
  void let_a_stranger_answer_first() { stranger_ = true; }

  // Waits until the expected requests have come.
  void finish() {
    if (thread_.joinable()) thread_.join();
  }

  [[nodiscard]] ServerAddress address() const { return {"127.0.0.1", port_}; }
  [[nodiscard]] const std::vector<Datagram>& requests() const { return requests_; }

 private:
  static void intrude(const sockaddr_in& client) {
    CSynpkg packet;
    build_sync_challenge(packet, 76499);
    const Datagram answer = bytes_of(packet);
    const int stranger = ::socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_LT(0, ::sendto(stranger, answer.data(), answer.size(), 0, reinterpret_cast<const sockaddr*>(&client),
                          sizeof client));
    (void)::close(stranger);
  }

  void serve(int requests) {
    for (int number = 1; number <= requests; ++number) {
      Datagram buffer(2048);
      sockaddr_in client{};
      socklen_t size = sizeof client;
      const ssize_t got =
          ::recvfrom(socket_, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&client), &size);
      if (got < 0) return;
      buffer.resize(static_cast<std::size_t>(got));
      requests_.push_back(buffer);
      if (stranger_) intrude(client);
      if (const auto answer = script_(buffer, number)) {
        (void)::sendto(socket_, answer->data(), answer->size(), 0, reinterpret_cast<sockaddr*>(&client), size);
      }
    }
  }

  int socket_;
  std::uint16_t port_ = 0;
  Script script_;
  std::atomic<bool> stranger_ = false;
  std::vector<Datagram> requests_;
  std::thread thread_;
};

ServerAnswer ask(ScriptedServer& server, const Patience& patience, const char* password = "755224") {
  SyncClient client(server.address());
  return client.ask("alice", Secret(password), patience);
}

ExitCode answered_with(const Datagram& answer) {
  ScriptedServer server([&](const Datagram&, int) { return answer; }, 1);
  return failure_of([&] { (void)ask(server, kOnce); });
}

TEST(SyncClient, SendsNothingThatTheServerWouldCut) {
  SyncClient client({"127.0.0.1", 9});
  EXPECT_EQ(kUsage, failure_of([&] { (void)client.ask("alice", Secret(std::string(31, '1')), kOnce); }));
  EXPECT_EQ(kUsage, failure_of([&] { (void)client.ask("alice", Secret(std::string_view("1\0", 2)), kOnce); }));
}

TEST(SyncClient, CannotFindAServerWithoutAnAddress) {
  EXPECT_EQ(kNoAnswer, failure_of([] { const SyncClient client({"host name with blanks", 8801}); }));
}

TEST(SyncClient, NoticesThatNobodyListens) {
  std::uint16_t port = 0;
  {
    ScriptedServer gone([](const Datagram&, int) { return std::nullopt; }, 0);
    port = gone.address().port;
  }
  SyncClient client({"127.0.0.1", port});
  EXPECT_EQ(kNoAnswer, failure_of([&] { (void)client.ask("alice", Secret("1"), kOnce); }));
}

TEST(SyncClient, SendsTheRequestOfTheProtocol) {
  ScriptedServer server([](const Datagram&, int) { return refusal(); }, 1);
  (void)ask(server, kOnce);
  server.finish();
  const Datagram expected = {1, 0, 18, 1, 7, 'a', 'l', 'i', 'c', 'e', 2, 8, '7', '5', '5', '2', '2', '4'};
  ASSERT_EQ(1U, server.requests().size());
  EXPECT_EQ(expected, server.requests().front());
}

TEST(SyncClient, ReadsARefusal) {
  ScriptedServer server([](const Datagram&, int) { return refusal(); }, 1);
  const ServerAnswer answer = ask(server, kOnce);
  EXPECT_EQ(SyncAnswer::refused, answer.reply.answer);
  EXPECT_EQ(1, answer.tries);
}

TEST(SyncClient, ReadsAnAcceptance) {
  CSynpkg packet;
  build_sync_acceptance(packet, test::received_token());
  ScriptedServer server([&](const Datagram&, int) { return bytes_of(packet); }, 1);
  const ServerAnswer answer = ask(server, kOnce);
  EXPECT_EQ(SyncAnswer::accepted, answer.reply.answer);
  EXPECT_STREQ("4711", answer.reply.token.pin.data());
  EXPECT_EQ(test::kServerClock, answer.reply.token.clock);
}

TEST(SyncClient, ReadsAChallenge) {
  CSynpkg packet;
  build_sync_challenge(packet, 76499);
  ScriptedServer server([&](const Datagram&, int) { return bytes_of(packet); }, 1);
  const ServerAnswer answer = ask(server, kOnce);
  EXPECT_EQ(SyncAnswer::challenged, answer.reply.answer);
  EXPECT_EQ(76499U, answer.reply.challenge);
}

TEST(SyncClient, TakesARequestOfTheServersOwnReader) {
  ScriptedServer server([](const Datagram&, int) { return refusal(); }, 1);
  (void)ask(server, kOnce, "7552244711");
  server.finish();
  const auto request = parse_sync_request(server.requests().at(0));
  ASSERT_TRUE(request);
  EXPECT_STREQ("alice", request->user_name.data());
  EXPECT_STREQ("7552244711", request->password.data());
}

TEST(SyncClient, RepeatsARequestWithoutAnAnswerAndSaysSo) {
  ScriptedServer server(
      [](const Datagram&, int number) { return number == 1 ? std::nullopt : std::optional(refusal()); }, 2);
  EXPECT_EQ(2, ask(server, kShort).tries);
  server.finish();
  EXPECT_EQ(server.requests().at(0), server.requests().at(1));
}

TEST(SyncClient, GivesUpAfterTheLastTry) {
  ScriptedServer server([](const Datagram&, int) { return std::nullopt; }, 2);
  EXPECT_EQ(kNoAnswer, failure_of([&] { (void)ask(server, kShort); }));
  server.finish();
  EXPECT_EQ(2U, server.requests().size());
}

TEST(SyncClient, DoesNotRepeatBehindAnAnswerThatMakesNoSense) {
  for (const Datagram& answer : {Datagram{}, Datagram{3}, Datagram{3, 0, 4}, Datagram{3, 0, 3, 0}, Datagram{1, 0, 3},
                                 Datagram{2, 0, 3}, Datagram{4, 0, 3}, Datagram{3, 0, 5, 9, 1}, Datagram(4096, 3)}) {
    EXPECT_EQ(kMalformed, answered_with(answer)) << answer.size();
  }
}

TEST(SyncClient, RefusesAnAcceptanceThatWasCutAnywhere) {
  CSynpkg packet;
  build_sync_acceptance(packet, test::received_token());
  const Datagram whole = bytes_of(packet);
  for (std::size_t size = 3; size < whole.size(); size += 7) {
    Datagram cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
    cut[2] = static_cast<unsigned char>(size);
    EXPECT_EQ(kMalformed, answered_with(cut)) << size;
  }
}

TEST(SyncClient, HearsNobodyButTheServer) {
  ScriptedServer server([](const Datagram&, int) { return refusal(); }, 1);
  server.let_a_stranger_answer_first();
  EXPECT_EQ(SyncAnswer::refused, ask(server, kOnce).reply.answer);
}

}  // namespace
}  // namespace zelvan::token
