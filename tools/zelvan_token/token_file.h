// Token files: one user's token in one file of mode 0600.
//
// A file is replaced, never changed: a new one is written beside it, reaches the disk and takes its name.  So a reader
// finds the old token or the new one, whole, whatever happens in between.
//
// Threads  Processes that read, change and write a token hold its FileLock meanwhile.
#pragma once

#include <signal.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zelvan_token/soft_token.h"

namespace zelvan::token {

// Returns the folder of the tokens: $XDG_DATA_HOME/zelvan-token, or ~/.local/share/zelvan-token when that variable is
// empty or no absolute path.
// Throws Failure (kFileUnusable) when there is no home either.
std::filesystem::path token_folder();

// Returns where the symbolic link `path` leads, or `path` when it is none.  Lock and draft belong beside the token
// itself: beside a link they would keep nobody away who comes by another name. Throws Failure (kFileUnusable) when
// links lead in a circle.
std::filesystem::path resolve_links(std::filesystem::path path);

// Makes the folder of `path`, with mode 0700, and those above it.
// Throws Failure (kFileUnusable).
void make_folder_for(const std::filesystem::path& path);

// Returns the token files of a folder in the order of their names; none when there is no such folder.
std::vector<std::filesystem::path> token_files(const std::filesystem::path& folder);

// Throws Failure (kNotFound) when there is nothing at `path`.
void require_token(const std::filesystem::path& path);

// Whether a file without a usable token may be replaced or removed.
enum class Damaged { refused, allowed };

// Makes sure that replacing or removing `path` destroys nothing but a token of `user` (of anybody when `user` is
// empty). Nothing at `path` is fine. Throws Failure: kUsage when it is another user's token, kFileUnusable when it is
// no plain file of this account, or holds no token and that is refused.
void check_replaceable(const std::filesystem::path& path, std::string_view user, Damaged damaged);

// Makes sure that a token can be written: writes as much as one takes beside `path`, and removes it.
// Throws Failure (kFileUnusable).
void rehearse_save(const std::filesystem::path& path);

// Holds back the signals that end or stop this process from outside, for the calling thread, while it lives.
class SignalsHeld {
 public:
  SignalsHeld();
  ~SignalsHeld();
  SignalsHeld(const SignalsHeld&) = delete;
  SignalsHeld& operator=(const SignalsHeld&) = delete;

 private:
  sigset_t before_{};
};

// Keeps every other process from the token of `path` while it lives: an exclusive lock on "<path>.lock".  Signals are
// held back meanwhile, so that an interrupted command leaves no draft with the key.  The lock file goes with the last
// lock when there is no token by then, unless somebody keeps something in it.
class FileLock {
 public:
  // Waits at most `seconds`, with signals let through.
  // Throws Failure (kFileUnusable) when the lock file cannot be made or another process keeps the lock.
  explicit FileLock(const std::filesystem::path& path, int seconds = 10);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  // Returns false when another process has the lock, or removed its file.
  bool try_to_lock();
  void close_lock();

  std::filesystem::path token_;
  std::filesystem::path path_;  // of the lock file
  std::optional<SignalsHeld> signals_;
  int descriptor_ = -1;
};

// Reads a token.  Does not follow a symbolic link.
// Throws Failure: kNotFound when there is no file, kFileUnusable when it is no plain file of this user, others may read
// or write it, it has a second name, or it holds no token.
SoftToken load_token(const std::filesystem::path& path);

// Writes a token; returns once it is on the disk.  The folder must exist.  Removes drafts that a killed process left.
// Throws Failure (kFileUnusable); the old file is then untouched.
void save_token(const std::filesystem::path& path, const SoftToken& token);

// Removes a token, its lock file, and drafts that a killed process left.  Takes the lock.
// Throws Failure: kNotFound, and what check_replaceable() throws.
void remove_token(const std::filesystem::path& path, std::string_view user, Damaged damaged);

}  // namespace zelvan::token
