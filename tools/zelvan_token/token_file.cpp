#include "zelvan_token/token_file.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "zelvan_token/failure.h"
#include "zelvan_token/token_text.h"

namespace zelvan::token {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0700;
constexpr std::size_t kLargestFile = 65536;
constexpr auto kLockPause = std::chrono::milliseconds(10);

Failure unusable(const fs::path& path, const std::string& why) {
  return {kFileUnusable, fmt::format("{}: {}", path.string(), why)};
}

Failure unusable(const fs::path& path, const char* what, int error) {
  return unusable(path, fmt::format("{}: {}", what, std::strerror(error)));
}

fs::path folder_of(const fs::path& path) { return path.has_parent_path() ? path.parent_path() : fs::path("."); }

// A descriptor that is closed at the end of the scope.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) (void)::close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  [[nodiscard]] int get() const { return number_; }

 private:
  int number_;
};

// Removes a file at the end of the scope unless it was kept.
class TemporaryFile {
 public:
  explicit TemporaryFile(fs::path path) : path_(std::move(path)) {}
  ~TemporaryFile() {
    if (!kept_) (void)::unlink(path_.c_str());
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  [[nodiscard]] const fs::path& path() const { return path_; }
  void keep() { kept_ = true; }

 private:
  fs::path path_;
  bool kept_ = false;
};

void write_all(int descriptor, std::string_view text, const fs::path& path) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) throw unusable(path, "cannot be written", errno);
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  if (::fsync(descriptor) != 0) throw unusable(path, "cannot be brought to the disk", errno);
}

// A file system that cannot sync a folder says so; the file itself is on the disk by then.
void sync_folder(const fs::path& folder) {
  const Descriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (descriptor.get() >= 0) (void)::fsync(descriptor.get());
}

void replace_file(const fs::path& path, std::string_view text) {
  std::string name = (folder_of(path) / ("." + path.filename().string() + ".XXXXXX")).string();
  const Descriptor descriptor(::mkostemp(name.data(), O_CLOEXEC));  // mode 0600
  if (descriptor.get() < 0) throw unusable(path, "no file can be made beside it", errno);
  TemporaryFile temporary(name);
  write_all(descriptor.get(), text, path);
  if (::rename(temporary.path().c_str(), path.c_str()) != 0) throw unusable(path, "cannot be replaced", errno);
  temporary.keep();
  sync_folder(folder_of(path));
}

void check_owner(const fs::path& path, int descriptor) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) throw unusable(path, "cannot be examined", errno);
  if (!S_ISREG(status.st_mode)) throw unusable(path, "is no plain file");
  if (status.st_uid != ::geteuid()) throw unusable(path, "belongs to another user");
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    throw unusable(path, "is open to other users, who could have copied the token; to use it nevertheless: chmod 600");
  }
}

std::string read_all(const fs::path& path, int descriptor) {
  std::string text(kLargestFile + 1, '\0');
  std::size_t size = 0;
  while (size < text.size()) {
    const ssize_t got = ::read(descriptor, text.data() + size, text.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw unusable(path, "cannot be read", errno);
    if (got == 0) break;
    size += static_cast<std::size_t>(got);
  }
  if (size > kLargestFile) throw unusable(path, "is too large for a token");
  text.resize(size);
  return text;
}

int open_lock(const fs::path& path) {
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kFileMode);
  if (descriptor < 0) throw unusable(path, "cannot be made", errno);
  return descriptor;
}

// A lock file that was removed while we waited locks nothing any more.
bool was_removed(int descriptor) {
  struct stat status {};
  return ::fstat(descriptor, &status) != 0 || status.st_nlink == 0;
}

}  // namespace

fs::path token_folder() {
  const char* const data = std::getenv("XDG_DATA_HOME");
  if (data != nullptr && *data == '/') return fs::path(data) / "zelvan-token";
  const char* home = std::getenv("HOME");
  if (home == nullptr || *home == '\0') {
    const passwd* const entry = ::getpwuid(::geteuid());
    home = entry != nullptr ? entry->pw_dir : nullptr;
  }
  if (home == nullptr || *home == '\0')
    throw Failure(kFileUnusable, "there is no home folder: name a file with --file");
  return fs::path(home) / ".local" / "share" / "zelvan-token";
}

void make_folder_for(const fs::path& path) {
  const fs::path folder = folder_of(path);
  std::error_code error;
  if (fs::is_directory(folder, error)) return;
  if (folder.has_parent_path() && folder.parent_path() != folder) make_folder_for(folder);
  if (::mkdir(folder.c_str(), kFolderMode) != 0 && errno != EEXIST) throw unusable(folder, "cannot be made", errno);
}

std::vector<fs::path> token_files(const fs::path& folder) {
  std::vector<fs::path> files;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.front() != '.' && entry->path().extension() == ".json") files.push_back(entry->path());
  }
  if (error && error != std::errc::no_such_file_or_directory) throw unusable(folder, error.message());
  std::ranges::sort(files);
  return files;
}

void require_token(const fs::path& path) {
  std::error_code error;
  if (fs::exists(fs::symlink_status(path, error))) return;
  throw Failure(kNotFound, fmt::format("there is no token {}: fetch it first", path.string()));
}

FileLock::FileLock(const fs::path& path, int seconds) : path_(path.string() + ".lock") {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  descriptor_ = open_lock(path_);
  for (;;) {
    const bool locked = ::flock(descriptor_, LOCK_EX | LOCK_NB) == 0;
    const int error = errno;
    if (locked && !was_removed(descriptor_)) return;
    if (!locked && error != EWOULDBLOCK && error != EINTR) {
      (void)::close(descriptor_);
      throw unusable(path_, "cannot be locked", error);
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      (void)::close(descriptor_);
      throw unusable(path_, "another zelvan-token keeps it locked");
    }
    if (locked) {
      (void)::close(descriptor_);
      descriptor_ = open_lock(path_);
    } else {
      std::this_thread::sleep_for(kLockPause);
    }
  }
}

FileLock::~FileLock() { (void)::close(descriptor_); }

void FileLock::remove_file() { (void)::unlink(path_.c_str()); }

SoftToken load_token(const fs::path& path) {
  const Descriptor descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (descriptor.get() < 0 && (errno == ENOENT || errno == ENOTDIR)) {
    throw Failure(kNotFound, fmt::format("there is no token {}: fetch it first", path.string()));
  }
  if (descriptor.get() < 0) throw unusable(path, "cannot be opened", errno);
  check_owner(path, descriptor.get());
  std::string text = read_all(path, descriptor.get());
  try {
    SoftToken token = from_text(text);
    wipe(text);
    return token;
  } catch (const BadText& reason) {
    wipe(text);
    throw unusable(path, fmt::format("holds no usable token ({}); fetch it anew", reason.what()));
  }
}

void save_token(const fs::path& path, const SoftToken& token) {
  std::string text = to_text(token);
  try {
    replace_file(path, text);
  } catch (...) {
    wipe(text);
    throw;
  }
  wipe(text);
}

void remove_token(const fs::path& path) {
  require_token(path);
  FileLock lock(path);
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) throw unusable(path, "cannot be removed", errno);
  sync_folder(folder_of(path));
  lock.remove_file();
}

}  // namespace zelvan::token
