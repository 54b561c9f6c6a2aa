#include "sync/synchronize.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <random>
#include <thread>

#include "unit/sync/sync_fixture.h"

namespace {

std::atomic<int> failing_sends{0};    // how many of the service's next sends fail
std::atomic<int> sends{0};            // sends of the service so far
std::atomic<bool> no_sockets{false};  // socket(2) fails

}  // namespace

extern "C" {

ssize_t __real_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* to, socklen_t to_size);
ssize_t __wrap_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* to, socklen_t to_size);
ssize_t __wrap_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* to, socklen_t to_size) {
  ++sends;
  if (failing_sends > 0) {
    --failing_sends;
    errno = ENOBUFS;
    return -1;
  }
  return __real_sendto(fd, data, size, flags, to, to_size);
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
  if (!no_sockets) return __real_socket(domain, type, protocol);
  errno = EMFILE;
  return -1;
}

}  // extern "C"

namespace zelvan::test {
namespace {

using Packet = std::vector<unsigned char>;

const Packet kRefusal{3, 0, 3};

Packet request(std::string_view user_name, std::string_view password) {
  std::array<unsigned char, kSyncRequestCapacity> out{};
  const std::size_t length = build_sync_request(out, user_name, password);
  return {out.begin(), out.begin() + static_cast<std::ptrdiff_t>(length)};
}

// The code of a reply; 0 when there was none.
int code_of(const Packet& reply) { return reply.empty() ? 0 : reply[0]; }

sockaddr_in service_address() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kSyncPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A client on loopback.  Its socket is connected, so that send(2) stays clear of the calls that fail.
class Client {
 public:
  Client() : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
    const sockaddr_in address = service_address();
    EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    wait_up_to(10);
  }
  ~Client() { close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void wait_up_to(int seconds) {
    const timeval timeout{seconds, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  }

  void send(const Packet& datagram) {
    EXPECT_EQ(::send(fd_, datagram.data(), datagram.size(), 0), static_cast<ssize_t>(datagram.size()));
  }

  // The next reply; empty when none came in time.
  Packet receive() {
    Packet reply(2048);
    const ssize_t size = recv(fd_, reply.data(), reply.size(), 0);
    reply.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return reply;
  }

  Packet ask(const Packet& datagram) {
    send(datagram);
    return receive();
  }

 private:
  int fd_;
};

// True when the port can be had.
bool port_is_free() {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  const sockaddr_in address = service_address();
  const bool bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return bound;
}

class SynchronizeTest : public SyncFixture {
 protected:
  void SetUp() override {
    SyncFixture::SetUp();
    failing_sends = 0;
    sends = 0;
    no_sockets = false;
    script();
  }

  void TearDown() override {
    stop();
    SyncFixture::TearDown();
  }

  // Starts the service and returns once it listens.
  void start() {
    service_ = std::thread([this] { result_ = synsecretinfo(&stop_); });
    // Its first pass begins behind the bind.
    while (sleeps().empty()) std::this_thread::yield();
  }

  // Sets the exit flag and wakes the service with a datagram.
  void stop() {
    if (!service_.joinable()) return;
    stop_ = 1;
    Client().send({0});
    service_.join();
    EXPECT_EQ(result_, nullptr);
  }

  std::atomic<int> stop_{0};
  std::thread service_;
  void* result_ = this;
};

TEST_F(SynchronizeTest, AnswersARightCodeOverTheWire) {
  start();
  Client client;
  const auto reply = parse_sync_reply(client.ask(request("alice", kCodes[0])));
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->answer, SyncAnswer::accepted);
  EXPECT_EQ(reply->token.low_counter, 1U);
  EXPECT_STREQ(reply->token.secret.data(), "loopback-secret");
}

TEST_F(SynchronizeTest, HeaderAloneIsRefused) {
  start();
  EXPECT_EQ(Client().ask({1, 0, 3}), kRefusal);
}

TEST_F(SynchronizeTest, SenderWithoutSecretIsRefusedWhateverItSends) {
  use_settings("[share]\n10.0.0.1=other\n");
  start();
  Client client;
  EXPECT_EQ(client.ask({0}), kRefusal);
  EXPECT_EQ(client.ask(Packet(1500, 0xFF)), kRefusal);
}

TEST_F(SynchronizeTest, DroppedDatagramIsNotAnswered) {
  start();
  Client client;
  client.send({2, 0, 3});
  client.send({1, 0, 0x80});
  client.send({});
  EXPECT_EQ(client.ask({1, 0, 3}), kRefusal);
  stop();
  EXPECT_EQ(sends, 1);
}

TEST_F(SynchronizeTest, DatagramBeyond1024BytesIsCutThere) {
  Packet datagram{1, 4, 0};
  while (datagram.size() < 1024) {
    const std::size_t size = std::min<std::size_t>(1024 - datagram.size(), 117);
    datagram.push_back(99);
    datagram.push_back(static_cast<unsigned char>(size));
    datagram.resize(datagram.size() + size - 2);
  }
  ASSERT_EQ(datagram.size(), 1024U);
  datagram.resize(1400, 0xFF);
  start();
  EXPECT_EQ(Client().ask(datagram), kRefusal);
}

TEST_F(SynchronizeTest, RepliesGoToTheirSenders) {
  start();
  Client first;
  Client second;
  first.send({1, 0, 3});
  second.send(request("alice", kCodes[0]));
  EXPECT_EQ(code_of(second.receive()), SYNPKG_ACCEPTED);
  EXPECT_EQ(first.receive(), kRefusal);
}

TEST_F(SynchronizeTest, EveryPassBeginsWithHalfASecond) {
  start();
  Client client;
  EXPECT_EQ(client.ask({1, 0, 3}), kRefusal);
  EXPECT_EQ(client.ask({1, 0, 3}), kRefusal);
  stop();
  const auto pauses = sleeps();
  EXPECT_GE(pauses.size(), 2U);
  EXPECT_TRUE(std::ranges::all_of(pauses, [](unsigned long ms) { return ms == 500; }));
}

TEST_F(SynchronizeTest, FailedSendIsRepeatedOnceAfterTenMilliseconds) {
  start();
  failing_sends = 1;
  EXPECT_EQ(Client().ask({1, 0, 3}), kRefusal);
  stop();
  EXPECT_EQ(sends, 2);
  EXPECT_EQ(std::ranges::count(sleeps(), 10UL), 1);
}

TEST_F(SynchronizeTest, ReplyIsGivenUpAfterTheSecondFailure) {
  start();
  failing_sends = 2;
  Client client;
  client.send({1, 0, 3});
  EXPECT_EQ(code_of(client.ask(request("alice", kCodes[0]))), SYNPKG_ACCEPTED);  // to the second request
  stop();
  EXPECT_EQ(sends, 3);
}

TEST_F(SynchronizeTest, EndsWithoutADatagramAtMostASelectAfterTheFlag) {
  start();
  stop_ = 1;
  const auto begin = std::chrono::steady_clock::now();
  service_.join();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  EXPECT_EQ(result_, nullptr);
}

TEST_F(SynchronizeTest, GoesOnAfterPassesWithoutADatagram) {
  start();
  while (sleeps().size() < 2) std::this_thread::yield();  // one whole select of 2 s
  EXPECT_EQ(Client().ask({1, 0, 3}), kRefusal);
}

TEST_F(SynchronizeTest, ExitFlagThatIsSetBeforehandServesNothing) {
  stop_ = 1;
  EXPECT_EQ(synsecretinfo(&stop_), nullptr);
  EXPECT_TRUE(sleeps().empty());
}

TEST_F(SynchronizeTest, GivesTheSocketAndTheStatementBack) {
  start();
  EXPECT_FALSE(port_is_free());
  EXPECT_EQ(Client().ask({1, 0, 3}), kRefusal);
  EXPECT_EQ(odbc_live(SQL_HANDLE_STMT), 1);
  stop();
  EXPECT_TRUE(port_is_free());
  EXPECT_EQ(odbc_live(SQL_HANDLE_STMT), 0);
}

TEST_F(SynchronizeTest, EndsSilentlyWhenThePortIsTaken) {
  const int holder = socket(AF_INET, SOCK_DGRAM, 0);
  const sockaddr_in address = service_address();
  ASSERT_EQ(bind(holder, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const int next_free = dup(holder);
  close(next_free);
  EXPECT_EQ(synsecretinfo(&stop_), nullptr);
  EXPECT_TRUE(sleeps().empty());
  const int still_free = dup(holder);
  EXPECT_EQ(still_free, next_free);  // its own socket was closed
  close(still_free);
  close(holder);
}

TEST_F(SynchronizeTest, EndsSilentlyWithoutASocket) {
  no_sockets = true;
  EXPECT_EQ(synsecretinfo(&stop_), nullptr);
  EXPECT_TRUE(sleeps().empty());
}

TEST_F(SynchronizeTest, OneStatementObjectServesAllDatagrams) {
  start();
  Client client;
  // A reconnect frees the connection that the service's object was made with.
  advance_clock(61);
  ASSERT_EQ(otp_database.DBReConnect(), kReconnected);
  EXPECT_EQ(client.ask(request("alice", kCodes[0])), kRefusal);
}

TEST_F(SynchronizeTest, StormOfRandomDatagramsLeavesItAnswering) {
  start();
  std::mt19937 random(8801);
  Client client;
  const Packet good = request("nobody", "123456");
  for (int round = 0; round < 3000; ++round) {
    Packet datagram(random() % 3 == 0 ? good : Packet(random() % 1400));
    if (datagram == good) {
      for (int i = 0; i < 3; ++i) datagram[random() % datagram.size()] = static_cast<unsigned char>(random());
    } else {
      for (auto& byte : datagram) byte = static_cast<unsigned char>(random() % 5 == 0 ? random() : random() % 8);
      if (datagram.size() >= 3 && random() % 2 == 0) {
        datagram[0] = 1;
        datagram[1] = static_cast<unsigned char>(datagram.size() >> 8);
        datagram[2] = static_cast<unsigned char>(datagram.size());
      }
    }
    client.send(datagram);
    if (round % 100 == 99) {
      // In step with the service, so that the storm is not lost in a full socket buffer.
      Client probe;
      ASSERT_EQ(probe.ask({1, 0, 3}), kRefusal) << round;
    }
  }
  const auto reply = parse_sync_reply(Client().ask(request("alice", kCodes[0])));
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->answer, SyncAnswer::accepted);
}

// Stopping is for good, so it happens in a process of its own.
TEST_F(SynchronizeTest, StoppedServiceBeginsNothing) {
  const auto stopped_service_is_silent = [this] {
    start();
    const bool at_rest = zelvan::stop_synchronisation(5) && zelvan::stop_synchronisation(5);
    Client client;
    client.wait_up_to(1);
    const bool silent = client.ask(request("alice", kCodes[0])).empty();
    std::_Exit(at_rest && silent ? 0 : 1);
  };
  EXPECT_EXIT(stopped_service_is_silent(), testing::ExitedWithCode(0), "");
}

TEST_F(SynchronizeTest, StoppingWaitsForADatagramThatIsBeingServedButNotForEver) {
  const auto stopping_gives_up = [this] {
    std::atomic<bool> serving{false};
    odbc_on_execute([&](const std::string&) {
      serving = true;
      for (;;) pause();
    });
    start();
    Client().send(request("alice", kCodes[0]));
    while (!serving) std::this_thread::yield();
    std::_Exit(zelvan::stop_synchronisation(0) ? 1 : 0);
  };
  EXPECT_EXIT(stopping_gives_up(), testing::ExitedWithCode(0), "");
}

TEST(Netenv, HasNothingToDo) {
  EXPECT_TRUE(initnetenv());
  EXPECT_TRUE(cleannetenv());
}

TEST(Closesock, ClosesADescriptor) {
  const int fd = dup(2);
  ASSERT_GT(fd, 0);
  closesock(static_cast<unsigned int>(fd));
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST(Closesock, LeavesDescriptorZeroOpen) {
  const bool had_none = fcntl(0, F_GETFD) == -1;
  if (had_none) {
    ASSERT_EQ(open("/dev/null", O_RDONLY), 0);
  }
  closesock(0);
  EXPECT_NE(fcntl(0, F_GETFD), -1);
}

}  // namespace
}  // namespace zelvan::test
