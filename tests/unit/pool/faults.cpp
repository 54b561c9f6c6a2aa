#include "unit/pool/faults.h"

#include <pthread.h>

#include <cstddef>

namespace zelvan::test {

Faults faults;

void Fault::arm(int error, int skip, const void* object) {
  object_ = object;
  skip_ = skip;
  error_ = error;
}

void Fault::clear() {
  error_ = 0;
  calls_ = 0;
}

int Fault::next(const void* object) {
  ++calls_;
  if (error_ == 0) return 0;
  const void* const wanted = object_;
  if (wanted != nullptr && wanted != object) return 0;
  if (skip_.fetch_sub(1) > 0) return 0;
  return error_.exchange(0);
}

void Faults::clear() {
  for (Fault* fault : {&mutex_init, &lock, &unlock, &cond_init, &attr_init, &set_detached, &create, &detach, &wait,
                       &broadcast, &allocate}) {
    fault->clear();
  }
  timed_wait = nullptr;
}

}  // namespace zelvan::test

using zelvan::test::faults;

extern "C" {

int __real_pthread_mutex_init(pthread_mutex_t*, const pthread_mutexattr_t*);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
  if (const int error = faults.mutex_init.next(mutex)) return error;
  return __real_pthread_mutex_init(mutex, attributes);
}

int __real_pthread_mutex_lock(pthread_mutex_t*);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  if (const int error = faults.lock.next(mutex)) return error;
  return __real_pthread_mutex_lock(mutex);
}

int __real_pthread_mutex_unlock(pthread_mutex_t*);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  const int error = faults.unlock.next(mutex);
  const int result = __real_pthread_mutex_unlock(mutex);
  return error != 0 ? error : result;
}

int __real_pthread_cond_init(pthread_cond_t*, const pthread_condattr_t*);
int __wrap_pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes) {
  if (const int error = faults.cond_init.next(condition)) return error;
  return __real_pthread_cond_init(condition, attributes);
}

int __real_pthread_attr_init(pthread_attr_t*);
int __wrap_pthread_attr_init(pthread_attr_t* attributes) {
  if (const int error = faults.attr_init.next(attributes)) return error;
  return __real_pthread_attr_init(attributes);
}

int __real_pthread_attr_setdetachstate(pthread_attr_t*, int);
int __wrap_pthread_attr_setdetachstate(pthread_attr_t* attributes, int state) {
  if (const int error = faults.set_detached.next(attributes)) return error;
  return __real_pthread_attr_setdetachstate(attributes, state);
}

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) {
  if (const int error = faults.create.next(attributes)) return error;
  return __real_pthread_create(thread, attributes, body, argument);
}

int __real_pthread_detach(pthread_t);
int __wrap_pthread_detach(pthread_t thread) {
  if (const int error = faults.detach.next(nullptr)) return error;
  return __real_pthread_detach(thread);
}

int __real_pthread_cond_wait(pthread_cond_t*, pthread_mutex_t*);
int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  if (const int error = faults.wait.next(condition)) return error;
  return __real_pthread_cond_wait(condition, mutex);
}

int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);
int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
  if (faults.timed_wait) {
    if (const int result = faults.timed_wait(*deadline); result >= 0) return result;
  }
  return __real_pthread_cond_timedwait(condition, mutex, deadline);
}

int __real_pthread_cond_broadcast(pthread_cond_t*);
int __wrap_pthread_cond_broadcast(pthread_cond_t* condition) {
  if (const int error = faults.broadcast.next(condition)) return error;
  return __real_pthread_cond_broadcast(condition);
}

void* __real_malloc(std::size_t);
void* __wrap_malloc(std::size_t size) {
  if (faults.allocate.next(nullptr) != 0) return nullptr;
  return __real_malloc(size);
}
}
