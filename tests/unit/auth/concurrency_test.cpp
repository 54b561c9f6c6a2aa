// Requests for one account at the same moment.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>
#include <utility>

#include "auth/work_item.h"
#include "auth_fixture.h"
#include "config/settings.h"

using namespace zelvan::test;  // NOLINT: the fixture's words

namespace {

constexpr int kAccept = 2;
constexpr int kReject = 3;
constexpr int kThreads = 8;

class Concurrency : public AuthTest {
 protected:
  // Sends every packet from a thread of its own, all at once, and returns the codes of the replies.
  static std::vector<int> send_at_once(const std::vector<Packet>& packets) {
    std::vector<int> codes(packets.size());
    std::vector<std::thread> threads;
    std::atomic<bool> go{false};
    for (std::size_t i = 0; i < packets.size(); ++i) {
      threads.emplace_back([&, i] {
        go.wait(false);
        codes[i] = resolve(packets[i]).code();
      });
    }
    go = true;
    go.notify_all();
    for (std::thread& thread : threads) thread.join();
    return codes;
  }
};

// Holds up every request between its selects and its updates, where it reads the time and no statement runs, for as
// long as another request might still come there too.
class Meeting {
 public:
  explicit Meeting(std::chrono::milliseconds patience) : patience_(patience) {
    odbc_on_execute([](const std::string& sql) { loaded_ = sql.starts_with("select userkey"); });
    on_clock_read([this] {
      if (std::exchange(loaded_, false)) arrive();
    });
  }
  ~Meeting() { on_clock_read(nullptr); }
  Meeting(const Meeting&) = delete;
  Meeting& operator=(const Meeting&) = delete;

  // Whether the first request was still held up when the second came.
  [[nodiscard]] bool happened() const { return happened_; }

 private:
  void arrive() {
    std::unique_lock lock(mutex_);
    const bool first = ++arrived_ == 1;
    changed_.notify_all();
    const bool both = changed_.wait_for(lock, patience_, [this] { return arrived_ > 1; });
    if (first) happened_ = both;
  }

  const std::chrono::milliseconds patience_;
  static inline thread_local bool loaded_ = false;  // the request of this thread has made its last select
  std::mutex mutex_;
  std::condition_variable changed_;
  int arrived_ = 0;
  bool happened_ = false;
};

}  // namespace

TEST_F(Concurrency, OneCodeIsAcceptedOnce) {
  account.keep_updated();
  const auto codes = send_at_once({client.pap("alice", code(5)), client.pap("alice", code(5))});
  EXPECT_EQ(std::ranges::count(codes, kAccept), 1);
  EXPECT_EQ(std::ranges::count(codes, kReject), 1);
  EXPECT_EQ(*account.token.lcounter, "6");
}

TEST_F(Concurrency, OneCodeIsAcceptedOnceByManyThreads) {
  for (unsigned int round = 0; round < 20; ++round) {
    account.user = {};
    account.token = {};
    odbc_clear_answers();
    account.keep_updated();
    ng_maxaccum = 100;
    const auto codes = send_at_once(std::vector<Packet>(kThreads, client.pap("alice", code(6))));
    ASSERT_EQ(std::ranges::count(codes, kAccept), 1);
    ASSERT_EQ(*account.token.lcounter, "7");
  }
}

TEST_F(Concurrency, NoFailureIsLost) {
  ng_maxaccum = 100;
  account.keep_updated();
  const auto codes = send_at_once(std::vector<Packet>(kThreads, client.pap("alice", "wrong!")));
  EXPECT_EQ(std::ranges::count(codes, kReject), kThreads);
  EXPECT_EQ(*account.user.failaccum, std::to_string(kThreads));
}

TEST_F(Concurrency, FifthFailureOfManyLocksAndTheRestIsRefused) {
  account.keep_updated();
  (void)send_at_once(std::vector<Packet>(kThreads, client.pap("alice", "wrong!")));
  EXPECT_EQ(*account.user.islocked, "1");
  EXPECT_EQ(*account.user.failaccum, "0");
  EXPECT_EQ(std::ranges::count(executed(), sql::touch_user()), kThreads - 5);
  EXPECT_EQ(mails().size(), static_cast<std::size_t>(kThreads - 5 + 1));
}

TEST_F(Concurrency, OneChallengeIsAnsweredOnce) {
  account.token.tktype = "3";
  account.token.hcounter = "1";
  account.token.lcounter = "1234567";
  account.keep_updated();
  const auto codes = send_at_once(std::vector<Packet>(kThreads, client.pap("alice", code(1234567))));
  EXPECT_EQ(std::ranges::count(codes, kAccept), 1);
}

TEST_F(Concurrency, SecondRequestForAnAccountWaitsForTheFirst) {
  account.publish();
  const Meeting meeting(std::chrono::milliseconds{300});
  (void)send_at_once({client.pap("alice", code(5)), client.pap("alice", code(5))});
  EXPECT_FALSE(meeting.happened());
}

TEST_F(Concurrency, RequestsForDifferentAccountsRunSideBySide) {
  account.publish();
  const Meeting meeting(std::chrono::seconds{20});
  (void)send_at_once({client.pap("alice", code(5)), client.pap("bob", code(5))});
  EXPECT_TRUE(meeting.happened());
}

namespace {

// A request of which something is left to do after its reply.
struct WayOut {
  const char* name;
  const char* token_type;
  const char* password;
  bool known;
  SQLRETURN update;  // of the token
  int code;
};

class AccountGivenBack : public Concurrency, public ::testing::WithParamInterface<WayOut> {};

}  // namespace

// An analyser may outlive its request; the account must not wait for that.
TEST_P(AccountGivenBack, WhenResolveReturns) {
  const WayOut& way = GetParam();
  account.token.tktype = way.token_type;
  account.has_user = way.known;
  account.publish();
  odbc_answer("update keyinfo", {{}, way.update, 0});
  const std::string password = *way.password == '\0' ? code(5) : way.password;
  auto item = zelvan::WorkItemView::make(1645, kClient, client.pap("alice", password));
  auto analyser = std::make_unique<CAnalyseAuthData>();
  const int result = analyser->Resolve(item.get());
  EXPECT_EQ(result == RESOLVE_SEND_REPLY ? zelvan::WorkItemView(item.get()).packet()[0] : 0, way.code);

  auto next = std::async(std::launch::async, [] { const zelvan::AccountLock lock("alice"); });
  EXPECT_EQ(next.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  analyser.reset();  // lets a failed test end
}

INSTANTIATE_TEST_SUITE_P(Ways, AccountGivenBack,
                         ::testing::Values(WayOut{"Accept", "1", "", true, SQL_SUCCESS, kAccept},
                                           WayOut{"Reject", "1", "wrong!", true, SQL_SUCCESS, kReject},
                                           WayOut{"UnknownUser", "1", "", false, SQL_SUCCESS, kReject},
                                           WayOut{"NotStored", "1", "", true, SQL_ERROR, kReject},
                                           WayOut{"Challenge", "3", "123456", true, SQL_SUCCESS, 11},
                                           WayOut{"ChallengeNotStored", "3", "123456", true, SQL_ERROR, 0}),
                         [](const auto& test) { return std::string(test.param.name); });
