#include "server/daemon.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string_view>

#include "base/exit_flag.h"
#include "base/text.h"

namespace {

constexpr int kDescriptorsClosed = 256;
constexpr std::size_t kLongestLink = 260;

// The parent ends; so does everything when the fork fails.
void fork_and_leave() {
  if (fork() != 0) _exit(0);
}

void ask_to_exit(int /*signal*/) { nexit = 1; }

void stop_in_order_on(int signal) {
  struct sigaction action {};
  action.sa_handler = ask_to_exit;
  action.sa_flags = SA_RESTART;  // a statement or a mail in progress is not disturbed
  (void)sigaction(signal, &action, nullptr);
}

int ignore_broken_pipes() {
  struct sigaction action {};
  action.sa_handler = SIG_IGN;
  return sigaction(SIGPIPE, &action, nullptr);
}

}  // namespace

int init_daemon() {
  fork_and_leave();
  (void)setsid();
  fork_and_leave();
  for (int descriptor = 0; descriptor < kDescriptorsClosed; ++descriptor) (void)close(descriptor);
  (void)umask(0);
  stop_in_order_on(SIGTERM);
  stop_in_order_on(SIGINT);
  return ignore_broken_pipes();
}

namespace zelvan {

DirectoryResult executable_directory(std::string& directory) {
  std::array<char, kLongestLink + 1> link{};
  std::array<char, kLongestLink + 1> target{};
  // Cannot fail: "/proc/", a process number and "/exe" are short.
  (void)format_text(link, "/proc/%d/exe", getpid());
  const ssize_t length = readlink(link.data(), target.data(), kLongestLink);
  if (length == -1) return DirectoryResult::link_unreadable;

  const std::string_view path(target.data(), static_cast<std::size_t>(length));
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return DirectoryResult::no_slash;
  directory = path.substr(0, slash + 1);
  return DirectoryResult::found;
}

}  // namespace zelvan
