#include "server/worker.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <thread>
#include <vector>

#include "auth/radius_packet.h"
#include "auth/work_item.h"
#include "base/locks.h"
#include "config/ConfigFile.h"
#include "config/settings.h"
#include "server/duplicate_filter.h"
#include "server/sender.h"
#include "support/fake_clock.h"
#include "support/fake_odbc.h"
#include "unit/server/freed_items.h"
#include "unit/server/temporary_folder.h"

namespace {
std::atomic<bool> no_memory{false};
}

extern "C" {
void* __real_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size) { return no_memory ? nullptr : __real_malloc(size); }
}

namespace {

constexpr int kNow = 1'700'000'000;
constexpr std::string_view kSecret = "a secret";
constexpr std::uint16_t kPort = 0x1234;

class Worker : public testing::Test {
 protected:
  void SetUp() override {
    (void)MyInitLock(pack_mutex);
    (void)MyInitLock(sendqueue_mutex);
    zelvan::test::odbc_reset();
    zelvan::test::set_clock(kNow);
    pack_list.clear();
    ng_packetchecktime = 0;
    std::destroy_at(&configfile);
    std::construct_at(&configfile);
    folder_.write("settings", "[share]\n10.0.0.7=" + std::string(kSecret) + "\n");
    ASSERT_EQ(configfile.config_init("settings"), CONFIG_INIT_OK);
  }

  void TearDown() override { (void)replies(); }

  // Takes all replies off the queue.
  static std::vector<zelvan::WorkItem> replies() {
    std::vector<zelvan::WorkItem> all;
    while (void* const item = send_queue.queue_pop()) all.emplace_back(static_cast<unsigned char*>(item));
    return all;
  }

  zelvan::test::TemporaryFolder folder_;
};

// An Access-Request that is refused before the database is asked: its one attribute is an empty User-Name.
unsigned char* request(std::uint8_t identifier, unsigned char last_of_address = 7, std::uint16_t port = kPort) {
  std::array<unsigned char, zelvan::kSmallestDataArea> packet{zelvan::ACCESS_REQUEST, identifier, 0, 22};
  for (unsigned char i = 0; i < zelvan::kAuthenticatorSize; ++i) packet[zelvan::kAuthenticatorOffset + i] = i;
  packet[20] = 1;
  packet[21] = 2;
  const std::array<unsigned char, 4> address{10, 0, 0, last_of_address};
  zelvan::WorkItem item = zelvan::WorkItemView::make(port, address, packet);
  zelvan::test::watch(item.get());
  return item.release();
}

// MD5 over the reply with the Request Authenticator in it and the secret behind it (RFC 2865 section 3).
std::array<unsigned char, 16> expected_authenticator(const unsigned char* reply) {
  std::vector<unsigned char> signed_bytes(reply, reply + zelvan::kRadiusHeaderSize);
  for (unsigned char i = 0; i < zelvan::kAuthenticatorSize; ++i) signed_bytes[zelvan::kAuthenticatorOffset + i] = i;
  signed_bytes.insert(signed_bytes.end(), kSecret.begin(), kSecret.end());
  std::array<unsigned char, 16> digest{};
  EXPECT_EQ(EVP_Digest(signed_bytes.data(), signed_bytes.size(), digest.data(), nullptr, EVP_md5(), nullptr), 1);
  return digest;
}

}  // namespace

TEST_F(Worker, QueuesASignedReplyInTheBlockOfTheRequest) {
  unsigned char* const item = request(9);
  work_deal(item);
  const auto queued = replies();
  ASSERT_EQ(queued.size(), 1U);
  ASSERT_EQ(queued[0].get(), item);
  EXPECT_EQ(zelvan::test::times_freed(), 0);

  const zelvan::WorkItemView view(item);
  EXPECT_EQ(view.port(), kPort);
  EXPECT_EQ(view.address()[3], 7);
  EXPECT_EQ(view.packet()[0], zelvan::ACCESS_REJECT);
  EXPECT_EQ(view.identifier(), 9);
  ASSERT_EQ(view.packet_length(), 20);
  const auto expected = expected_authenticator(view.packet());
  EXPECT_TRUE(std::equal(expected.begin(), expected.end(), view.packet() + zelvan::kAuthenticatorOffset));
}

TEST_F(Worker, FreesARequestThatGetsNoReply) {
  work_deal(request(9, 8));  // a client without a secret
  EXPECT_EQ(zelvan::test::times_freed(), 1);
  EXPECT_TRUE(replies().empty());
}

TEST_F(Worker, FreesADuplicateAndSendsNothing) {
  ng_packetchecktime = 30;
  work_deal(request(9));
  EXPECT_EQ(replies().size(), 1U);
  zelvan::test::advance_clock(29);
  work_deal(request(9));
  EXPECT_EQ(zelvan::test::times_freed(), 1);
  EXPECT_TRUE(replies().empty());
}

TEST_F(Worker, ServesARepeatOnceTheIntervalIsOver) {
  ng_packetchecktime = 30;
  work_deal(request(9));
  zelvan::test::advance_clock(30);
  work_deal(request(9));
  EXPECT_EQ(replies().size(), 2U);
}

TEST_F(Worker, RequestWithoutReplyIsRememberedToo) {
  ng_packetchecktime = 30;
  work_deal(request(9, 8));
  EXPECT_EQ(pack_list.size(), 1U);
}

TEST_F(Worker, IntervalOfZeroServesEveryRepeat) {
  for (int i = 0; i < 3; ++i) work_deal(request(9));
  EXPECT_EQ(replies().size(), 3U);
  EXPECT_LE(pack_list.size(), 1U);
}

TEST_F(Worker, RemembersPortAddressIdentifierAndTime) {
  ng_packetchecktime = 30;
  work_deal(request(9));
  ASSERT_EQ(pack_list.size(), 1U);
  EXPECT_EQ(pack_list[0].port, 0x3412);  // byte 0 of the item, the low-order byte of the port, counts 256
  EXPECT_TRUE(std::ranges::equal(pack_list[0].address, std::array<unsigned char, 4>{10, 0, 0, 7}));
  EXPECT_EQ(pack_list[0].identifier, 9);
  EXPECT_EQ(pack_list[0].time, kNow);
}

TEST_F(Worker, FreesTheReplyWhenThereIsNoMemoryToQueueIt) {
  unsigned char* const item = request(9);
  no_memory = true;
  work_deal(item);
  no_memory = false;
  EXPECT_EQ(zelvan::test::times_freed(), 1);
  EXPECT_TRUE(replies().empty());
}

TEST_F(Worker, LeavesBothMutexesFree) {
  ng_packetchecktime = 30;
  for (int i = 0; i < 2; ++i) work_deal(request(9));
  for (pthread_mutex_t* mutex : {&pack_mutex, &sendqueue_mutex}) {
    EXPECT_EQ(pthread_mutex_trylock(mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
  }
}

TEST_F(Worker, ManyWorkersServeEveryRequestOnce) {
  ng_packetchecktime = 30;
  constexpr int kThreads = 8;
  std::vector<std::thread> workers;
  for (int thread = 0; thread < kThreads; ++thread) {
    workers.emplace_back([] {
      for (int identifier = 0; identifier < 100; ++identifier)
        work_deal(request(static_cast<std::uint8_t>(identifier)));
    });
  }
  for (std::thread& worker : workers) worker.join();
  EXPECT_EQ(replies().size(), 100U);
  EXPECT_EQ(pack_list.size(), 100U);
}
