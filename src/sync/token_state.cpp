#include "sync/token_state.h"

#include "base/clock.h"
#include "db/time_text.h"

namespace {

constexpr unsigned long kLargestHalf = 0xFFFFFFFF;
constexpr const char* kDateFormat = "YYYY-MM-DD hh:mi:ss";

}  // namespace

void countadd(unsigned long& high, unsigned long& low) {
  if (low != kLargestHalf) {
    ++low;
    return;
  }
  low = 0;
  high = high == kLargestHalf ? 0 : high + 1;
}

std::time_t getcurtime() {
  const std::time_t now = zelvan::now_seconds();
  struct tm parts {};
  if (gmtime_r(&now, &parts) == nullptr) return -1;
  return std::mktime(&parts);
}

namespace zelvan {

void advance_counter(unsigned long& high, unsigned long& low, std::uint64_t steps) {
  const std::uint64_t sum = (std::uint64_t{high} << 32U | low) + steps;
  high = sum >> 32U;
  low = sum & kLargestHalf;
}

std::time_t stored_time(const char* text) {
  struct tm parts {};
  if (str2time(text, kDateFormat, parts) == 0) return -1;
  return std::mktime(&parts);
}

std::uint64_t steps_to_advance(std::time_t elapsed, int time_step, std::uint8_t window) {
  const std::time_t steps = elapsed / time_step;
  const std::time_t half_window = window / 2;
  return steps > half_window ? static_cast<std::uint64_t>(steps - half_window) : 0;
}

std::uint32_t sync_challenge(RandomPair pair) {
  return static_cast<std::uint32_t>((pair.r1 % 999 + 1) * 1000 + pair.r2 % 999);
}

}  // namespace zelvan
