#include "pool/threadpool.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "unit/pool/faults.h"

using zelvan::test::faults;

static_assert(std::has_virtual_destructor_v<threadpool>);

namespace {

constexpr int kLong = 600;  // an idle timeout that no test reaches, seconds

// What the handler counts in and waits at.
class Gate {
 public:
  void open() {
    const std::scoped_lock lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void close() {
    const std::scoped_lock lock(mutex_);
    open_ = false;
  }
  void pass() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = true;
};

struct Item {
  std::atomic<int> handled{0};
  std::atomic<int> place{0};  // 1 for the item that was handled first
};

Gate gate;
std::atomic<int> started{0};
std::atomic<int> handled{0};

void handle(void* data) {
  ++started;
  gate.pass();
  auto& item = *static_cast<Item*>(data);
  item.place = ++handled;
  ++item.handled;
}

// True as soon as `condition` holds; false when it still does not after 20 s.
bool eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

// A pool that is stopped, and whose queue is released, at the end of the test.
struct Pool : threadpool {
  Pool(int max_threads, int idle_timeout_s, void (*run)(void*) = handle)
      : threadpool(max_threads, idle_timeout_s, run) {}
  ~Pool() override {
    faults.clear();
    gate.open();
    (void)destory();
    EXPECT_TRUE(!made_ || eventually([this] { return count(alive) == 0; }));
    while (queue->queue_pop() != nullptr) continue;
    delete queue;
  }
  int count(const std::int32_t& field) {
    (void)pthread_mutex_lock(&pool_mutex);
    const int value = field;
    (void)pthread_mutex_unlock(&pool_mutex);
    return value;
  }

 private:
  const bool made_ = state == THREADPOOL_VALID;  // otherwise there is no mutex
};

class Threadpool : public testing::Test {
 protected:
  void SetUp() override {
    faults.clear();
    gate.open();
    started = 0;
    handled = 0;
    nthreadpoolclose = 0;
  }
  void TearDown() override { faults.clear(); }
};

// A pool that could not be made whole refuses everything and touches no mutex.
void expect_refusing(Pool& pool) {
  Item item;
  EXPECT_EQ(pool.state, THREADPOOL_EXITING);
  EXPECT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_NOT_VALID);
  EXPECT_EQ(pool.destory(), THREADPOOL_NOT_VALID);
  EXPECT_EQ(pool.alive, 0);
  EXPECT_EQ(pool.queue->head, nullptr);
  EXPECT_EQ(nthreadpoolclose, 0);
}

using ThreadpoolDeath = Threadpool;

}  // namespace

// --- construction

TEST_F(Threadpool, WithoutConditionRefusesEveryItem) {
  faults.cond_init.arm(ENOMEM);
  Pool pool(1, 0);
  expect_refusing(pool);
}

TEST_F(Threadpool, WithoutAttributesRefusesEveryItem) {
  faults.attr_init.arm(ENOMEM);
  Pool pool(1, 0);
  expect_refusing(pool);
}

TEST_F(Threadpool, WithoutDetachedAttributeRefusesEveryItem) {
  faults.set_detached.arm(EINVAL);
  Pool pool(1, 0);
  expect_refusing(pool);
}

TEST_F(Threadpool, WithoutConditionAndAttributesRefusesEveryItem) {
  faults.cond_init.arm(ENOMEM);
  faults.attr_init.arm(ENOMEM);
  Pool pool(1, 0);
  expect_refusing(pool);
}

TEST_F(Threadpool, FailedMutexInitialisationIsIgnored) {
  Item item;
  faults.mutex_init.arm(ENOMEM);
  Pool pool(1, 0);
  EXPECT_EQ(pool.state, THREADPOOL_VALID);
  EXPECT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_OK);
  EXPECT_TRUE(eventually([&] { return item.handled == 1; }));
}

TEST_F(Threadpool, NewPoolHoldsNoThreads) {
  Pool pool(4, 7);
  EXPECT_EQ(pool.state, 1);
  EXPECT_EQ(pool.thread_limit, 4);
  EXPECT_EQ(pool.alive, 0);
  EXPECT_EQ(pool.idle, 0);
  EXPECT_EQ(pool.idle_timeout, 7);
  EXPECT_EQ(pool.handler, handle);
  EXPECT_NE(pool.queue, nullptr);
  EXPECT_EQ(faults.create.calls(), 0);
}

TEST_F(Threadpool, FieldsStandInTheirOrder) {
  Pool pool(1, 0);
  const std::array<const void*, 10> fields = {
      &pool.pool_mutex, &pool.pool_condition, &pool.thread_attributes, &pool.state,   &pool.thread_limit,
      &pool.alive,      &pool.idle,           &pool.idle_timeout,      &pool.handler, &pool.queue};
  for (std::size_t i = 1; i < fields.size(); ++i) EXPECT_TRUE(std::less<>()(fields[i - 1], fields[i])) << i;
}

TEST_F(Threadpool, LimitBelowOneMeansOneWorker) {
  for (const int limit : {0, -5, INT_MIN}) {
    started = 0;
    gate.close();
    std::array<Item, 3> items;
    Pool pool(limit, 0);
    EXPECT_EQ(pool.thread_limit, 1);
    for (auto& item : items) EXPECT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_OK);
    ASSERT_TRUE(eventually([] { return started == 1; }));
    EXPECT_EQ(pool.count(pool.alive), 1);
    gate.open();
    EXPECT_TRUE(eventually([&] { return items[2].handled == 1; }));
  }
}

// --- dispatch

TEST_F(Threadpool, DispatchReportsAFailedLock) {
  Item item;
  Pool pool(1, 0);
  faults.lock.arm(EINVAL, 0, &pool.pool_mutex);
  EXPECT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_LOCK_FAILED);
  EXPECT_EQ(pool.queue->head, nullptr);
}

TEST_F(Threadpool, DispatchReportsAFailedUnlockThoughTheItemIsQueued) {
  Item item;
  Pool pool(1, 0);
  faults.unlock.arm(EPERM, 0, &pool.pool_mutex);
  EXPECT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_UNLOCK_FAILED);
  EXPECT_TRUE(eventually([&] { return item.handled == 1; }));
}

TEST_F(Threadpool, DispatchReportsThatThereIsNoMemoryForTheItem) {
  Item item;
  Pool pool(1, 0);
  faults.allocate.arm(ENOMEM);
  EXPECT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_NOT_QUEUED);
  EXPECT_EQ(faults.create.calls(), 0);
}

TEST_F(Threadpool, DispatchWithoutMemoryAndWithoutUnlockReportsTheUnlock) {
  Item item;
  Pool pool(1, 0);
  faults.allocate.arm(ENOMEM);
  faults.unlock.arm(EPERM, 0, &pool.pool_mutex);
  EXPECT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_UNLOCK_FAILED);
}

TEST_F(Threadpool, DispatchAfterTheEndIsRefused) {
  Item item;
  Pool pool(1, 0);
  ASSERT_EQ(pool.destory(), THREADPOOL_OK);
  EXPECT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_NOT_VALID);
  EXPECT_EQ(pool.queue->head, nullptr);
}

TEST_F(Threadpool, DispatchAfterTheEndReportsFailedLocksFirst) {
  Item item;
  Pool pool(1, 0);
  ASSERT_EQ(pool.destory(), THREADPOOL_OK);
  faults.lock.arm(EINVAL, 0, &pool.pool_mutex);
  EXPECT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_LOCK_FAILED);
  faults.unlock.arm(EPERM, 0, &pool.pool_mutex);
  EXPECT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_UNLOCK_FAILED);
}

TEST_F(Threadpool, WorkerIsCreatedDetachedAndDetachedOnceMore) {
  Item item;
  Pool pool(1, 0);
  int state = -1;
  ASSERT_EQ(pthread_attr_getdetachstate(&pool.thread_attributes, &state), 0);
  EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
  faults.detach.arm(EINVAL);  // its result is ignored
  EXPECT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_OK);
  EXPECT_EQ(faults.detach.calls(), 1);
  EXPECT_TRUE(eventually([&] { return item.handled == 1; }));
}

TEST_F(Threadpool, IdleWorkerTakesTheItemInsteadOfANewThread) {
  std::array<Item, 5> items;
  Pool pool(4, kLong);
  for (auto& item : items) {
    ASSERT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_OK);
    ASSERT_TRUE(eventually([&] { return item.handled == 1 && pool.count(pool.idle) == 1; }));
  }
  EXPECT_EQ(pool.count(pool.alive), 1);
  EXPECT_EQ(faults.create.calls(), 1);
}

TEST_F(Threadpool, BusyWorkersMakeNewOnesUpToTheLimit) {
  std::array<Item, 6> items;
  gate.close();
  Pool pool(3, 0);
  for (auto& item : items) ASSERT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_OK);
  ASSERT_TRUE(eventually([] { return started == 3; }));
  EXPECT_EQ(pool.count(pool.alive), 3);
  EXPECT_EQ(pool.count(pool.idle), 0);
  EXPECT_EQ(faults.create.calls(), 3);
  gate.open();
  for (auto& item : items) EXPECT_TRUE(eventually([&] { return item.handled == 1; }));
}

TEST_F(Threadpool, ItemBeyondTheLimitRunsWhenAWorkerIsFree) {
  std::array<Item, 2> items;
  gate.close();
  Pool pool(1, 0);
  ASSERT_EQ(pool.thrmgr_dispatch(&items[0]), THREADPOOL_OK);
  ASSERT_TRUE(eventually([] { return started == 1; }));
  EXPECT_EQ(pool.thrmgr_dispatch(&items[1]), THREADPOOL_OK);
  EXPECT_EQ(items[1].handled, 0);
  gate.open();
  EXPECT_TRUE(eventually([&] { return items[1].handled == 1; }));
}

TEST_F(Threadpool, OneWorkerHandlesItemsInOrder) {
  std::array<Item, 50> items;
  gate.close();
  Pool pool(1, 0);
  for (auto& item : items) ASSERT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_OK);
  gate.open();
  ASSERT_TRUE(eventually([] { return handled == 50; }));
  for (int i = 0; i < 50; ++i) EXPECT_EQ(items[static_cast<std::size_t>(i)].place, i + 1);
}

TEST_F(Threadpool, ThreadThatCannotBeCreatedIsReportedInOneLine) {
  Item item;
  Pool pool(1, 0);
  faults.create.arm(EAGAIN);
  testing::internal::CaptureStdout();
  const int result = pool.thrmgr_dispatch(&item);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failed in creating thread\n");
  EXPECT_EQ(result, THREADPOOL_OK);
  EXPECT_EQ(pool.count(pool.alive), 0);
  EXPECT_EQ(faults.detach.calls(), 0);
}

TEST_F(Threadpool, ItemWithoutWorkerWaitsForTheNextDispatch) {
  std::array<Item, 2> items;
  Pool pool(1, 0);
  faults.create.arm(EAGAIN);
  testing::internal::CaptureStdout();
  ASSERT_EQ(pool.thrmgr_dispatch(&items[0]), THREADPOOL_OK);
  (void)testing::internal::GetCapturedStdout();
  EXPECT_EQ(items[0].handled, 0);
  ASSERT_EQ(pool.thrmgr_dispatch(&items[1]), THREADPOOL_OK);
  ASSERT_TRUE(eventually([] { return handled == 2; }));
  EXPECT_EQ(items[0].place, 1);
}

TEST_F(Threadpool, ItemWithoutItsOwnWorkerIsTakenByABusyOne) {
  std::array<Item, 2> items;
  gate.close();
  Pool pool(2, 0);
  ASSERT_EQ(pool.thrmgr_dispatch(&items[0]), THREADPOOL_OK);
  ASSERT_TRUE(eventually([] { return started == 1; }));
  faults.create.arm(EAGAIN);
  testing::internal::CaptureStdout();
  ASSERT_EQ(pool.thrmgr_dispatch(&items[1]), THREADPOOL_OK);
  (void)testing::internal::GetCapturedStdout();
  gate.open();
  EXPECT_TRUE(eventually([&] { return items[1].handled == 1; }));
}

// --- worker

TEST_F(Threadpool, NullHandlerDropsTheItem) {
  Item item;
  Pool pool(1, 0, nullptr);
  ASSERT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_OK);
  ASSERT_TRUE(eventually([&] { return pool.count(pool.alive) == 0; }));
  EXPECT_EQ(pool.queue->head, nullptr);
  EXPECT_EQ(item.handled, 0);
}

TEST_F(Threadpool, IdleWorkerEndsAndTheNextDispatchMakesANewOne) {
  std::array<Item, 2> items;
  Pool pool(1, 1);
  for (auto& item : items) {
    ASSERT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_OK);
    ASSERT_TRUE(eventually([&] { return item.handled == 1; }));
    ASSERT_TRUE(eventually([&] { return pool.count(pool.alive) == 0; }));
    EXPECT_EQ(pool.count(pool.idle), 0);
  }
  EXPECT_EQ(faults.create.calls(), 2);
}

TEST_F(Threadpool, DeadlineIsTheIdleTimeoutFromNowInWholeSeconds) {
  Item item;
  timespec deadline{};
  Pool pool(1, 100);
  faults.timed_wait = [&](const timespec& until) {
    deadline = until;
    return ETIMEDOUT;
  };
  const std::time_t before = std::time(nullptr);
  ASSERT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_OK);
  ASSERT_TRUE(eventually([&] { return pool.count(pool.alive) == 0; }));
  EXPECT_EQ(deadline.tv_nsec, 0);
  EXPECT_GE(deadline.tv_sec, before + 100);
  EXPECT_LE(deadline.tv_sec, std::time(nullptr) + 101);
}

TEST_F(Threadpool, WakeUpWithoutItemWaitsAgainForTheSameDeadline) {
  Item item;
  std::vector<std::time_t> deadlines;
  Pool pool(1, kLong);
  faults.timed_wait = [&](const timespec& until) {
    deadlines.push_back(until.tv_sec);
    return deadlines.size() < 4 ? 0 : ETIMEDOUT;
  };
  ASSERT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_OK);
  ASSERT_TRUE(eventually([&] { return pool.count(pool.alive) == 0; }));
  EXPECT_EQ(deadlines, std::vector<std::time_t>(4, deadlines.at(0)));
}

TEST_F(Threadpool, ItemQueuedAtTheMomentOfTheTimeoutIsHandled) {
  std::array<Item, 2> items;
  Pool pool(1, kLong);
  bool queued = false;
  faults.timed_wait = [&](const timespec&) {
    if (!queued) {
      EXPECT_EQ(pool.queue->queue_add(&items[1]), 1);
    }
    queued = true;
    return ETIMEDOUT;
  };
  ASSERT_EQ(pool.thrmgr_dispatch(&items[0]), THREADPOOL_OK);
  ASSERT_TRUE(eventually([&] { return pool.count(pool.alive) == 0; }));
  EXPECT_EQ(items[1].handled, 1);
}

TEST_F(Threadpool, NoItemIsStrandedByAWorkerThatEnds) {
  // Every wait times out at once, so each dispatch meets the only worker at a random point of its end; nothing is
  // dispatched afterwards that could rescue a stranded item.
  constexpr int kRounds = 5000;
  Pool pool(1, 0);
  for (int i = 0; i < kRounds; ++i) {
    Item item;
    ASSERT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_OK);
    ASSERT_TRUE(eventually([&] { return item.handled == 1; })) << i;
  }
  EXPECT_GT(faults.create.calls(), 1);
}

TEST_F(Threadpool, ManyProducersLoseAndRepeatNothing) {
  for (const int idle_timeout : {0, 1}) {
    std::vector<Item> items(8 * 500);
    Pool pool(4, idle_timeout);
    std::vector<std::thread> producers;
    for (std::size_t p = 0; p < 8; ++p) {
      producers.emplace_back([&items, &pool, p] {
        for (std::size_t i = 0; i < 500; ++i) EXPECT_EQ(pool.thrmgr_dispatch(&items[p * 500 + i]), THREADPOOL_OK);
      });
    }
    for (auto& producer : producers) producer.join();
    EXPECT_LE(pool.count(pool.alive), 4);
    EXPECT_EQ(pool.destory(), THREADPOOL_OK);
    for (const auto& item : items) ASSERT_EQ(item.handled, 1);
  }
}

TEST_F(ThreadpoolDeath, FailedLockAtTheStartOfAWorkerEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [] {
    Item item;
    Pool pool(1, kLong);
    faults.lock.arm(EINVAL, 1, &pool.pool_mutex);  // the first one is the dispatcher's
    (void)pool.thrmgr_dispatch(&item);
    for (;;) (void)pause();
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(-4 & 0xff), "");
}

TEST_F(ThreadpoolDeath, FailedLockAfterTheHandlerEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [] {
    Item item;
    Pool pool(1, kLong);
    faults.lock.arm(EINVAL, 2, &pool.pool_mutex);
    (void)pool.thrmgr_dispatch(&item);
    for (;;) (void)pause();
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(-4 & 0xff), "");
}

TEST_F(ThreadpoolDeath, FailedUnlockBeforeTheHandlerEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [] {
    Item item;
    Pool pool(1, kLong);
    faults.unlock.arm(EPERM, 1, &pool.pool_mutex);  // the first one is the dispatcher's
    (void)pool.thrmgr_dispatch(&item);
    for (;;) (void)pause();
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(-3 & 0xff), "");
}

TEST_F(ThreadpoolDeath, FailedUnlockAtTheEndOfAWorkerEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [] {
    Item item;
    Pool pool(1, 0);
    faults.unlock.arm(EPERM, 2, &pool.pool_mutex);
    (void)pool.thrmgr_dispatch(&item);
    for (;;) (void)pause();
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(-3 & 0xff), "");
}

// --- end of the pool

TEST_F(Threadpool, DestoryWithoutWorkersReportsThePoolClosed) {
  Pool pool(1, 0);
  EXPECT_EQ(pool.destory(), THREADPOOL_OK);
  EXPECT_EQ(pool.state, THREADPOOL_EXITING);
  EXPECT_EQ(nthreadpoolclose, 1);
}

TEST_F(Threadpool, SecondDestoryIsRefused) {
  Pool pool(1, 0);
  ASSERT_EQ(pool.destory(), THREADPOOL_OK);
  nthreadpoolclose = 0;
  EXPECT_EQ(pool.destory(), THREADPOOL_NOT_VALID);
  EXPECT_EQ(nthreadpoolclose, 0);
}

TEST_F(Threadpool, DestoryWakesIdleWorkers) {
  Item item;
  Pool pool(1, kLong);
  ASSERT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_OK);
  ASSERT_TRUE(eventually([&] { return pool.count(pool.idle) == 1; }));
  EXPECT_EQ(pool.destory(), THREADPOOL_OK);
  EXPECT_EQ(pool.alive, 0);
  EXPECT_EQ(pool.idle, 0);
}

TEST_F(Threadpool, DestoryWaitsForBusyWorkersAndQueuedItems) {
  std::array<Item, 13> items;
  gate.close();
  Pool pool(3, kLong);
  for (auto& item : items) ASSERT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_OK);
  ASSERT_TRUE(eventually([] { return started == 3; }));
  std::atomic<int> result{0};
  std::thread stopper([&] { result = pool.destory(); });
  ASSERT_TRUE(eventually([&] { return pool.state == THREADPOOL_EXITING; }));
  EXPECT_EQ(result, 0);
  EXPECT_EQ(nthreadpoolclose, 0);
  gate.open();
  stopper.join();
  EXPECT_EQ(result, THREADPOOL_OK);
  EXPECT_EQ(handled, 13);
  EXPECT_EQ(pool.alive, 0);
  EXPECT_EQ(pool.queue->head, nullptr);
  EXPECT_EQ(nthreadpoolclose, 1);
}

TEST_F(Threadpool, DestoryReportsAFailedLockAndLeavesThePoolValid) {
  Pool pool(1, 0);
  faults.lock.arm(EINVAL, 0, &pool.pool_mutex);
  EXPECT_EQ(pool.destory(), THREADPOOL_LOCK_FAILED);
  EXPECT_EQ(pool.state, THREADPOOL_VALID);
  EXPECT_EQ(nthreadpoolclose, 0);
}

TEST_F(Threadpool, DestoryReportsAFailedUnlock) {
  Pool pool(1, 0);
  faults.unlock.arm(EPERM, 0, &pool.pool_mutex);
  EXPECT_EQ(pool.destory(), THREADPOOL_UNLOCK_FAILED);
  EXPECT_EQ(nthreadpoolclose, 0);
}

TEST_F(Threadpool, DestoryReportsAFailedBroadcast) {
  Item item;
  gate.close();
  Pool pool(1, 0);
  ASSERT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_OK);
  faults.broadcast.arm(EINVAL);
  EXPECT_EQ(pool.destory(), THREADPOOL_BROADCAST_FAILED);
  EXPECT_EQ(pool.state, THREADPOOL_EXITING);
  EXPECT_EQ(nthreadpoolclose, 0);
  EXPECT_EQ(pool.count(pool.alive), 1);  // the mutex is free again
}

TEST_F(Threadpool, DestoryReportsAFailedWait) {
  Item item;
  gate.close();
  Pool pool(1, 0);
  ASSERT_EQ(pool.thrmgr_dispatch(&item), THREADPOOL_OK);
  faults.wait.arm(EINVAL, 0, &pool.pool_condition);
  EXPECT_EQ(pool.destory(), THREADPOOL_WAIT_FAILED);
  EXPECT_EQ(nthreadpoolclose, 0);
  EXPECT_EQ(pool.count(pool.alive), 1);
}
