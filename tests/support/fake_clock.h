// A clock that stands still until a test moves it.  Linked in place of base/clock.cpp.
#pragma once

#include <ctime>
#include <functional>

namespace zelvan::test {

// Sets the time that zelvan::now_seconds() reports, in seconds since 1970-01-01 UTC.
void set_clock(std::time_t seconds);

// Moves the time by `seconds`, which may be negative.
void advance_clock(std::time_t seconds);

// Runs `hook` at every reading of the time, in the reading thread; an empty one ends that.  Not while others read.
void on_clock_read(std::function<void()> hook);

}  // namespace zelvan::test
