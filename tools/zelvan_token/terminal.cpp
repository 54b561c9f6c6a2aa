#include "zelvan_token/terminal.h"

#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <optional>

#include "zelvan_token/failure.h"

namespace zelvan::token {
namespace {

constexpr std::size_t kLongestLine = 255;
constexpr char kInterrupt = 3;  // Ctrl-C

constexpr std::array kEndingSignals = {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM};

termios terminal_before_prompt{};  // read by the handler

// The signal then does what it does by default (SA_RESETHAND), as soon as this returns.
extern "C" void restore_echo_and_end(int number) {
  (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &terminal_before_prompt);
  (void)raise(number);
}

// Restores the terminal when a signal ends the program during its life.  A signal that is ignored stays so.
class EndingSignalsRestoreEcho {
 public:
  EndingSignalsRestoreEcho() {
    struct sigaction action {};
    action.sa_handler = restore_echo_and_end;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    (void)sigemptyset(&action.sa_mask);
    (void)sigaddset(&action.sa_mask, SIGTTOU);  // in the background tcsetattr() would stop the program
    for (std::size_t i = 0; i < kEndingSignals.size(); ++i) {
      (void)sigaction(kEndingSignals[i], nullptr, &before_[i]);
      if (before_[i].sa_handler != SIG_IGN) (void)sigaction(kEndingSignals[i], &action, nullptr);
    }
  }
  ~EndingSignalsRestoreEcho() {
    for (std::size_t i = 0; i < kEndingSignals.size(); ++i) (void)sigaction(kEndingSignals[i], &before_[i], nullptr);
  }
  EndingSignalsRestoreEcho(const EndingSignalsRestoreEcho&) = delete;
  EndingSignalsRestoreEcho& operator=(const EndingSignalsRestoreEcho&) = delete;

 private:
  std::array<struct sigaction, kEndingSignals.size()> before_{};
};

termios present_terminal() {
  termios present{};
  if (tcgetattr(STDIN_FILENO, &present) != 0) throw Failure(kFailed, "cannot turn off the terminal's echo");
  return present;
}

// Turns off the echo of standard input, and back on at the end.  Ctrl-C arrives as a character that ends the line, so
// that breaking off cannot leave the terminal mute; nor can a signal from elsewhere.
class NoEcho {
 public:
  NoEcho() {
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
  const termios before_ = terminal_before_prompt = present_terminal();
  const EndingSignalsRestoreEcho signals_;  // set before the echo goes, taken back once it is there again
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
