// The arithmetic of a token: its counter, the clock that moves it, the number of a challenge.
//
// Source   RFC 4226 section 5.1 (counter), RFC 6238 section 4 (time steps).
// Threads  No state: any thread may call any function.
#pragma once

#include <cstdint>
#include <ctime>

#include "otp/challenge.h"

// Adds one to the counter high * 2^32 + low, each half 0 to 2^32 - 1; the largest counter becomes 0.
void countadd(unsigned long& high, unsigned long& low);

// Returns the current time on the scale of zelvan::stored_time: the UTC calendar time read back as local time.
// Deliberate: it is not the seconds since 1970 unless the time zone is UTC; only differences between the two are used.
// Returns -1 when the clock is beyond the calendar.
std::time_t getcurtime();

namespace zelvan {

// Adds `steps` to the counter: the result of that many countadd calls, wrap included, at the cost of one addition.
void advance_counter(unsigned long& high, unsigned long& low, std::uint64_t steps);

// Returns the time of a time text of the database on the scale of getcurtime(); -1 when it cannot be converted.
//   text  NUL-terminated; fields that are missing or no numbers count as 0
[[nodiscard]] std::time_t stored_time(const char* text);

// Returns how many steps a time-stepped counter moves before it is compared: the whole steps in `elapsed` less half
// the window; 0 when half the window covers them all, or when `elapsed` is negative.
//   elapsed    seconds since the counter was stored
//   time_step  seconds, above 0
//   window     codes tried
[[nodiscard]] std::uint64_t steps_to_advance(std::time_t elapsed, int time_step, std::uint8_t window);

// Returns the challenge made from `pair`, 1000 to 999998.
[[nodiscard]] std::uint32_t sync_challenge(RandomPair pair);

}  // namespace zelvan
