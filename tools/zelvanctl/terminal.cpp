#include "zelvanctl/terminal.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "zelvanctl/draft.h"
#include "zelvanctl/failure.h"

namespace zelvan::ctl {
namespace {

// Turns off the echo of standard input, and back on at the end.  A signal that would end the program is held back
// meanwhile: it ends the question, and then, when the terminal is as before, the program.
class NoEcho {
 public:
  NoEcho() {
    if (tcgetattr(STDIN_FILENO, &before_) != 0) throw Failure(kFailed, "cannot turn off the terminal's echo");
    signals_.reset(signalfd(-1, &held_.set(), SFD_CLOEXEC));
    termios quiet = before_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
  }
  ~NoEcho() { (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_); }
  NoEcho(const NoEcho&) = delete;
  NoEcho& operator=(const NoEcho&) = delete;

  // Waits until something can be read: a line, or the part of one that Ctrl-D hands over.  Throws Failure when a signal
  // comes first.
  void wait() const {
    std::array<pollfd, 2> ready{{{STDIN_FILENO, POLLIN, 0}, {signals_.get(), POLLIN, 0}}};
    (void)poll(ready.data(), ready.size(), -1);
    if ((ready[1].revents & POLLIN) != 0) throw Failure(kRefused, "interrupted; nothing changed");
  }

 private:
  HeldSignals held_;
  Descriptor signals_{-1};
  termios before_{};
};

// Reads a byte of standard input; false at its end.
bool read_byte(const NoEcho* quiet, char& c) {
  if (quiet != nullptr) quiet->wait();
  return read(STDIN_FILENO, &c, 1) == 1;
}

// Reads a line of standard input byte by byte, so that nothing beyond it is taken and no copy stays in a buffer.
//   quiet  the prompt at a terminal; null: wait for the bytes only
std::optional<Secret> read_line(const NoEcho* quiet = nullptr) {
  std::string line;
  line.reserve(256);
  char c = 0;
  bool got = false;
  while ((got = read_byte(quiet, c)) && c != '\n' && line.size() < 255) line += c;
  const bool ended = !got && line.empty();
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
  const auto first = read_line(&quiet);
  if (!first) throw Failure(kRefused, "nothing entered; nothing changed");
  say("Again: ");
  const auto second = read_line(&quiet);
  if (!second || second->reveal() != first->reveal()) {
    throw Failure(kRefused, "the two entries differ; nothing changed");
  }
  return *first;
}

std::optional<Secret> read_secret_once(const std::string& what) {
  if (!is_terminal(STDIN_FILENO)) return read_line();
  const NoEcho quiet;
  say(what + ": ");
  return read_line(&quiet);
}

bool ask_yes_no(const std::string& question) {
  say(question + " [y/N] ");
  const auto answer = read_line();
  if (!answer) return false;
  const std::string& text = answer->reveal();
  return text == "y" || text == "Y" || text == "yes";
}

}  // namespace zelvan::ctl
