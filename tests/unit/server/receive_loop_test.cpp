#include "server/receive_loop.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "auth/work_item.h"
#include "base/exit_flag.h"
#include "base/sleep.h"
#include "config/ConfigFile.h"
#include "config/settings.h"
#include "log/OTPLog.h"
#include "mail/notifier.h"
#include "pool/threadpool.h"
#include "server/sender.h"
#include "server/worker.h"
#include "support/fake_sleep.h"
#include "unit/server/temporary_folder.h"

// The worker's handler and the other threads' bodies are this file's own, so what the loop hands out stays here.
std::atomic<int> nmailthreadclose{0};

namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

using Bytes = std::vector<unsigned char>;

struct Item {
  zelvan::WorkItem block;
  std::size_t room;  // bytes of the block
};

// What the loop did, told by other threads.
class Record {
 public:
  void clear() {
    const std::scoped_lock lock(mutex_);
    items_.clear();
    threads_.clear();
    port_ = 0;
  }

  void take(Item item) {
    const std::scoped_lock lock(mutex_);
    items_.push_back(std::move(item));
    changed_.notify_all();
  }

  void thread_started(const char* name, std::uint16_t port) {
    const std::scoped_lock lock(mutex_);
    threads_.emplace_back(name);
    if (port != 0) port_ = port;
    changed_.notify_all();
  }

  // Waits for the next item and takes it.
  Item next() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, 20s, [&] { return !items_.empty(); })) {
      ADD_FAILURE() << "no datagram was taken";
      return {std::make_unique<unsigned char[]>(512), 0};
    }
    Item first = std::move(items_.front());
    items_.erase(items_.begin());
    return first;
  }

  [[nodiscard]] std::size_t item_count() {
    const std::scoped_lock lock(mutex_);
    return items_.size();
  }

  // Waits until the sender was started, and returns the port of the socket; 0 when it was not.
  std::uint16_t port() {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, 20s, [&] { return port_ != 0; }));
    return port_;
  }

  // Waits until a thread body of that name runs.
  void wait_for_thread(const char* name) {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, 20s, [&] { return std::ranges::count(threads_, name) > 0; })) << name;
  }

  // Names of the thread bodies that ran.
  [[nodiscard]] std::vector<std::string> threads() {
    const std::scoped_lock lock(mutex_);
    return threads_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Item> items_;
  std::vector<std::string> threads_;
  std::uint16_t port_ = 0;
};

Record& record = *new Record;  // outlives the detached threads
std::atomic<bool> hold_workers{false};
std::atomic<int> sockets_made{0};
std::atomic<bool> socket_fails{false};
std::atomic<int> selects_to_fail{0};
std::atomic<int> receives_to_fail{0};
std::atomic<int> receives_made{0};

}  // namespace

void work_deal(void* item) {
  while (hold_workers) std::this_thread::sleep_for(1ms);
  record.take({zelvan::WorkItem(static_cast<unsigned char*>(item)), malloc_usable_size(item)});
}

void* senddata(void* /*unused*/) {
  sockaddr_in bound{};
  socklen_t size = sizeof bound;
  EXPECT_EQ(getsockname(socksrv, reinterpret_cast<sockaddr*>(&bound), &size), 0);
  EXPECT_EQ(bound.sin_addr.s_addr, htonl(INADDR_ANY));
  record.thread_started("senddata", ntohs(bound.sin_port));
  return nullptr;
}

void* otp_sendmail(void* /*argument*/) {
  record.thread_started("otp_sendmail", 0);
  return nullptr;
}

void* synsecretinfo(void* exit_flag) {
  EXPECT_EQ(exit_flag, &nexit);
  record.thread_started("synsecretinfo", 0);
  return nullptr;
}

extern "C" {
int __real_socket(int, int, int);
int __wrap_socket(int domain, int type, int protocol) {
  ++sockets_made;
  EXPECT_EQ(domain, AF_INET);
  EXPECT_EQ(type, SOCK_DGRAM);
  EXPECT_EQ(protocol, 17);
  return socket_fails ? -1 : __real_socket(domain, type, protocol);
}

int __real_select(int, fd_set*, fd_set*, fd_set*, timeval*);
int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
  EXPECT_EQ(timeout->tv_sec, 1);
  EXPECT_EQ(timeout->tv_usec, 1);
  if (selects_to_fail.fetch_sub(1) > 0) {
    errno = EINTR;
    return -1;
  }
  return __real_select(count, readable, writable, exceptional, timeout);
}

ssize_t __real_recvfrom(int, void*, std::size_t, int, sockaddr*, socklen_t*);
ssize_t __wrap_recvfrom(int socket, void* buffer, std::size_t size, int flags, sockaddr* from, socklen_t* from_size) {
  EXPECT_EQ(size, 512U);
  EXPECT_EQ(flags, 0);
  EXPECT_EQ(*from_size, 16U);
  const ssize_t received = __real_recvfrom(socket, buffer, size, flags, from, from_size);
  ++receives_made;
  return receives_to_fail.fetch_sub(1) > 0 ? -1 : received;
}
}

namespace {

// A well-formed datagram of `size` bytes (4 and up), all but the Length field of value `fill`.
Bytes datagram(std::size_t size, unsigned char fill) {
  Bytes bytes(size, fill);
  bytes[2] = static_cast<unsigned char>(size >> 8U);
  bytes[3] = static_cast<unsigned char>(size & 0xFFU);
  return bytes;
}

class Client {
 public:
  explicit Client(std::uint16_t server_port) : socket_(__real_socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(server_port);
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(socket_, reinterpret_cast<const sockaddr*>(&server), sizeof server), 0);
  }
  ~Client() { (void)close(socket_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void send(const Bytes& bytes) const {
    EXPECT_EQ(::send(socket_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }

  [[nodiscard]] std::uint16_t port() const {
    sockaddr_in own{};
    socklen_t size = sizeof own;
    EXPECT_EQ(getsockname(socket_, reinterpret_cast<sockaddr*>(&own), &size), 0);
    return ntohs(own.sin_port);
  }

 private:
  int socket_;
};

class ReceiveLoop : public testing::Test {
 protected:
  void SetUp() override {
    zelvan::test::clear_sleeps();
    record.clear();
    nexit = nthreadpoolclose = 0;
    nmailthreadclose = 1;
    g_plog = nullptr;
    usg_radiusport = 0;
    ng_logmode = ng_mail_need = 0;
    sockets_made = selects_to_fail = receives_to_fail = receives_made = 0;
    socket_fails = hold_workers = false;
    settings("");
  }

  void TearDown() override {
    stop();
    zelvan::test::clear_sleeps();
  }

  // One worker keeps the datagrams in order.
  void settings(const std::string& text) {
    std::destroy_at(&configfile);
    std::construct_at(&configfile);
    folder_.write("settings", text + "\n[Radius Server]\notp_maxthread=1\n");
    ASSERT_EQ(configfile.config_init("settings"), CONFIG_INIT_OK);
  }

  void start() {
    loop_ = std::thread(servicemain);
    port_ = record.port();
    client_ = std::make_unique<Client>(port_);
  }

  // Sets the exit flag and waits for the end.
  void stop() {
    if (!loop_.joinable()) return;
    nexit = 1;
    wake();
    loop_.join();
    client_.reset();
  }

  // Ends the loop's wait with a datagram that it drops.
  void wake() const { client_->send({0}); }

  // Sends the datagram and one that is taken, behind it; tells whether both were.
  bool is_taken(const Bytes& bytes) const {
    client_->send(bytes);
    client_->send(datagram(20, 0xEE));
    if (record.next().block[6] == 0xEE) return false;
    EXPECT_EQ(record.next().block[6], 0xEE);
    return true;
  }

  Item item_for(const Bytes& bytes) const {
    client_->send(bytes);
    return record.next();
  }

  // Counts the pauses of a second, from the shutdown only.
  static std::size_t shutdown_pauses() {
    const auto all = zelvan::test::sleeps();
    return static_cast<std::size_t>(std::ranges::count(all, 1000UL));
  }

  zelvan::test::TemporaryFolder folder_;
  std::thread loop_;
  std::uint16_t port_ = 0;
  std::unique_ptr<Client> client_;
};

// The data area of an item.
Bytes data_of(const Item& item, std::size_t size) { return {item.block.get() + 6, item.block.get() + 6 + size}; }

}  // namespace

TEST_F(ReceiveLoop, NetworkStartUpAlwaysSucceeds) { EXPECT_EQ(sockinit(), 1); }

TEST_F(ReceiveLoop, LogPathOf129CharactersEndsItBeforeAnySocket) {
  ng_logmode = 1;
  settings("[options]\notp_logpath=" + std::string(129, 'p'));
  servicemain();
  EXPECT_EQ(sockets_made, 0);
  EXPECT_EQ(g_plog, nullptr);
  EXPECT_THAT(record.threads(), IsEmpty());
}

TEST_F(ReceiveLoop, LogPathIsNotReadWhenTheLogIsOff) {
  ng_logmode = 2;
  settings("[options]\notp_logpath=" + std::string(129, 'p'));
  start();
  EXPECT_EQ(g_plog, nullptr);
}

TEST_F(ReceiveLoop, SocketThatCannotBeMadeEndsIt) {
  socket_fails = true;
  servicemain();
  EXPECT_EQ(sockets_made, 1);
  EXPECT_THAT(record.threads(), IsEmpty());
}

TEST_F(ReceiveLoop, PortThatIsTakenEndsIt) {
  const Client holder(1);  // connected, so bound to a port of its own
  usg_radiusport = holder.port();
  servicemain();
  EXPECT_THAT(record.threads(), IsEmpty());
  EXPECT_THAT(zelvan::test::sleeps(), IsEmpty());
  (void)close(socksrv);
}

TEST_F(ReceiveLoop, BindsThePortOfTheSettings) {
  start();
  const std::uint16_t free_port = port_;
  stop();
  SetUp();
  usg_radiusport = free_port;
  start();
  EXPECT_EQ(port_, free_port);
}

TEST_F(ReceiveLoop, SynchronisationThreadIsStartedWithTheExitFlag) {
  start();
  record.wait_for_thread("synsecretinfo");  // its stand-in has checked the argument
}

TEST_F(ReceiveLoop, MailThreadIsStartedOnlyWhenMailIsExactly1) {
  for (const int need : {0, 2, -1}) {
    SetUp();
    ng_mail_need = need;
    start();
    stop();
    EXPECT_THAT(record.threads(), Not(Contains("otp_sendmail"))) << need;
  }
  SetUp();
  ng_mail_need = 1;
  start();
  record.wait_for_thread("otp_sendmail");
}

TEST_F(ReceiveLoop, DatagramOf19BytesIsDropped) {
  start();
  EXPECT_FALSE(is_taken(datagram(19, 0x11)));
  EXPECT_FALSE(is_taken(datagram(4, 0x11)));
}

TEST_F(ReceiveLoop, EmptyDatagramIsSkipped) {
  start();
  EXPECT_FALSE(is_taken({}));
}

TEST_F(ReceiveLoop, DatagramsOf20To512BytesAreTaken) {
  start();
  for (const std::size_t size : {20U, 21U, 255U, 256U, 257U, 300U, 511U, 512U}) {
    EXPECT_TRUE(is_taken(datagram(size, 0x11))) << size;
  }
}

TEST_F(ReceiveLoop, DatagramLongerThan512BytesIsDropped) {
  start();
  EXPECT_FALSE(is_taken(datagram(513, 0x11)));
  EXPECT_FALSE(is_taken(datagram(4000, 0x11)));
}

TEST_F(ReceiveLoop, DatagramCutTo512BytesIsTakenWhenItsLengthSaysSo) {
  start();
  Bytes bytes = datagram(512, 0x11);
  bytes.resize(600);
  EXPECT_TRUE(is_taken(bytes));
}

TEST_F(ReceiveLoop, LengthFieldMustBeTheSizeExactly) {
  start();
  for (const std::size_t size : {20U, 100U, 256U, 512U}) {
    for (const int off : {-256, -1, 1, 256}) {
      Bytes bytes(size, 0x11);
      bytes[2] = static_cast<unsigned char>((static_cast<int>(size) + off) >> 8);
      bytes[3] = static_cast<unsigned char>(static_cast<int>(size) + off);
      EXPECT_FALSE(is_taken(bytes)) << size << " " << off;
    }
  }
}

TEST_F(ReceiveLoop, ShortDatagramSeesNoLengthInWhatWasReceivedBefore) {
  start();
  EXPECT_TRUE(is_taken(datagram(20, 0x11)));
  EXPECT_FALSE(is_taken({0x11, 0x11}));
}

TEST_F(ReceiveLoop, ItemHoldsPortAddressAndDatagram) {
  start();
  const Item item = item_for(datagram(256, 0x11));
  EXPECT_EQ(item.block[0], client_->port() & 0xFF);
  EXPECT_EQ(item.block[1], client_->port() >> 8);
  EXPECT_EQ(Bytes(item.block.get() + 2, item.block.get() + 6), (Bytes{127, 0, 0, 1}));
  EXPECT_EQ(data_of(item, 256), datagram(256, 0x11));
  EXPECT_GE(item.room, 262U);
}

TEST_F(ReceiveLoop, LongDatagramGetsADataAreaOfItsLength) {
  start();
  for (const std::size_t size : {257U, 300U, 512U}) {
    const Item item = item_for(datagram(size, 0x22));
    EXPECT_GE(item.room, size + 6);
    EXPECT_EQ(data_of(item, size), datagram(size, 0x22));
  }
}

TEST_F(ReceiveLoop, ShortDatagramIsFilledUpTo256BytesWithWhatWasReceivedBefore) {
  start();
  (void)item_for(datagram(512, 0x33));
  const Item item = item_for(datagram(20, 0x44));
  EXPECT_GE(item.room, 262U);
  EXPECT_EQ(data_of(item, 20), datagram(20, 0x44));
  const Bytes data = data_of(item, 256);
  EXPECT_THAT(Bytes(data.begin() + 20, data.end()), Each(0x33));
}

TEST_F(ReceiveLoop, DroppedDatagramLeavesItsBytesBehindToo) {
  start();
  (void)item_for(datagram(512, 0x33));
  client_->send(Bytes(100, 0x55));
  const Item item = item_for(datagram(20, 0x44));
  const Bytes data = data_of(item, 256);
  EXPECT_THAT(Bytes(data.begin() + 20, data.begin() + 100), Each(0x55));
  EXPECT_THAT(Bytes(data.begin() + 100, data.end()), Each(0x33));
}

TEST_F(ReceiveLoop, FailedReceiveIsSkipped) {
  start();
  receives_to_fail = 1;
  EXPECT_FALSE(is_taken(datagram(20, 0x11)));
}

TEST_F(ReceiveLoop, FailedSelectIsFollowedByAPauseOfAMillisecond) {
  start();
  zelvan::test::clear_sleeps();
  selects_to_fail = 3;
  wake();
  EXPECT_TRUE(is_taken(datagram(20, 0x11)));
  const auto pauses = zelvan::test::sleeps();  // a slow machine adds those of a select that timed out
  EXPECT_GE(pauses.size(), 3U);
  EXPECT_THAT(pauses, Each(1));
}

TEST_F(ReceiveLoop, SecondWithoutDatagramEndsInAPauseAndALookAtTheExitFlag) {
  zelvan::test::on_sleep([](unsigned long ms) {
    if (ms == 1) nexit = 1;
  });
  const auto begin = std::chrono::steady_clock::now();
  start();
  loop_.join();
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 1s);
  EXPECT_THAT(zelvan::test::sleeps(), ElementsAre(1));
}

TEST_F(ReceiveLoop, WithTheExitFlagSetItStopsWithoutReceiving) {
  nexit = 1;
  nmailthreadclose = 0;
  zelvan::test::on_sleep([](unsigned long) {
    (void)record.port();  // the sender has looked at the socket
    nmailthreadclose = 1;
  });
  servicemain();
  EXPECT_EQ(nthreadpoolclose, 1);
  EXPECT_THAT(zelvan::test::sleeps(), ElementsAre(1000));
}

TEST_F(ReceiveLoop, StopNeedsNoPauseOnceThePoolAndTheNotifierHaveEnded) {
  start();
  stop();
  EXPECT_EQ(nthreadpoolclose, 1);
  EXPECT_EQ(shutdown_pauses(), 0U);
}

TEST_F(ReceiveLoop, StopWaitsForTheNotifierSecondBySecond) {
  nmailthreadclose = 0;
  zelvan::test::on_sleep([](unsigned long) {
    if (shutdown_pauses() == 3) nmailthreadclose = 1;
  });
  start();
  stop();
  EXPECT_EQ(shutdown_pauses(), 3U);
}

TEST_F(ReceiveLoop, StopWithoutNotifierTakesSixtyPauses) {
  nmailthreadclose = 0;
  start();
  stop();
  EXPECT_EQ(shutdown_pauses(), 60U);
}

TEST_F(ReceiveLoop, StopFinishesWhatIsQueuedBeforeItPauses) {
  nmailthreadclose = 0;
  hold_workers = true;
  std::atomic<std::size_t> finished_at_first_pause{0};
  zelvan::test::on_sleep([&](unsigned long ms) {
    if (ms != 1000) return;
    finished_at_first_pause = record.item_count();
    nmailthreadclose = 1;
  });
  start();
  for (int i = 0; i < 10; ++i) client_->send(datagram(20, 0x11));
  wake();
  while (receives_made < 11) std::this_thread::sleep_for(1ms);  // the last one read: the others are dispatched
  nexit = 1;
  wake();
  hold_workers = false;
  loop_.join();
  EXPECT_EQ(finished_at_first_pause, 10U);
}

TEST_F(ReceiveLoop, StopClosesTheSocketBehindThePauses) {
  nmailthreadclose = 0;
  std::atomic<bool> open_at_pause{false};
  zelvan::test::on_sleep([&](unsigned long ms) {
    if (ms != 1000) return;
    open_at_pause = fcntl(socksrv, F_GETFD) != -1;
    nmailthreadclose = 1;
  });
  start();
  stop();
  EXPECT_TRUE(open_at_pause);
  EXPECT_EQ(fcntl(socksrv, F_GETFD), -1);
}

TEST_F(ReceiveLoop, LogIsOnlyThereWhenTheModeIs1) {
  for (const int mode : {0, 2, -1}) {
    SetUp();
    ng_logmode = mode;
    start();
    EXPECT_EQ(g_plog, nullptr);
    stop();
  }
}

TEST_F(ReceiveLoop, LogPathDefaultsToTheFolderLog) {
  for (const char* options : {"", "[options]\notp_logpath="}) {
    SetUp();
    settings(options);
    ng_logmode = 1;
    start();
    ASSERT_NE(g_plog, nullptr);
    EXPECT_STREQ(g_plog->path, "log/otplog.log");
    stop();
  }
}

TEST_F(ReceiveLoop, LogPathOf128CharactersIsTaken) {
  const std::string path(128, 'p');
  settings("[options]\notp_logpath=" + path);
  ng_logmode = 1;
  start();
  ASSERT_NE(g_plog, nullptr);
  EXPECT_EQ(g_plog->path, path);
}

TEST_F(ReceiveLoop, LogSizeIsInMegabytesAndWraps) {
  const std::vector<std::pair<std::string, int>> sizes{{"", 1 << 20},
                                                       {"otp_logsize=0", 0},
                                                       {"otp_logsize=3", 3 << 20},
                                                       {"otp_logsize=2048", INT32_MIN},
                                                       {"otp_logsize=4096", 0},
                                                       {"otp_logsize=-1", -(1 << 20)}};
  for (const auto& [line, bytes] : sizes) {
    SetUp();
    settings("[options]\n" + line);
    ng_logmode = 1;
    start();
    ASSERT_NE(g_plog, nullptr);
    EXPECT_EQ(g_plog->maximum_size, bytes) << line;
    stop();
  }
}

TEST_F(ReceiveLoop, StopWritesTheLogOutLastAndKeepsThePointer) {
  settings("[options]\notp_logpath=operation.log");
  ng_logmode = 1;
  nmailthreadclose = 0;
  std::atomic<bool> written_at_pause{true};
  zelvan::test::on_sleep([&](unsigned long ms) {
    if (ms != 1000) return;
    written_at_pause = !folder_.lines("operation.log").empty();
    nmailthreadclose = 1;
  });
  start();
  ASSERT_NE(g_plog, nullptr);
  EXPECT_EQ(g_plog->writelog("a line"), 1);
  stop();
  EXPECT_FALSE(written_at_pause);
  ASSERT_EQ(folder_.lines("operation.log").size(), 1U);
  EXPECT_TRUE(folder_.lines("operation.log")[0].ends_with("\ta line"));
  EXPECT_NE(g_plog, nullptr);
}
