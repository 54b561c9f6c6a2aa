#include "support/fake_clock.h"

#include <atomic>
#include <utility>

#include "base/clock.h"

namespace {
std::atomic<std::time_t> clock_seconds{1'700'000'000};  // 2023-11-14 22:13:20 UTC
std::function<void()> read_hook;
}  // namespace

namespace zelvan {
std::time_t now_seconds() {
  if (read_hook) read_hook();
  return clock_seconds;
}
}  // namespace zelvan

namespace zelvan::test {
void set_clock(std::time_t seconds) { clock_seconds = seconds; }
void advance_clock(std::time_t seconds) { clock_seconds += seconds; }
void on_clock_read(std::function<void()> hook) { read_hook = std::move(hook); }
}  // namespace zelvan::test
