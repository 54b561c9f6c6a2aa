#include "zelvanctl/server_process.h"

#include <string>

namespace zelvan::ctl {
namespace {

namespace fs = std::filesystem;

// The target of a link in /proc; empty when it cannot be read.
fs::path link_target(const fs::path& link) {
  std::error_code error;
  return fs::read_symlink(link, error);
}

}  // namespace

std::optional<fs::path> server_folder(const fs::path& settings) {
  std::error_code error;
  const fs::path wanted = fs::canonical(settings, error);
  if (error) return {};
  const fs::path self = link_target("/proc/self/exe");
  for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error)) {
    const fs::path executable = link_target(entry->path() / "exe");
    if (executable.empty() || executable == self) continue;
    std::error_code missing;
    if (fs::canonical(executable.parent_path() / "config" / "otp_conf.con", missing) != wanted || missing) continue;
    const fs::path folder = link_target(entry->path() / "cwd");
    if (!folder.empty()) return folder;
  }
  return {};
}

}  // namespace zelvan::ctl
