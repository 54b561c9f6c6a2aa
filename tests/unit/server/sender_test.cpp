#include "server/sender.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <vector>

#include "auth/work_item.h"
#include "base/exit_flag.h"
#include "base/locks.h"
#include "server/receive_loop.h"
#include "support/fake_sleep.h"
#include "unit/server/freed_items.h"

int socksrv = -1;  // in place of the receive loop's

namespace {

using Address = std::array<unsigned char, 4>;
using testing::ElementsAre;
using testing::IsEmpty;

struct Sending {
  int socket;
  const void* bytes;
  std::size_t length;
  int flags;
  sockaddr_in to;
  socklen_t to_length;
};

std::vector<Sending> sendings;
int failures = 0;              // how many of the next sends fail
ssize_t short_count = 0;       // what the others report, unless it is 0
bool send_in_earnest = false;  // pass them on to the system
bool unlocked_while_sending = true;

}  // namespace

extern "C" {
ssize_t __real_sendto(int, const void*, std::size_t, int, const sockaddr*, socklen_t);
ssize_t __wrap_sendto(int socket, const void* bytes, std::size_t length, int flags, const sockaddr* to,
                      socklen_t to_length) {
  sendings.push_back({socket, bytes, length, flags, *reinterpret_cast<const sockaddr_in*>(to), to_length});
  const bool unlocked = pthread_mutex_trylock(&sendqueue_mutex) == 0;
  if (unlocked) (void)pthread_mutex_unlock(&sendqueue_mutex);
  unlocked_while_sending = unlocked_while_sending && unlocked;
  if (failures > 0) {
    --failures;
    errno = EPERM;
    return -1;
  }
  if (send_in_earnest) return __real_sendto(socket, bytes, length, flags, to, to_length);
  return short_count != 0 ? short_count : static_cast<ssize_t>(length);
}
}

namespace {

class Sender : public testing::Test {
 protected:
  void SetUp() override {
    (void)MyInitLock(sendqueue_mutex);
    sendings.clear();
    failures = 0;
    short_count = 0;
    send_in_earnest = false;
    unlocked_while_sending = true;
    socksrv = 77;
    nexit = 0;
    zelvan::test::clear_sleeps();
    // The sender's pause when its queue is empty: the test has run its course.
    zelvan::test::on_sleep([](unsigned long ms) {
      if (ms == 1) nexit = 1;
    });
  }

  void TearDown() override {
    while (void* const left = send_queue.queue_pop()) delete[] static_cast<unsigned char*>(left);
    zelvan::test::clear_sleeps();
    nexit = 0;
  }

  // Queues a reply of `length` bytes, all but the Length field of value `fill`; watches it.
  static unsigned char* queue(std::uint16_t port, Address address, std::uint16_t length, unsigned char fill) {
    std::vector<unsigned char> packet(zelvan::kSmallestDataArea, fill);
    packet[2] = static_cast<unsigned char>(length >> 8U);
    packet[3] = static_cast<unsigned char>(length & 0xFFU);
    zelvan::WorkItem item = zelvan::WorkItemView::make(port, address, packet);
    zelvan::test::watch(item.get());
    EXPECT_EQ(send_queue.queue_add(item.get()), 1);
    return item.release();
  }
};

constexpr Address kClient{10, 0, 0, 7};

}  // namespace

TEST_F(Sender, PausesAMillisecondWhenTheQueueIsEmpty) {
  zelvan::test::on_sleep([](unsigned long) {
    if (zelvan::test::sleeps().size() == 3) nexit = 1;
  });
  EXPECT_EQ(senddata(nullptr), nullptr);
  EXPECT_THAT(zelvan::test::sleeps(), ElementsAre(1, 1, 1));
  EXPECT_THAT(sendings, IsEmpty());
}

TEST_F(Sender, SendsToThePortAndAddressOfTheRequest) {
  const unsigned char* const item = queue(1645, kClient, 20, 0xAB);
  (void)senddata(nullptr);
  ASSERT_EQ(sendings.size(), 1U);
  const Sending& sending = sendings[0];
  EXPECT_EQ(sending.socket, 77);
  EXPECT_EQ(sending.bytes, item + 6);
  EXPECT_EQ(sending.length, 20U);
  EXPECT_EQ(sending.flags, 0);
  EXPECT_EQ(sending.to.sin_family, AF_INET);
  EXPECT_EQ(ntohs(sending.to.sin_port), 1645);
  EXPECT_EQ(sending.to.sin_addr.s_addr, inet_addr("10.0.0.7"));
  EXPECT_EQ(sending.to_length, 16U);
  EXPECT_EQ(zelvan::test::times_freed(), 1);
  EXPECT_THAT(zelvan::test::sleeps(), ElementsAre(1));
}

TEST_F(Sender, LengthFieldSaysHowMuchIsSent) {
  for (const std::uint16_t length : std::array<std::uint16_t, 4>{20, 36, 255, 256}) {
    SetUp();
    (void)queue(1812, kClient, length, 0);
    (void)senddata(nullptr);
    ASSERT_EQ(sendings.size(), 1U);
    EXPECT_EQ(sendings[0].length, length);
  }
}

TEST_F(Sender, BytesArriveAtTheClientAsTheyLie) {
  const int client = socket(AF_INET, SOCK_DGRAM, 0);
  socksrv = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in here{};
  here.sin_family = AF_INET;
  here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof here;
  ASSERT_EQ(bind(client, reinterpret_cast<const sockaddr*>(&here), size), 0);
  ASSERT_EQ(getsockname(client, reinterpret_cast<sockaddr*>(&here), &size), 0);

  send_in_earnest = true;
  (void)queue(ntohs(here.sin_port), {127, 0, 0, 1}, 20, 0x5A);
  (void)senddata(nullptr);

  pollfd waiting{client, POLLIN, 0};
  ASSERT_EQ(poll(&waiting, 1, 5000), 1);
  std::array<unsigned char, 300> received{};
  ASSERT_EQ(recv(client, received.data(), received.size(), 0), 20);
  EXPECT_EQ(received[0], 0x5A);
  EXPECT_EQ(received[3], 20);
  EXPECT_EQ(received[19], 0x5A);
  (void)close(client);
  (void)close(socksrv);
}

TEST_F(Sender, RepliesLeaveInOrder) {
  for (const std::uint16_t port : std::array<std::uint16_t, 3>{1001, 1002, 1003}) (void)queue(port, kClient, 20, 0);
  (void)senddata(nullptr);
  ASSERT_EQ(sendings.size(), 3U);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(ntohs(sendings[i].to.sin_port), 1001 + i);
}

TEST_F(Sender, FailingSendIsTriedFourTimesAndTheItemFreed) {
  failures = 4;
  (void)queue(1812, kClient, 20, 0);
  (void)senddata(nullptr);
  EXPECT_EQ(sendings.size(), 4U);
  EXPECT_THAT(zelvan::test::sleeps(), ElementsAre(100, 100, 100, 1));
  EXPECT_EQ(zelvan::test::times_freed(), 1);
}

TEST_F(Sender, RetriesEndWithTheFirstThatSucceeds) {
  for (const int failed : {1, 2, 3}) {
    SetUp();
    failures = failed;
    (void)queue(1812, kClient, 20, 0);
    (void)senddata(nullptr);
    EXPECT_EQ(sendings.size(), static_cast<std::size_t>(failed) + 1);
    EXPECT_EQ(zelvan::test::sleeps().size(), static_cast<std::size_t>(failed) + 1);
    EXPECT_EQ(zelvan::test::times_freed(), 1);
  }
}

TEST_F(Sender, FailureOfOneItemLeavesTheNextItsRetries) {
  failures = 4 + 3;
  (void)queue(1001, kClient, 20, 0);
  (void)queue(1002, kClient, 20, 0);
  (void)senddata(nullptr);
  EXPECT_EQ(sendings.size(), 8U);
  EXPECT_EQ(ntohs(sendings.back().to.sin_port), 1002);
}

TEST_F(Sender, ShortCountCountsAsSent) {
  short_count = 5;
  (void)queue(1812, kClient, 20, 0);
  (void)senddata(nullptr);
  EXPECT_EQ(sendings.size(), 1U);
  EXPECT_EQ(zelvan::test::times_freed(), 1);
}

TEST_F(Sender, QueueIsNotLockedWhileSending) {
  (void)queue(1812, kClient, 20, 0);
  (void)senddata(nullptr);
  ASSERT_EQ(sendings.size(), 1U);
  EXPECT_TRUE(unlocked_while_sending);
}

TEST_F(Sender, WhatIsQueuedAtTheExitIsNeitherSentNorFreed) {
  unsigned char* const item = queue(1812, kClient, 20, 0);
  nexit = 1;
  EXPECT_EQ(senddata(nullptr), nullptr);
  EXPECT_THAT(sendings, IsEmpty());
  EXPECT_EQ(zelvan::test::times_freed(), 0);
  EXPECT_EQ(send_queue.head->data, item);
}
