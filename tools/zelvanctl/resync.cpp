#include "zelvanctl/resync.h"

#include <algorithm>
#include <array>
#include <limits>

#include "otp/HOTP.h"
#include "zelvanctl/failure.h"

namespace zelvan::ctl {
namespace {

constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();

std::array<unsigned char, 8> big_endian(std::uint64_t value) {
  std::array<unsigned char, 8> bytes{};
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(value >> (56 - 8 * i));
  return bytes;
}

std::uint64_t distance(std::uint64_t left, std::uint64_t right) { return left > right ? left - right : right - left; }

}  // namespace

std::string hotp_code(const Secret& key, std::uint64_t counter, int digits) {
  const auto factor = big_endian(counter);
  std::array<char, 16> code{};
  QENT_HOTP hotp;
  if (!hotp.hotp_generate(key.reveal().c_str(), key.reveal().size(), factor.data(), digits, code.data())) {
    throw Failure(kFailed, "the server makes no codes of " + std::to_string(digits) + " digits");
  }
  return code.data();
}

SearchRange range_around(std::uint64_t centre, std::uint64_t behind, std::uint64_t ahead) {
  return {centre - std::min(centre, behind), centre + std::min(kMost - centre, ahead)};
}

std::optional<std::uint64_t> find_pair(const Secret& key, int digits, SearchRange range, std::string_view first_code,
                                       std::string_view second_code) {
  for (std::uint64_t factor = range.first; factor < kMost; ++factor) {
    // Few first codes match, so the second one is seldom computed.
    if (hotp_code(key, factor, digits) == first_code && hotp_code(key, factor + 1, digits) == second_code)
      return factor;
    if (factor >= range.last) break;
  }
  return {};
}

std::uint64_t expected_factor(std::uint64_t counter, std::int64_t date, std::int64_t step, std::int64_t now) {
  const std::int64_t elapsed = std::min<std::int64_t>(now - date, std::numeric_limits<std::int32_t>::max());
  return elapsed > 0 ? counter + static_cast<std::uint64_t>(elapsed / step) : counter;
}

StepReading reading_of_clock(std::int64_t step, std::int64_t now) {
  return {static_cast<std::uint64_t>(now / step), now - now % step};
}

StepReading reading_of_row(std::uint64_t counter, std::int64_t date, std::int64_t step, std::int64_t now) {
  const std::int64_t since = now > date ? now - (now - date) % step : now;
  return {expected_factor(counter, date, step, now), since};
}

StepReading nearer_reading(StepReading left, StepReading right, std::uint64_t factor) {
  return distance(right.factor, factor) < distance(left.factor, factor) ? right : left;
}

std::optional<std::int64_t> resync_date(std::uint64_t last, StepReading expected, std::int64_t window,
                                        std::int64_t step) {
  if (expected.factor > last && expected.factor - last > static_cast<std::uint64_t>(window)) return {};
  // Steps from `last` to the middle of the server's window at this moment: as few as let the window reach both ends.
  const std::int64_t behind = expected.factor > last ? static_cast<std::int64_t>(expected.factor - last) : 0;
  const std::int64_t before_middle = window / 2;
  const std::int64_t after_middle = window - 1 - before_middle;
  const std::int64_t middle = std::min(behind, std::max(before_middle, behind - after_middle));
  return expected.since - (middle - 1) * step;
}

}  // namespace zelvan::ctl
