#include "db/account_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

using zelvan::AccountLock;

namespace {

// True when another thread must wait for the lock of `name`.  The thread ends with the test: `held` is released first.
bool must_wait(AccountLock& held, const std::string& name) {
  std::atomic<bool> has_it{false};
  std::promise<void> started;
  std::thread other([&] {
    started.set_value();
    const AccountLock lock(name);
    has_it = true;
  });
  started.get_future().wait();
  for (int i = 0; i < 2000 && !has_it; ++i) std::this_thread::yield();
  const bool waited = !has_it;
  held.unlock();
  other.join();
  return waited;
}

// A name whose mutex is another than that of `name`.
std::string name_of_another_stripe(const std::string& name) {
  for (int i = 0;; ++i) {
    std::string candidate = "user" + std::to_string(i);
    AccountLock held(name);
    if (!must_wait(held, candidate)) return candidate;
  }
}

}  // namespace

TEST(AccountLock, StartsEmpty) {
  AccountLock lock;
  EXPECT_FALSE(lock.owns());
  lock.unlock();
  EXPECT_FALSE(lock.owns());
}

TEST(AccountLock, HoldsFromLockToUnlock) {
  AccountLock lock;
  lock.lock("bob");
  EXPECT_TRUE(lock.owns());
  lock.unlock();
  EXPECT_FALSE(lock.owns());
}

TEST(AccountLock, TheDestructorLetsGo) {
  { const AccountLock lock("bob"); }
  const AccountLock again("bob");
  EXPECT_TRUE(again.owns());
}

TEST(AccountLock, TakingItAgainGivesTheFirstBack) {
  const std::string other = name_of_another_stripe("bob");
  AccountLock lock("bob");
  lock.lock("bob");  // would wait for itself for ever if it kept the first
  EXPECT_TRUE(lock.owns());
  lock.lock(other);
  EXPECT_FALSE(must_wait(lock, "bob"));
}

TEST(AccountLock, ASecondThreadWaitsForTheSameName) {
  AccountLock held("bob");
  EXPECT_TRUE(must_wait(held, "bob"));
}

TEST(AccountLock, NamesThatACollationMayTakeForOneShareALock) {
  for (const char* const name : {"BOB", "Bob", "bob ", "bOb    "}) {
    AccountLock held("bob");
    EXPECT_TRUE(must_wait(held, name)) << name;
  }
}

TEST(AccountLock, AnEmptyNameAndOneOfBlanksShareALock) {
  AccountLock held("");
  EXPECT_TRUE(must_wait(held, "   "));
}

TEST(AccountLock, OtherNamesDoNotWait) {
  const std::string other = name_of_another_stripe("bob");
  AccountLock held("bob");
  EXPECT_FALSE(must_wait(held, other));
}

TEST(AccountLock, NoUpdateOfAnAccountIsLost) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 2000;
  int count = 0;  // guarded by the lock of the account alone
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&count, t] {
      for (int i = 0; i < kRounds; ++i) {
        const AccountLock lock(t % 2 == 0 ? "bob" : "BOB ");
        ++count;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(count, kThreads * kRounds);
}
