#include "base/locks.h"

int MyInitLock(pthread_mutex_t& m) { return pthread_mutex_init(&m, nullptr); }

int MyLock(pthread_mutex_t& m) { return pthread_mutex_lock(&m); }

int MyULock(pthread_mutex_t& m) { return pthread_mutex_unlock(&m); }

int MyUInitLock(pthread_mutex_t& m) { return pthread_mutex_destroy(&m); }

namespace zelvan {

int ScopedLock::lock() {
  if (owns_) return 0;
  const int error = MyLock(mutex_);
  owns_ = error == 0;
  return error;
}

int ScopedLock::unlock() {
  if (!owns_) return 0;
  owns_ = false;
  return MyULock(mutex_);
}

}  // namespace zelvan
