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

}  // namespace zelvan::ctl
