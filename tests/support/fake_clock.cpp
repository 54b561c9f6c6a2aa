#include "support/fake_clock.h"

#include <atomic>

#include "base/clock.h"

namespace {
std::atomic<std::time_t> clock_seconds{1'700'000'000};  // 2023-11-14 22:13:20 UTC
}

namespace zelvan {
std::time_t now_seconds() { return clock_seconds; }
}  // namespace zelvan

namespace zelvan::test {
void set_clock(std::time_t seconds) { clock_seconds = seconds; }
void advance_clock(std::time_t seconds) { clock_seconds += seconds; }
}  // namespace zelvan::test
