#include "base/locks.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

TEST(Locks, WrappersReportSuccessAsZero) {
  pthread_mutex_t mutex;
  EXPECT_EQ(MyInitLock(mutex), 0);
  EXPECT_EQ(MyLock(mutex), 0);
  EXPECT_EQ(MyULock(mutex), 0);
  EXPECT_EQ(MyUInitLock(mutex), 0);
}

TEST(Locks, ScopedLockReleasesAtTheEndOfItsScope) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  {
    zelvan::ScopedLock lock(mutex);
    EXPECT_TRUE(lock.owns());
    EXPECT_NE(pthread_mutex_trylock(&mutex), 0);
  }
  ASSERT_EQ(pthread_mutex_trylock(&mutex), 0);
  EXPECT_EQ(pthread_mutex_unlock(&mutex), 0);
}

TEST(Locks, ScopedLockMayBeReleasedAndTakenAgain) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  zelvan::ScopedLock lock(mutex);
  EXPECT_EQ(lock.unlock(), 0);
  EXPECT_EQ(lock.unlock(), 0);
  EXPECT_FALSE(lock.owns());
  EXPECT_EQ(lock.lock(), 0);
  EXPECT_TRUE(lock.owns());
}

TEST(Locks, ScopedLockExcludesOtherThreads) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  int count = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 1000; ++i) {
        const zelvan::ScopedLock lock(mutex);
        ++count;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(count, 4000);
}
