// Mutexes of the server: thin wrappers with integer results, and a guard that cannot forget to unlock.
//
// Threads  Every function may be called by any thread; the wrappers follow pthread_mutex_init(3) and its siblings.
#pragma once

#include <pthread.h>

// Initialises `m` with default attributes.  Returns 0, or the error number of pthread_mutex_init(3).
int MyInitLock(pthread_mutex_t& m);

// Locks `m`, waiting as long as it takes.  Returns 0, or the error number of pthread_mutex_lock(3).
int MyLock(pthread_mutex_t& m);

// Unlocks `m`.  Returns 0, or the error number of pthread_mutex_unlock(3).
int MyULock(pthread_mutex_t& m);

// Destroys `m`, which must be unlocked.  Returns 0, or the error number of pthread_mutex_destroy(3).
int MyUInitLock(pthread_mutex_t& m);

namespace zelvan {

// Holds a mutex from construction to destruction, or for a shorter time through unlock() and lock().
// A failed lock leaves the guard without the mutex; callers that have a result code for that case ask owns().
class ScopedLock {
 public:
  explicit ScopedLock(pthread_mutex_t& m) : mutex_(m) { (void)lock(); }
  ~ScopedLock() { (void)unlock(); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

  // Takes the mutex unless the guard holds it already.  Returns 0, or the error number.
  int lock();

  // Gives the mutex back if the guard holds it.  Returns 0, or the error number; the guard lets go in either case.
  int unlock();

  // True while the guard holds the mutex.
  [[nodiscard]] bool owns() const { return owns_; }

 private:
  pthread_mutex_t& mutex_;
  bool owns_ = false;
};

}  // namespace zelvan
