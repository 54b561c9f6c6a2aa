#include "failing_send.h"

#include <sys/socket.h>

#include <atomic>
#include <cerrno>

namespace {
std::atomic<int> sends_to_failure{0};
}

// Stands in for the system's; sendto with no address is the same call.
extern "C" ssize_t send(int fd, const void* buffer, size_t size, int flags) {
  if (sends_to_failure > 0 && --sends_to_failure == 0) {
    errno = EPIPE;
    return -1;
  }
  return sendto(fd, buffer, size, flags, nullptr, 0);
}

namespace zelvan::test {
void fail_send(int nth) { sends_to_failure = nth; }
}  // namespace zelvan::test
