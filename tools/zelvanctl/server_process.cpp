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

// The server's executable; "(deleted)" tells that an update has put another one in its place.
bool is_server(const fs::path& executable) {
  const std::string name = executable.filename().string();
  return name == "zelvan" || name == "zelvan (deleted)";
}

}  // namespace

std::optional<fs::path> server_folder(const fs::path& settings) {
  std::error_code error;
  const fs::path wanted = fs::canonical(settings, error);
  if (error) return {};
  for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error)) {
    const fs::path executable = link_target(entry->path() / "exe");
    if (!is_server(executable)) continue;
    std::error_code missing;
    if (fs::canonical(executable.parent_path() / "config" / "otp_conf.con", missing) != wanted || missing) continue;
    const fs::path folder = link_target(entry->path() / "cwd");
    if (!folder.empty()) return folder;
  }
  return {};
}

}  // namespace zelvan::ctl
