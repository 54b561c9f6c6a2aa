// What the server would do with the user's next attempt, as far as the rows decide it.
//
// Threads  No state: pure functions.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "zelvanctl/records.h"

namespace zelvan::ctl {

// A refused attempt within this time keeps a lock; the first attempt after it lifts the lock.
inline constexpr std::time_t kLockSeconds = 599;

// Settings that decide, as the server reads them.
struct Rules {
  int window_cap = 30;    // otp_wnd
  int failures_most = 5;  // otp_max_accum
};

struct NextAttempt {
  std::vector<std::string> refusals;  // why even the right code is refused; empty: the right code is accepted
  std::vector<std::string> remarks;   // what else is worth knowing
  std::time_t lock_seconds = 0;       // how long a lock still holds, when nobody tries meanwhile; 0: no lock

  [[nodiscard]] bool refused() const { return !refusals.empty(); }
};

// Foretells the next attempt.
//   token  null when there is no row for the user's serial number
NextAttempt next_attempt(const User& user, const Token* token, const Rules& rules, std::time_t now);

}  // namespace zelvan::ctl
