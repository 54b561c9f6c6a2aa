// Random numbers for challenges.
//
// Challenges come from rand(3) seeded with the time, so they are no secrets: what a challenge proves rests on the
// token's key alone.
//
// Threads  Every function may be called by any thread.
#pragma once

#include <cstdint>
#include <ctime>

namespace zelvan {

// The first two numbers that rand(3) gives after a seed, each 0 to RAND_MAX.
struct RandomPair {
  int r1;
  int r2;
};

// Seeds the process-wide generator with `seed` (seconds, UTC) and draws two numbers.
// One mutex covers the seeding and both draws, so one second gives one pair whatever other threads do here.
RandomPair draw_pair(std::time_t seed);

// Returns the challenge that an Access-Challenge carries, 1001 to 10008999, as made from `pair`.
std::uint32_t radius_challenge(RandomPair pair);

}  // namespace zelvan
