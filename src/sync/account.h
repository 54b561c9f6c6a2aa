// What the database knows about a user and the user's token.
//
// Differs  Columns are cut at limits of this service's own, shorter than those of the RADIUS service: one character for
//          types and digits, two for window and time step.
// Threads  An account belongs to one thread.
// Memory   Secrets are wiped with the account.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>

#include "db/QENTDatabase.h"
#include "sync/sync_packet.h"

namespace zelvan {

// How a request ended.  Every negative result is answered with the same refusal.
enum sync_result : int {
  SYNC_ACCEPTED = 0,       // the token follows
  SYNC_CHALLENGED = 4,     // a challenge was issued
  SYNC_NOT_EXECUTED = -1,  // a select failed
  SYNC_NO_ROW = -2,        // no such user or token
  SYNC_UNREADABLE = -3,    // a column failed, or holds what no token can have
  SYNC_NO_MATCH = -4,      // wrong code or PIN
  SYNC_NOT_STORED = -5,    // the update failed
  SYNC_WRONG_ANSWER = -6,  // wrong answer to a challenge
  SYNC_NO_SECRET = -10     // the sender has no shared secret
};

struct SyncAccount {
  SyncToken token;                       // all but the clock and the shared secret come from the database
  std::array<char, 30> serial_number{};  // NUL-terminated
  std::time_t token_date = 0;            // predate, on the scale of getcurtime()
  std::uint8_t window = 0;               // codes tried
  int time_step = 0;                     // seconds; above 0 for a time-stepped token
};

// Reads the user and the token.
//   user_name  NUL-terminated
//   account    a fresh one; filled as far as reading got
// Returns SYNC_ACCEPTED, or the negative result that refuses the request: SYNC_NOT_EXECUTED, SYNC_NO_ROW, or
// SYNC_UNREADABLE for a column that fails, is NULL (except preusedate, and pin where the code stands alone: it then
// reads as empty) or makes no token: an empty key, with which anyone can compute the codes, or a time step of 0 or less
// of a time-stepped token.
[[nodiscard]] sync_result load_account(CQENTDatabase& database, const char* user_name, SyncAccount& account);

}  // namespace zelvan
