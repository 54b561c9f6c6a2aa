// How long the mail room may wait: for one network call, and for the whole of its end at shutdown.
//
// Differs  These are spans, so they are measured on the steady clock, which a change of the system time cannot stretch.
// Threads  Any thread may call any function.
#pragma once

#include <chrono>

namespace zelvan {

struct MailLimits {
  // One connect, send or receive.
  std::chrono::milliseconds call{30'000};
  // From the moment the mail room sees nexit to its last network call.  The receive loop waits 60 s for the notifier.
  std::chrono::milliseconds closing{55'000};
};

// Replaces the limits, for tests that cannot wait half a minute; the server keeps the defaults.
void set_mail_limits(const MailLimits& limits);

// Returns the limits in force.
MailLimits mail_limits();

// Returns what is left of MailLimits::closing: all of it while nexit is 0, then less with every call, down to 0.
// The countdown starts at the first call that sees nexit set.
std::chrono::milliseconds closing_time_left();

// Waits until poll(2) reports `events` (or an error condition) on `socket`, for MailLimits::call at most and never
// beyond the end of the closing time.  It looks at nexit once a second, so a shutdown also ends a wait begun earlier.
// Returns true when the socket is ready, false when the time is up or poll fails.
[[nodiscard]] bool wait_ready(int socket, short events);

}  // namespace zelvan
