#include "zelvanctl/config_write.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/file.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "zelvanctl/draft.h"
#include "zelvanctl/failure.h"

namespace zelvan::ctl {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void give_up(const std::string& what, const fs::path& path) {
  throw Failure(kUnreachable,
                fmt::format("cannot {} {}: {}; nothing changed", what, path.string(), std::strerror(errno)));
}

// The file that is meant, links followed, if it can be edited.
fs::path editable_file(const fs::path& path) {
  std::error_code error;
  fs::path original = fs::canonical(path, error);
  if (error) throw Failure(kUnreachable, fmt::format("cannot find {}: {}", path.string(), error.message()));
  if (original.string().find('\\') != std::string::npos) {
    throw Failure(kRefused, fmt::format("the path {} holds a backslash, which the server reads as /", path.string()));
  }
  if (!fs::is_regular_file(original, error)) {
    throw Failure(kRefused, fmt::format("{} is no regular file; nothing changed", path.string()));
  }
  return original;
}

// Keeps other edits of files in the folder out until the end.
class EditLock {
 public:
  explicit EditLock(const fs::path& file)
      : folder_(open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (folder_.get() < 0 || flock(folder_.get(), LOCK_EX) != 0) give_up("lock the folder of", file);
  }

 private:
  Descriptor folder_;
};

void require_unchanged(const fs::path& original, const fs::path& path, const std::string& before) {
  if (read_bytes(original) == before) return;
  throw Failure(kRefused, fmt::format("{} was changed by someone else meanwhile; nothing changed", path.string()));
}

// The copy ends with a line feed: a comment that ends without one would swallow an item written behind it.
std::string with_last_feed(const std::string& text) {
  return text.empty() || text.ends_with('\n') ? text : text + '\n';
}

}  // namespace

std::string read_bytes(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (!file.is_open() || file.bad()) {
    throw Failure(kUnreachable, fmt::format("cannot read {}: {}", path.string(), std::strerror(errno)));
  }
  return text;
}

void edit_settings(const fs::path& path, const std::string& before, const std::function<void(CConfigFile&)>& edit) {
  const fs::path original = editable_file(path);
  const EditLock lock(original);
  require_unchanged(original, path, before);
  Draft copy(original, with_last_feed(before));
  CConfigFile file;
  if (file.config_init(copy.path().c_str()) != CONFIG_INIT_OK) give_up("read a copy of", original);
  edit(file);
  if (file.updateconfig() != UPDATECONFIG_OK) give_up("write a copy of", original);
  require_unchanged(original, path, before);
  copy.replace(true);
}

}  // namespace zelvan::ctl
