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
#include <utility>

#include "zelvan_token/failure.h"
#include "zelvan_token/token_text.h"

namespace zelvan::token {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0700;
constexpr std::size_t kLargestFile = 65536;
constexpr std::size_t kRehearsal = 4096;  // bytes; more than any token takes
constexpr int kMostLinks = 40;
constexpr std::string_view kDraftMark = ".draft-";
constexpr std::size_t kDraftSuffix = 6;  // characters that mkostemp() chooses
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
  TemporaryFile(TemporaryFile&& other) noexcept
      : path_(std::move(other.path_)), kept_(std::exchange(other.kept_, true)) {}
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

std::string draft_prefix(const fs::path& path) { return fmt::format(".{}{}", path.filename().string(), kDraftMark); }

// Writes a text beside `path`, brought to the disk.
TemporaryFile write_draft(const fs::path& path, std::string_view text) {
  std::string name = (folder_of(path) / (draft_prefix(path) + std::string(kDraftSuffix, 'X'))).string();
  const Descriptor descriptor(::mkostemp(name.data(), O_CLOEXEC));  // mode 0600
  if (descriptor.get() < 0) throw unusable(path, "no file can be made beside it", errno);
  TemporaryFile draft(name);
  write_all(descriptor.get(), text, path);
  return draft;
}

bool is_draft(const fs::path& file, const std::string& prefix) {
  const std::string name = file.filename().string();
  struct stat status {};
  return name.starts_with(prefix) && name.size() == prefix.size() + kDraftSuffix &&
         ::lstat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == ::geteuid();
}

// Removes the drafts of `path` that a killed process left: they hold the key.
void remove_drafts(const fs::path& path) {
  const std::string prefix = draft_prefix(path);
  std::error_code error;
  for (fs::directory_iterator entry(folder_of(path), error), end; !error && entry != end; entry.increment(error)) {
    if (is_draft(entry->path(), prefix)) (void)::unlink(entry->path().c_str());
  }
}

void replace_file(const fs::path& path, std::string_view text) {
  remove_drafts(path);
  TemporaryFile draft = write_draft(path, text);
  if (::rename(draft.path().c_str(), path.c_str()) != 0) throw unusable(path, "cannot be replaced", errno);
  draft.keep();
  sync_folder(folder_of(path));
}

struct stat status_of(const fs::path& path, int descriptor) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) throw unusable(path, "cannot be examined", errno);
  return status;
}

void check_owner(const fs::path& path, const struct stat& status) {
  if (!S_ISREG(status.st_mode)) throw unusable(path, "is no plain file");
  if (status.st_uid != ::geteuid()) throw unusable(path, "belongs to another user");
}

void check_trust(const fs::path& path, const struct stat& status) {
  check_owner(path, status);
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    throw unusable(path, "is open to other users, who could have copied the token; to use it nevertheless: chmod 600");
  }
  // Only this name would get the next counter, and the other one give the same codes again.
  if (status.st_nlink > 1) throw unusable(path, "has a second name (a hard link): remove one of them");
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

// Returns -1 when there is nothing.  Neither follows a link nor waits for the other end of a pipe.
int open_token(const fs::path& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
  if (descriptor < 0 && errno != ENOENT && errno != ENOTDIR) throw unusable(path, "cannot be opened", errno);
  return descriptor;
}

// Throws BadText.
SoftToken parse_token(const fs::path& path, int descriptor) {
  std::string text = read_all(path, descriptor);
  try {
    SoftToken token = from_text(text);
    wipe(text);
    return token;
  } catch (const BadText&) {
    wipe(text);
    throw;
  }
}

int open_lock(const fs::path& path) {
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kFileMode);
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

fs::path resolve_links(fs::path path) {
  std::error_code error;
  for (int links = 0; fs::is_symlink(fs::symlink_status(path, error)); ++links) {
    if (links == kMostLinks) throw unusable(path, "leads from link to link without end");
    const fs::path target = fs::read_symlink(path, error);
    if (error) throw unusable(path, error.message());
    path = folder_of(path) / target;
  }
  return path;
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

void check_replaceable(const fs::path& path, std::string_view user, Damaged damaged) {
  if (!path.has_filename()) throw unusable(path, "names a folder, not a file");
  struct stat status {};
  // Examined before it is opened: opening alone has an effect on some devices.
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return;
    throw unusable(path, "cannot be examined", errno);
  }
  check_owner(path, status);
  const Descriptor descriptor(open_token(path));
  if (descriptor.get() < 0) return;
  check_owner(path, status_of(path, descriptor.get()));
  if (damaged == Damaged::allowed && status.st_size > static_cast<off_t>(kLargestFile)) return;
  try {
    const SoftToken token = parse_token(path, descriptor.get());
    if (user.empty() || token.user == user) return;
    throw Failure(kUsage, fmt::format("the token file {} is that of {}, not of {}", path.string(), token.user, user));
  } catch (const BadText&) {
    if (damaged == Damaged::refused) throw unusable(path, "holds no token, and is left alone; name another file");
  }
}

void rehearse_save(const fs::path& path) { (void)write_draft(path, std::string(kRehearsal, ' ')); }

SignalsHeld::SignalsHeld() {
  sigset_t held{};
  (void)sigemptyset(&held);
  for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP}) (void)sigaddset(&held, number);
  (void)pthread_sigmask(SIG_BLOCK, &held, &before_);
}

SignalsHeld::~SignalsHeld() { (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

FileLock::FileLock(const fs::path& path, int seconds) : token_(path), path_(path.string() + ".lock") {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!try_to_lock()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      close_lock();
      throw unusable(path_, "another zelvan-token keeps it locked");
    }
    std::this_thread::sleep_for(kLockPause);
  }
}

bool FileLock::try_to_lock() {
  signals_.emplace();
  if (descriptor_ < 0) descriptor_ = open_lock(path_);
  const bool locked = ::flock(descriptor_, LOCK_EX | LOCK_NB) == 0;
  const int error = errno;
  if (locked && !was_removed(descriptor_)) return true;
  signals_.reset();
  if (!locked && (error == EWOULDBLOCK || error == EINTR)) return false;
  close_lock();
  if (locked) return false;
  throw unusable(path_, "cannot be locked", error);
}

void FileLock::close_lock() {
  (void)::close(descriptor_);
  descriptor_ = -1;
}

// Removed while it is locked: who waits for it notices, and makes a new one.
FileLock::~FileLock() {
  struct stat token {};
  struct stat lock {};
  const bool gone = ::lstat(token_.c_str(), &token) != 0 && errno == ENOENT;
  const bool ours = ::fstat(descriptor_, &lock) == 0 && S_ISREG(lock.st_mode) && lock.st_size == 0;
  if (gone && ours) (void)::unlink(path_.c_str());
  (void)::close(descriptor_);
}

SoftToken load_token(const fs::path& path) {
  const Descriptor descriptor(open_token(path));
  if (descriptor.get() < 0)
    throw Failure(kNotFound, fmt::format("there is no token {}: fetch it first", path.string()));
  check_trust(path, status_of(path, descriptor.get()));
  try {
    return parse_token(path, descriptor.get());
  } catch (const BadText& reason) {
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

void remove_token(const fs::path& path, std::string_view user, Damaged damaged) {
  require_token(path);
  const FileLock lock(path);
  check_replaceable(path, user, damaged);
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) throw unusable(path, "cannot be removed", errno);
  remove_drafts(path);
  sync_folder(folder_of(path));
}

}  // namespace zelvan::token
