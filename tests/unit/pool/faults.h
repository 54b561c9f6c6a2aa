// System calls that fail when a test says so.  The test program links with --wrap for each of them.
#pragma once

#include <atomic>
#include <ctime>
#include <functional>

namespace zelvan::test {

// One call of the system, and how its next calls go.
class Fault {
 public:
  // Lets the call fail once with `error`, after `skip` good ones; only calls on `object` count unless it is null.
  void arm(int error, int skip = 0, const void* object = nullptr);

  void clear();

  // For the wrapper: counts a call on `object` and returns the error that it must report, or 0.
  int next(const void* object);

  // Calls since the last clear().
  [[nodiscard]] int calls() const { return calls_; }

 private:
  std::atomic<int> error_{0};
  std::atomic<int> skip_{0};
  std::atomic<const void*> object_{nullptr};
  std::atomic<int> calls_{0};
};

struct Faults {
  Fault mutex_init;
  Fault lock;
  Fault unlock;  // the mutex is unlocked, and the call reports a failure all the same
  Fault cond_init;
  Fault attr_init;
  Fault set_detached;
  Fault create;
  Fault detach;
  Fault wait;
  Fault broadcast;
  Fault allocate;  // any error makes malloc return null

  // Runs in place of pthread_cond_timedwait, with the mutex held; a negative result means: wait in earnest.  Set it
  // while no worker exists.
  std::function<int(const timespec&)> timed_wait;

  void clear();
};

extern Faults faults;

}  // namespace zelvan::test
