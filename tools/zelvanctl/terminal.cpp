#include "zelvanctl/terminal.h"

#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "zelvanctl/failure.h"

namespace zelvan::ctl {
namespace {

volatile std::sig_atomic_t caught_signal = 0;

void catch_signal(int signal) { caught_signal = signal; }

// Turns off the echo of standard input, and back on at the end, also when a signal interrupts the question: it is
// held until the terminal is as before.
class NoEcho {
 public:
  NoEcho() {
    if (tcgetattr(STDIN_FILENO, &before_) != 0) throw Failure(kFailed, "cannot turn off the terminal's echo");
    struct sigaction action {};
    action.sa_handler = catch_signal;  // without SA_RESTART, so that the reading ends
    for (std::size_t i = 0; i < kSignals.size(); ++i) (void)sigaction(kSignals.at(i), &action, &actions_.at(i));
    termios quiet = before_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
  }
  ~NoEcho() {
    (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
    for (std::size_t i = 0; i < kSignals.size(); ++i) (void)sigaction(kSignals.at(i), &actions_.at(i), nullptr);
    if (caught_signal != 0) (void)raise(caught_signal);
  }
  NoEcho(const NoEcho&) = delete;
  NoEcho& operator=(const NoEcho&) = delete;

 private:
  static constexpr std::array kSignals{SIGINT, SIGTERM, SIGHUP, SIGQUIT};

  termios before_{};
  std::array<struct sigaction, kSignals.size()> actions_{};
};

// Reads a line of standard input byte by byte, so that nothing beyond it is taken and no copy stays in a buffer.
std::optional<Secret> read_line() {
  std::string line;
  line.reserve(256);
  char c = 0;
  ssize_t got = 0;
  while ((got = read(STDIN_FILENO, &c, 1)) == 1 && c != '\n' && line.size() < 255) line += c;
  const bool ended = got <= 0 && line.empty();
  if (!line.empty() && line.back() == '\r') line.pop_back();
  Secret secret(line);
  explicit_bzero(line.data(), line.size());
  if (ended) return {};
  return secret;
}

void say(const std::string& text) {
  std::fputs(text.c_str(), stderr);
  std::fflush(stderr);
}

}  // namespace

bool is_terminal(int descriptor) { return isatty(descriptor) == 1; }

bool colours_wanted(int descriptor) {
  const char* no_colour = std::getenv("NO_COLOR");
  const char* kind = std::getenv("TERM");
  if (no_colour != nullptr && *no_colour != '\0') return false;
  if (kind != nullptr && std::string_view(kind) == "dumb") return false;
  return is_terminal(descriptor);
}

Secret read_secret(const std::string& what) {
  if (!is_terminal(STDIN_FILENO)) {
    if (auto line = read_line()) return *line;
    throw Failure(kUsage, what + ": standard input is empty");
  }
  const NoEcho quiet;
  say(what + ": ");
  const auto first = read_line();
  if (!first) throw Failure(kRefused, "nothing entered; nothing changed");
  say("Again: ");
  const auto second = read_line();
  if (!second || second->reveal() != first->reveal()) {
    throw Failure(kRefused, "the two entries differ; nothing changed");
  }
  return *first;
}

std::optional<Secret> read_secret_once(const std::string& what) {
  if (!is_terminal(STDIN_FILENO)) return read_line();
  const NoEcho quiet;
  say(what + ": ");
  return read_line();
}

bool ask_yes_no(const std::string& question) {
  say(question + " [y/N] ");
  const auto answer = read_line();
  if (!answer) return false;
  const std::string& text = answer->reveal();
  return text == "y" || text == "Y" || text == "yes";
}

}  // namespace zelvan::ctl
