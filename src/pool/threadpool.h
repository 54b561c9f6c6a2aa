// Worker threads that run one handler on queued items.
//
// A worker is created only when none is idle, up to a limit; one that finds nothing to do for the idle timeout ends.
// So the number of threads follows the load, and a quiet server holds none.
//
// Threads  Any thread may dispatch.  One mutex guards the counters and the queue; the handler runs without it.  One
//          condition carries three signals (a new item, shutdown, the end of the last worker), so whoever wakes looks
//          at the state again.  Workers are detached: destory learns of their end from `alive`.
// Memory   The handler owns the item it is given.  The destructor gives nothing back, see there.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "pool/queue_t.h"

enum threadpool_state : std::int32_t {
  THREADPOOL_VALID = 1,    // takes items
  THREADPOOL_EXITING = 2,  // draining or stopped; also the state after a failed construction
};

enum threadpool_result : int {
  THREADPOOL_OK = 1,
  THREADPOOL_WAIT_FAILED = -2,
  THREADPOOL_UNLOCK_FAILED = -3,
  THREADPOOL_LOCK_FAILED = -4,
  THREADPOOL_NOT_VALID = -5,
  THREADPOOL_NOT_QUEUED = -6,
  THREADPOOL_BROADCAST_FAILED = -7,
};

// 0 until a pool of this process has been stopped by destory, then 1.
extern std::atomic<int> nthreadpoolclose;

class threadpool {
 public:
  // Makes an empty pool without threads.
  //   max_threads     most workers alive at once; below 1 counts as 1
  //   idle_timeout_s  seconds that a worker waits for an item, measured between whole seconds of the wall clock
  //   handler         run once per item, in a worker; null drops every item
  // When the system refuses a part of the pool the state is THREADPOOL_EXITING and every call answers
  // THREADPOOL_NOT_VALID.
  threadpool(int max_threads, int idle_timeout_s, void (*handler)(void*));

  // Deliberate: gives nothing back (the queue, the mutex, the condition and the attributes stay), since a detached
  // worker may still be on its way out.
  virtual ~threadpool();

  threadpool(const threadpool&) = delete;
  threadpool& operator=(const threadpool&) = delete;

  // Queues `item` (not null, see queue_t) and wakes or creates a worker for it.
  // Returns THREADPOOL_OK, THREADPOOL_LOCK_FAILED, THREADPOOL_NOT_VALID, THREADPOOL_NOT_QUEUED (no memory) or
  // THREADPOOL_UNLOCK_FAILED; in the last case the item may be queued.  When no thread can be created the item waits
  // for a worker that exists, or for the next dispatch, and one line on standard output tells so.
  int thrmgr_dispatch(void* item);

  // The body of a worker; `pool` is the threadpool.  Returns null when the worker ends.
  // A mutex that cannot be locked or unlocked ends the process with THREADPOOL_LOCK_FAILED or
  // THREADPOOL_UNLOCK_FAILED as its exit status.
  static void* thrmgr_worker(void* pool);

  // Refuses further items, waits until every queued item has been handled and every worker has ended, and sets
  // nthreadpoolclose.  The name is spelled so.  Not to be called by a worker, which would wait for itself.
  // Returns THREADPOOL_OK, THREADPOOL_NOT_VALID (a second call, too), THREADPOOL_LOCK_FAILED,
  // THREADPOOL_BROADCAST_FAILED, THREADPOOL_WAIT_FAILED or THREADPOOL_UNLOCK_FAILED.
  int destory();

  pthread_mutex_t pool_mutex = PTHREAD_MUTEX_INITIALIZER;  // guards every field below and the queue
  pthread_cond_t pool_condition{};
  pthread_attr_t thread_attributes{};  // detached
  std::atomic<std::int32_t> state;     // threadpool_state; destory looks at it before it locks
  std::int32_t thread_limit;           // most workers alive at once, at least 1
  std::int32_t alive = 0;              // workers created and not yet ended
  std::int32_t idle = 0;               // workers waiting for an item
  std::int32_t idle_timeout;           // seconds
  void (*handler)(void*);              // null drops every item
  queue_t* queue;                      // made by the constructor, never released

 private:
  bool construct();
  int queue_item(void* item);
  void start_worker();
  void* next_item();
  int wait_for_workers();

  const bool constructed_;  // false when there is no mutex to lock
};
