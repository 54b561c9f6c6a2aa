#include "mail/time_limits.h"

#include <poll.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "base/exit_flag.h"

namespace zelvan {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The longest stretch of waiting without a look at nexit.
constexpr milliseconds kLookInterval{1000};

std::atomic<milliseconds> call_limit{MailLimits{}.call};
std::atomic<milliseconds> closing_limit{MailLimits{}.closing};

// When nexit was first seen set; zero while it is not.
std::atomic<Clock::duration> closing_start{Clock::duration::zero()};

milliseconds left_of(milliseconds limit, Clock::duration start) {
  const auto spent = std::chrono::floor<milliseconds>(Clock::now().time_since_epoch() - start);
  return std::max(limit - spent, milliseconds::zero());
}

}  // namespace

void set_mail_limits(const MailLimits& limits) {
  call_limit = limits.call;
  closing_limit = limits.closing;
}

MailLimits mail_limits() { return {.call = call_limit, .closing = closing_limit}; }

milliseconds closing_time_left() {
  if (nexit == 0) {
    closing_start = Clock::duration::zero();
    return closing_limit;
  }
  auto start = Clock::duration::zero();
  const auto now = Clock::now().time_since_epoch();
  if (closing_start.compare_exchange_strong(start, now)) start = now;
  return left_of(closing_limit, start);
}

bool wait_ready(int socket, short events) {
  const auto start = Clock::now().time_since_epoch();
  for (;;) {
    const milliseconds left = std::min(left_of(call_limit, start), closing_time_left());
    if (left == milliseconds::zero()) return false;
    pollfd watched{.fd = socket, .events = events, .revents = 0};
    const int ready = poll(&watched, 1, static_cast<int>(std::min(left, kLookInterval).count()));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
}

}  // namespace zelvan
