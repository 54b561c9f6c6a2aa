// Times as the tables hold them: UTC text, YYYY-MM-DD HH:MM:SS.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace zelvan::ctl {

// Returns the time text of seconds since 1970.
std::string time_text(std::time_t seconds);

// Returns the seconds since 1970 of "YYYY-MM-DD HH:MM:SS" (or with "T" between, a fraction or "Z" behind) or of
// "YYYY-MM-DD"; nothing when the text is no date that exists.
std::optional<std::time_t> parse_time(std::string_view text);

// Returns the moment that a person means: a time text, or how long ago: "90s", "15m", "2h", "7d", "2w".
std::optional<std::time_t> parse_moment(std::string_view text, std::time_t now);

// Returns a length of time in words: "40 seconds", "5 minutes", "3 hours", "12 days".
std::string duration_words(std::time_t seconds);

}  // namespace zelvan::ctl
