// A token on the user's own machine: which counter comes next, and the code for it.
//
// An event token hands out one counter after the other.  A time-stepped token starts from the counter that the server
// named at the moment of fetching and counts the time steps that have passed since, by the server's clock.  The server
// counts the steps since the last code that it accepted instead; both agree to within one step however many codes are
// used, because the number of the accepted code carries over to the server's next count.
//
// No counter is handed out twice, since the server takes each code once.  A second code within one time step is that of
// the next step, which the server's window covers; a third has to wait.  So the token is never more than one step ahead
// of the clock, and codes that are never used do no harm.
//
// Source   RFC 4226 (codes), RFC 6238 section 4 (time steps).
// Threads  Functions over the caller's token: no state.
// Memory   Secrets are wiped with the token.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "sync/sync_packet.h"
#include "zelvan_token/secret.h"

namespace zelvan::token {

enum class Kind { event, time_stepped, challenge };

// Returns "event-counted", "time-stepped" or "challenge-response".
const char* kind_name(Kind kind);

struct SoftToken {
  std::string user;
  std::string server;  // where it was fetched, HOST:PORT
  Kind kind = Kind::event;
  int digits = 6;                 // 6 to 10
  bool pin_follows = false;       // the server expects the PIN behind the code
  Secret key;                     // 1 to 29 bytes
  Secret pin;                     // empty when there is none, or it was not kept
  std::uint64_t base = 0;         // counter at the moment of fetching
  std::uint64_t next = 0;         // lowest counter not handed out yet
  int time_step = 0;              // seconds, 1 to 999; time-stepped tokens only, else 0
  std::int64_t fetched_at = 0;    // seconds since 1970-01-01 UTC, by the server's clock
  std::int64_t clock_offset = 0;  // seconds to add to this machine's clock to get the server's
};

// How many steps ahead of the clock a time-stepped token may be.
inline constexpr std::int64_t kMostStepsAhead = 1;

// Makes a token of what the server sent.
//   now  this machine's clock when the answer came
// Throws Failure (kMalformed) when no code can be computed from it: digits beyond 6 to 10, no key, a time-stepped token
// without a time step.
SoftToken make_token(const std::string& user, const std::string& server, const SyncToken& received, std::time_t now);

// What an attempt to get a counter brought.
struct Draw {
  std::uint64_t counter = 0;
  std::int64_t wait = 0;          // not 0: no counter now, but in so many seconds
  bool ahead = false;             // the counter of the step after the present one
  std::int64_t seconds_left = 0;  // until the step of the counter ends; time-stepped tokens only
};

// Hands out the next counter of an event or time-stepped token, and marks it as used in `token` unless the draw says
// wait.
//   now  this machine's clock
Draw draw_counter(SoftToken& token, std::time_t now);

// Returns the code of a counter (for a challenge token: of the challenge number).
//   with_pin  put the PIN behind it, where the account wants that
Secret code_text(const SoftToken& token, std::uint64_t counter, bool with_pin);

// Returns this machine's time on the server's clock.
inline std::int64_t server_time(const SoftToken& token, std::time_t now) {
  return static_cast<std::int64_t>(now) + token.clock_offset;
}

}  // namespace zelvan::token
