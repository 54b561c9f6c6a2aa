#include "mail/time_limits.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <thread>

#include "base/exit_flag.h"

using std::chrono::milliseconds;

namespace {

class TimeLimits : public testing::Test {
 protected:
  TimeLimits() {
    nexit = 0;
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair_.data()), 0);
  }
  ~TimeLimits() override {
    nexit = 0;
    zelvan::set_mail_limits({});
    for (const int socket : pair_) (void)close(socket);
  }

  std::array<int, 2> pair_{};
};

}  // namespace

TEST_F(TimeLimits, WithoutTimeNothingIsReady) {
  zelvan::set_mail_limits({.call = milliseconds(0)});
  EXPECT_FALSE(zelvan::wait_ready(pair_[0], POLLOUT)) << "no time, no wait";
}

TEST_F(TimeLimits, ReadySocketIsReadyAtOnce) {
  EXPECT_TRUE(zelvan::wait_ready(pair_[0], POLLOUT));
  ASSERT_EQ(write(pair_[1], "x", 1), 1);
  EXPECT_TRUE(zelvan::wait_ready(pair_[0], POLLIN));
}

TEST_F(TimeLimits, SilentSocketIsGivenUpAfterTheCallLimit) {
  zelvan::set_mail_limits({.call = milliseconds(30)});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(zelvan::wait_ready(pair_[0], POLLIN));
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(30));
}

TEST_F(TimeLimits, ClosedPeerEndsTheWait) {
  (void)shutdown(pair_[1], SHUT_WR);
  EXPECT_TRUE(zelvan::wait_ready(pair_[0], POLLIN));
}

TEST_F(TimeLimits, ClosingTimeStandsUntilTheExitFlagIsSet) {
  zelvan::set_mail_limits({.closing = milliseconds(40)});
  EXPECT_EQ(zelvan::closing_time_left(), milliseconds(40));
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(zelvan::closing_time_left(), milliseconds(40));
}

TEST_F(TimeLimits, ClosingTimeRunsOutOnceTheExitFlagIsSet) {
  zelvan::set_mail_limits({.closing = milliseconds(20)});
  nexit = 1;
  EXPECT_GT(zelvan::closing_time_left(), milliseconds(0));
  std::this_thread::sleep_for(milliseconds(25));
  EXPECT_EQ(zelvan::closing_time_left(), milliseconds(0));
  EXPECT_FALSE(zelvan::wait_ready(pair_[0], POLLOUT)) << "no call begins after it";
}

TEST_F(TimeLimits, ExitFlagEndsAWaitThatBeganBefore) {
  zelvan::set_mail_limits({.closing = milliseconds(20)});
  const auto start = std::chrono::steady_clock::now();
  std::thread waiter([this] { EXPECT_FALSE(zelvan::wait_ready(pair_[0], POLLIN)); });
  nexit = 1;
  waiter.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}
