// Whether a password proves that its sender has the token, and moving the token on.
//
// Source   RFC 4226 section 7.4 (look-ahead window).
// Differs  Passwords are compared without regard to the case of letters, since a PIN may follow the code.
// Threads  The caller holds the lock of the account from reading it to the end of verify().
#pragma once

#include "db/QENTDatabase.h"
#include "sync/account.h"

namespace zelvan {

// Checks `password` and stores what it changes:
//   challenge pending  the password is the answer; right or wrong it uses the challenge up
//   challenge token    the password is the PIN; a right one issues a challenge, which is then token.low_counter
//   all other tokens   the password is one of the next codes of the window; the counter moves behind it
// A code that cannot be generated (digits out of range) never matches.
//   password  NUL-terminated
//   account   as load_account() left it; token.high_counter and token.low_counter become those to be sent
// Returns SYNC_ACCEPTED, SYNC_CHALLENGED, SYNC_NO_MATCH, SYNC_WRONG_ANSWER, or SYNC_NOT_STORED, which also hides the
// outcome of an answer.
[[nodiscard]] sync_result verify(CQENTDatabase& database, SyncAccount& account, const char* password);

}  // namespace zelvan
