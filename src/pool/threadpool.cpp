#include "pool/threadpool.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include "base/locks.h"

std::atomic<int> nthreadpoolclose{0};

namespace {

// A worker without its mutex can neither take an item nor say that it ends, so the process ends.  With _exit: the
// destructors of exit(3) would run under the feet of the other threads.
void lock_or_exit(pthread_mutex_t& mutex) {
  if (MyLock(mutex) != 0) _exit(THREADPOOL_LOCK_FAILED);
}

void unlock_or_exit(pthread_mutex_t& mutex) {
  if (MyULock(mutex) != 0) _exit(THREADPOOL_UNLOCK_FAILED);
}

}  // namespace

threadpool::threadpool(int max_threads, int idle_timeout_s, void (*item_handler)(void*))
    : state(THREADPOOL_EXITING),
      thread_limit(std::max(max_threads, 1)),
      idle_timeout(idle_timeout_s),
      handler(item_handler),
      queue(new queue_t),
      constructed_(construct()) {
  if (constructed_) state = THREADPOOL_VALID;
}

threadpool::~threadpool() = default;

// Makes the mutex, the condition and the attributes, or none of them.
bool threadpool::construct() {
  (void)MyInitLock(pool_mutex);  // if it fails, the static initialiser still stands
  if (pthread_cond_init(&pool_condition, nullptr) == 0) {
    if (pthread_attr_init(&thread_attributes) == 0) {
      if (pthread_attr_setdetachstate(&thread_attributes, PTHREAD_CREATE_DETACHED) == 0) return true;
      (void)pthread_attr_destroy(&thread_attributes);
    }
    (void)pthread_cond_destroy(&pool_condition);
  }
  (void)MyUInitLock(pool_mutex);
  return false;
}

int threadpool::thrmgr_dispatch(void* item) {
  if (!constructed_) return THREADPOOL_NOT_VALID;
  zelvan::ScopedLock lock(pool_mutex);
  if (!lock.owns()) return THREADPOOL_LOCK_FAILED;
  const int result = queue_item(item);
  return lock.unlock() == 0 ? result : THREADPOOL_UNLOCK_FAILED;
}

// With the mutex held.
int threadpool::queue_item(void* item) {
  if (state != THREADPOOL_VALID) return THREADPOOL_NOT_VALID;
  if (queue->queue_add(item) == 0) return THREADPOOL_NOT_QUEUED;
  if (idle == 0 && alive < thread_limit) start_worker();
  (void)pthread_cond_signal(&pool_condition);  // cannot fail on a valid condition
  return THREADPOOL_OK;
}

// With the mutex held, which keeps the new worker alive until its handle has been used.
void threadpool::start_worker() {
  pthread_t worker{};
  if (pthread_create(&worker, &thread_attributes, thrmgr_worker, this) != 0) {
    (void)std::puts("Failed in creating thread");
    (void)std::fflush(stdout);
    return;
  }
  ++alive;
  (void)pthread_detach(worker);  // made detached already; a system that ignored the attribute is told once more
}

void* threadpool::thrmgr_worker(void* pool) {
  auto& self = *static_cast<threadpool*>(pool);
  lock_or_exit(self.pool_mutex);
  while (void* const item = self.next_item()) {
    unlock_or_exit(self.pool_mutex);
    if (self.handler != nullptr) self.handler(item);
    lock_or_exit(self.pool_mutex);
  }
  if (--self.alive == 0) (void)pthread_cond_broadcast(&self.pool_condition);
  unlock_or_exit(self.pool_mutex);
  return nullptr;
}

// Waits for an item with the mutex held.  Returns null when the worker is to end: nothing came within the idle
// timeout, or the pool is exiting and the queue is empty.
//
// The mutex is not released between the last look into the queue and the caller's step of taking itself off `alive`.
// Otherwise an item queued in between would find no idle worker and the limit reached, and would be stranded.
void* threadpool::next_item() {
  // The condition measures against the wall clock.
  timespec deadline{};
  (void)clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += idle_timeout;
  deadline.tv_nsec = 0;

  ++idle;
  void* item = queue->queue_pop();
  for (bool timed_out = false; item == nullptr && !timed_out && state != THREADPOOL_EXITING;) {
    timed_out = pthread_cond_timedwait(&pool_condition, &pool_mutex, &deadline) == ETIMEDOUT;
    item = queue->queue_pop();  // also after a timeout: an item may have come at that very moment
  }
  --idle;
  return item;
}

int threadpool::destory() {
  if (state != THREADPOOL_VALID) return THREADPOOL_NOT_VALID;
  zelvan::ScopedLock lock(pool_mutex);
  if (!lock.owns()) return THREADPOOL_LOCK_FAILED;
  state = THREADPOOL_EXITING;
  const int result = wait_for_workers();
  if (result != THREADPOOL_OK) return result;
  if (lock.unlock() != 0) return THREADPOOL_UNLOCK_FAILED;
  nthreadpoolclose = 1;
  return THREADPOOL_OK;
}

// With the mutex held.  Workers that wait are woken to find the pool exiting; the last one to end wakes this call.
int threadpool::wait_for_workers() {
  if (alive > 0 && pthread_cond_broadcast(&pool_condition) != 0) return THREADPOOL_BROADCAST_FAILED;
  while (alive > 0) {
    if (pthread_cond_wait(&pool_condition, &pool_mutex) != 0) return THREADPOOL_WAIT_FAILED;
  }
  return THREADPOOL_OK;
}
