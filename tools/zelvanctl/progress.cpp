#include "zelvanctl/progress.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "zelvanctl/terminal.h"

namespace zelvan::ctl {

std::string progress_line(const std::string& title, std::size_t done, std::size_t total) {
  constexpr std::size_t kWidth = 30;
  const std::size_t share = total == 0 ? 100 : std::min<std::size_t>(done * 100 / total, 100);
  const std::size_t filled = share * kWidth / 100;
  return fmt::format("{} [{}{}] {:3}%", title, std::string(filled, '#'), std::string(kWidth - filled, ' '), share);
}

Progress::Progress(std::string title, std::size_t total)
    : title_(std::move(title)), total_(total), visible_(is_terminal(STDERR_FILENO)) {}

Progress::~Progress() {
  if (!shown_.empty()) std::fputs("\r\x1b[K", stderr);
}

void Progress::step() {
  ++done_;
  if (!visible_) return;
  std::string line = progress_line(title_, done_, total_);
  if (line == shown_) return;
  std::fputs(("\r" + line).c_str(), stderr);
  std::fflush(stderr);
  shown_ = std::move(line);
}

}  // namespace zelvan::ctl
