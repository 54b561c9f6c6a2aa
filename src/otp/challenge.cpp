#include "otp/challenge.h"

#include <pthread.h>

#include <cstdlib>

#include "base/locks.h"

namespace zelvan {

namespace {

pthread_mutex_t generator_mutex = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

RandomPair draw_pair(std::time_t seed) {
  const ScopedLock lock(generator_mutex);
  // Deliberate: two challenges drawn in one second are equal.
  std::srand(static_cast<unsigned int>(seed));
  const int r1 = std::rand();
  const int r2 = std::rand();
  return {r1, r2};
}

std::uint32_t radius_challenge(RandomPair pair) {
  const auto r1 = static_cast<std::uint32_t>(pair.r1);
  const auto r2 = static_cast<std::uint32_t>(pair.r2);
  return (r1 % 9999U + 1U) * 1000U + r2 % 9999U + 1U;
}

}  // namespace zelvan
