// A bar that shows how far a long task is; only on a terminal.
#pragma once

#include <cstddef>
#include <string>

namespace zelvan::ctl {

// Returns the bar: a title, 30 characters of bar, the share in per cent.
std::string progress_line(const std::string& title, std::size_t done, std::size_t total);

// Draws on standard error and wipes the line at the end.
class Progress {
 public:
  Progress(std::string title, std::size_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Counts one more step as done.
  void step();

 private:
  std::string title_;
  std::size_t total_;
  std::size_t done_ = 0;
  std::string shown_;
  bool visible_;
};

}  // namespace zelvan::ctl
