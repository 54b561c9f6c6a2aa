#include "zelvanctl/config_write.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "zelvanctl/failure.h"

namespace zelvan::ctl {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void give_up(const std::string& what, const fs::path& path) {
  throw Failure(kUnreachable,
                fmt::format("cannot {} {}: {}; nothing changed", what, path.string(), std::strerror(errno)));
}

// A file descriptor, closed at the end.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) (void)close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  [[nodiscard]] int get() const { return fd_; }

 private:
  int fd_;
};

// A file beside another one, readable by its owner alone; removed at the end unless it has taken the other's place.
class Copy {
 public:
  Copy(const fs::path& original, std::string_view text) : original_(original) {
    std::string name = (original.parent_path() / ".otp_conf.con.XXXXXX").string();
    const Descriptor file(mkstemp(name.data()));
    if (file.get() < 0) give_up("make a copy beside", original);
    path_ = name;
    while (!text.empty()) {
      const ssize_t written = write(file.get(), text.data(), text.size());
      if (written <= 0) fail("write a copy beside");
      text.remove_prefix(static_cast<std::size_t>(written));
    }
  }
  ~Copy() { remove(); }
  Copy(const Copy&) = delete;
  Copy& operator=(const Copy&) = delete;

  [[nodiscard]] const fs::path& path() const { return path_; }

  // Takes the place of the original, on the disk too.
  void replace() {
    struct stat wanted {};
    struct stat own {};
    const Descriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0 || stat(original_.c_str(), &wanted) != 0 || fstat(file.get(), &own) != 0) {
      fail("look at the copy of");
    }
    if ((own.st_uid != wanted.st_uid || own.st_gid != wanted.st_gid) &&
        fchown(file.get(), wanted.st_uid, wanted.st_gid) != 0) {
      throw Failure(kRefused, fmt::format("{} would change its owner; do this as its owner or as root. Nothing changed",
                                          original_.string()));
    }
    if (fchmod(file.get(), wanted.st_mode & 07777U) != 0) fail("keep the mode of");
    if (fsync(file.get()) != 0) fail("write to the disk a copy of");
    if (rename(path_.c_str(), original_.c_str()) != 0) fail("replace");
    path_.clear();
    const Descriptor folder(open(original_.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() >= 0) (void)fsync(folder.get());
  }

 private:
  void remove() {
    if (!path_.empty()) (void)unlink(path_.c_str());
    path_.clear();
  }
  // From the constructor too, after which no destructor would run.
  [[noreturn]] void fail(const std::string& what) {
    const int reason = errno;
    remove();
    errno = reason;
    give_up(what, original_);
  }

  fs::path original_;
  fs::path path_;  // empty: there is no file to remove
};

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
  std::error_code error;
  const fs::path original = fs::canonical(path, error);
  if (error) throw Failure(kUnreachable, fmt::format("cannot find {}: {}", path.string(), error.message()));
  if (original.string().find('\\') != std::string::npos) {
    throw Failure(kRefused, fmt::format("the path {} holds a backslash, which the server reads as /", path.string()));
  }
  Copy copy(original, with_last_feed(before));
  CConfigFile file;
  if (file.config_init(copy.path().c_str()) != CONFIG_INIT_OK) give_up("read a copy of", original);
  edit(file);
  if (file.updateconfig() != UPDATECONFIG_OK) give_up("write a copy of", original);
  if (read_bytes(original) != before) {
    throw Failure(kRefused, fmt::format("{} was changed by someone else meanwhile; nothing changed", path.string()));
  }
  copy.replace();
}

}  // namespace zelvan::ctl
