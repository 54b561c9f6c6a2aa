// Stream calls that fail when a test says so.  The test program links with --wrap for each of them.
#pragma once

#include <atomic>
#include <functional>

namespace zelvan::test {

// Counts down the calls of one function: 1 lets the next one fail, 2 the one after it; 0 lets all pass.
struct StreamFaults {
  std::atomic<int> open{0};
  std::atomic<int> seek{0};
  std::atomic<int> tell{0};

  // Runs before the next fclose, once.
  std::function<void()> on_close;
};

extern StreamFaults stream_faults;

}  // namespace zelvan::test
