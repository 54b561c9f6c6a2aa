#include "zelvanctl/draft.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/clock.h"
#include "zelvanctl/failure.h"

namespace zelvan::ctl {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kSixLetters = "XXXXXX";

fs::path folder_of(const fs::path& file) { return file.has_parent_path() ? file.parent_path() : fs::path("."); }

// What the names of the drafts for a file begin with.
std::string stem_of(const fs::path& target) { return "." + target.filename().string() + ".draft-"; }

}  // namespace

HeldSignals::HeldSignals() {
  (void)sigemptyset(&held_);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) (void)sigaddset(&held_, signal);
  (void)sigprocmask(SIG_BLOCK, &held_, &mask_);
}

HeldSignals::~HeldSignals() { (void)sigprocmask(SIG_SETMASK, &mask_, nullptr); }

Descriptor::~Descriptor() { reset(-1); }

void Descriptor::reset(int fd) {
  if (fd_ >= 0) (void)close(fd_);
  fd_ = fd;
}

bool write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

Draft::Draft(const fs::path& target, std::string_view text) : target_(target) {
  sweep();
  std::string name = (folder_of(target) / (stem_of(target) + std::string(kSixLetters))).string();
  file_.reset(mkostemp(name.data(), O_CLOEXEC));
  if (file_.get() < 0) fail("make a file beside");
  path_ = name;
  (void)flock(file_.get(), LOCK_EX | LOCK_NB);
  if (!write_all(file_.get(), text)) fail("write a file beside");
}

// A draft that nobody has locked belongs to a program that is gone; one that is new may not be locked yet.
void Draft::sweep() const {
  constexpr std::time_t kNew = 60;  // seconds
  const std::string stem = stem_of(target_);
  std::error_code error;
  for (fs::directory_iterator entry(folder_of(target_), error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (!name.starts_with(stem) || name.size() != stem.size() + kSixLetters.size()) continue;
    const Descriptor file(open(entry->path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status {};
    const bool ours = file.get() >= 0 && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
                      status.st_uid == geteuid() && status.st_mtime + kNew < now_seconds();
    if (ours && flock(file.get(), LOCK_EX | LOCK_NB) == 0) (void)unlink(entry->path().c_str());
  }
}

void Draft::take_over_owner(int fd) {
  struct stat wanted {};
  struct stat own {};
  if (stat(target_.c_str(), &wanted) != 0 || fstat(fd, &own) != 0) fail("look at the owner of");
  if ((own.st_uid != wanted.st_uid || own.st_gid != wanted.st_gid) && fchown(fd, wanted.st_uid, wanted.st_gid) != 0) {
    throw Failure(kRefused, fmt::format("{} would change its owner; do this as its owner or as root. Nothing changed",
                                        target_.string()));
  }
  if (fchmod(fd, wanted.st_mode & 07777U) != 0) fail("keep the mode of");
}

void Draft::replace(bool keep_owner) {
  // Opened again: whoever wrote into the draft since may have made it anew.
  const Descriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (file.get() < 0) fail("open the file beside");
  if (keep_owner) take_over_owner(file.get());
  if (fsync(file.get()) != 0) fail("write to the disk");
  if (rename(path_.c_str(), target_.c_str()) != 0) fail("replace");
  path_.clear();
  const Descriptor folder(open(folder_of(target_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.get() >= 0) (void)fsync(folder.get());
}

void Draft::remove() {
  if (!path_.empty()) (void)unlink(path_.c_str());
  path_.clear();
}

// From the constructor too, after which no destructor would run.
void Draft::fail(const std::string& what) {
  const int reason = errno;
  remove();
  throw Failure(kUnreachable,
                fmt::format("cannot {} {}: {}; nothing changed", what, target_.string(), std::strerror(reason)));
}

}  // namespace zelvan::ctl
