// Finding where a token is, from two of its codes in a row.
//
// Source   RFC 4226 section 7.4: two codes in a row make a chance match in a wide window unlikely.
// Threads  No state.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "zelvanctl/secret.h"

namespace zelvan::ctl {

// Returns the code of `counter`, as the server computes it.
//   digits  6 to 10
std::string hotp_code(const Secret& key, std::uint64_t counter, int digits);

// Moving factors to search, ends included.  Beyond the end of 64 bits the search stops.
struct SearchRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
};

// Returns the range of `ahead` factors from `centre` on and `behind` factors before it, cut to 64 bits.
SearchRange range_around(std::uint64_t centre, std::uint64_t behind, std::uint64_t ahead);

// Returns the factor of the first code, such that the second is the code of the factor after it; the lowest one in the
// range, or nothing.
std::optional<std::uint64_t> find_pair(const Secret& key, int digits, SearchRange range, std::string_view first_code,
                                       std::string_view second_code);

// Returns the factor that the server expects at `now` for a time-stepped token.
//   counter, date  as stored; `date` in seconds since 1970
//   step           seconds, at least 1
std::uint64_t expected_factor(std::uint64_t counter, std::int64_t date, std::int64_t step, std::int64_t now);

// Where a time-stepped token stands.
struct StepReading {
  std::uint64_t factor = 0;  // of the present step
  std::int64_t since = 0;    // when this step began, in seconds since 1970
};

// Returns where a token is whose steps count from 1970 (RFC 6238).
StepReading reading_of_clock(std::int64_t step, std::int64_t now);

// Returns where the token is as its row tells; the arguments are those of expected_factor().
StepReading reading_of_row(std::uint64_t counter, std::int64_t date, std::int64_t step, std::int64_t now);

// Returns the reading whose factor is nearer.
StepReading nearer_reading(StepReading left, StepReading right, std::uint64_t factor);

// Returns the time to store with the factor after `last`, in seconds since 1970.  From there on the server's window
// holds both the code of the expected step and what the token shows if it has just shown `last`: nobody knows whether
// codes a little behind were read a while ago or by a token whose clock is slow.  At most a step in the future.
//   last      factor of the second of two codes
//   expected  where the token should be
//   window    codes that the server tries, at least 1
// Returns nothing when `last` is further behind than the window is wide.
std::optional<std::int64_t> resync_date(std::uint64_t last, StepReading expected, std::int64_t window,
                                        std::int64_t step);

}  // namespace zelvan::ctl
