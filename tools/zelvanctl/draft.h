// A file that takes another one's place as a whole.
//
// Threads  One thread: the signals of the whole process are held back.
#pragma once

#include <signal.h>

#include <filesystem>
#include <string_view>

namespace zelvan::ctl {

// Holds back the signals that would end the program, such as that of Ctrl-C; at the end they take effect.
class HeldSignals {
 public:
  HeldSignals();
  ~HeldSignals();
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;

  [[nodiscard]] const sigset_t& set() const { return held_; }

 private:
  sigset_t held_{};
  sigset_t mask_{};
};

// A file descriptor, closed at the end.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  void reset(int fd);
  [[nodiscard]] int get() const { return fd_; }

 private:
  int fd_;
};

// Writes all bytes; false with errno when that fails.
bool write_all(int fd, std::string_view text);

// A new file of its own beside the one whose place it is to take, which its owner alone may read.  It is removed at the
// end unless it has taken that place, also when a signal asks the program to end.  What a program that was killed has
// left is removed by the next draft for the same file.
class Draft {
 public:
  // Throws Failure (kUnreachable) when the file cannot be made or written.
  //   target  links are not followed
  Draft(const std::filesystem::path& target, std::string_view text);
  ~Draft() { remove(); }
  Draft(const Draft&) = delete;
  Draft& operator=(const Draft&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

  // Takes the place of the target, on the disk too.  Throws Failure: kUnreachable when that fails, and with
  // `keep_owner` kRefused when owner and group of the target cannot be kept; its mode is kept then, too.
  void replace(bool keep_owner);

 private:
  void sweep() const;
  void take_over_owner(int fd);
  void remove();
  [[noreturn]] void fail(const std::string& what);

  HeldSignals held_;
  std::filesystem::path target_;
  std::filesystem::path path_;  // empty: there is no file to remove
  Descriptor file_{-1};         // of the draft, locked: tells sweepers that somebody is at work
};

}  // namespace zelvan::ctl
