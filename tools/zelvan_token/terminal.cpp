#include "zelvan_token/terminal.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <optional>

#include "zelvan_token/failure.h"

namespace zelvan::token {
namespace {

constexpr std::size_t kLongestLine = 255;
constexpr char kInterrupt = 3;  // Ctrl-C

// Turns off the echo of standard input, and back on at the end.  Ctrl-C arrives as a character that ends the line, so
// that breaking off cannot leave the terminal mute.
class NoEcho {
 public:
  NoEcho() {
    if (tcgetattr(STDIN_FILENO, &before_) != 0) throw Failure(kFailed, "cannot turn off the terminal's echo");
    termios quiet = before_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
    quiet.c_lflag |= ECHONL;
    quiet.c_cc[VEOL] = kInterrupt;
    if (tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) != 0) throw Failure(kFailed, "cannot turn off the terminal's echo");
  }
  ~NoEcho() { (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_); }
  NoEcho(const NoEcho&) = delete;
  NoEcho& operator=(const NoEcho&) = delete;

 private:
  termios before_{};
};

// Reads a line byte by byte, so that nothing beyond it is taken.  Nothing at the end of the input, or on Ctrl-C.
std::optional<Secret> read_line() {
  std::string line;
  line.reserve(kLongestLine + 1);
  char c = 0;
  ssize_t got = 0;
  while ((got = read(STDIN_FILENO, &c, 1)) == 1 && c != '\n' && c != kInterrupt && line.size() < kLongestLine)
    line += c;
  const bool ended = (got <= 0 && line.empty()) || c == kInterrupt;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  std::optional<Secret> secret;
  if (!ended) secret.emplace(line);
  wipe(line);
  return secret;
}

void ask(const std::string& prompt) {
  std::fputs(prompt.c_str(), stderr);
  std::fflush(stderr);
}

}  // namespace

Secret read_secret(const std::string& prompt) {
  if (isatty(STDIN_FILENO) != 1) {
    if (auto line = read_line()) return *line;
    throw Failure(kUsage, prompt + ": standard input has no line for it");
  }
  const NoEcho quiet;
  ask(prompt + ": ");
  if (auto line = read_line()) return *line;
  throw Failure(kRefused, "broken off; nothing changed");
}

bool confirm(const std::string& question) {
  if (isatty(STDIN_FILENO) != 1) throw Failure(kRefused, question + " Confirm with --yes.");
  ask(question + " [y/N] ");
  const auto answer = read_line();
  if (!answer) return false;
  const std::string& text = answer->reveal();
  return text == "y" || text == "Y" || text == "yes";
}

void say(const std::string& text) {
  std::fputs((text + "\n").c_str(), stderr);
  std::fflush(stderr);
}

}  // namespace zelvan::token
