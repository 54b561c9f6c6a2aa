// The time, asked for in one place.
#pragma once

#include <ctime>

namespace zelvan {

// Returns the current time in seconds since 1970-01-01 UTC, as time(2) does.  Any thread may call it.
std::time_t now_seconds();

}  // namespace zelvan
