// Random token keys and serial numbers, from getrandom(2).
//
// Threads  No state.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "zelvanctl/secret.h"

namespace zelvan::ctl {

// Characters of a key that the tool makes: 28 of 62 letters and digits carry 166 bits, more than the 160 that RFC 4226
// section 4 recommends, and fit the 29 characters that the synchronisation service reads (RADIUS reads 54).
inline constexpr std::size_t kKeyCharacters = 28;

// Fills `out` with random bytes.  Throws Failure when the system has none to give.
void fill_random(std::span<unsigned char> out);

// Returns `count` characters drawn evenly from `alphabet` (2 to 256 characters).
std::string random_text(std::string_view alphabet, std::size_t count);

// Returns a new key of kKeyCharacters letters and digits.
Secret make_key();

// Returns a new serial number: "Z" and 11 digits and letters that cannot be mistaken for each other (55 bits, so two
// equal ones do not happen; the database would refuse the second).
std::string make_serial();

}  // namespace zelvan::ctl
