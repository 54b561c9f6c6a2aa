// Token files: one user's token in one file of mode 0600.
//
// A file is replaced, never changed: a new one is written beside it, reaches the disk and takes its name.  So a reader
// finds the old token or the new one, whole, whatever happens in between.
//
// Threads  Processes that read, change and write a token hold its FileLock meanwhile.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "zelvan_token/soft_token.h"

namespace zelvan::token {

// Returns the folder of the tokens: $XDG_DATA_HOME/zelvan-token, or ~/.local/share/zelvan-token when that variable is
// empty or no absolute path.
// Throws Failure (kFileUnusable) when there is no home either.
std::filesystem::path token_folder();

// Makes the folder of `path`, with mode 0700, and those above it.
// Throws Failure (kFileUnusable).
void make_folder_for(const std::filesystem::path& path);

// Returns the token files of a folder in the order of their names; none when there is no such folder.
std::vector<std::filesystem::path> token_files(const std::filesystem::path& folder);

// Throws Failure (kNotFound) when there is nothing at `path`.
void require_token(const std::filesystem::path& path);

// Keeps every other process from the token of `path` while it lives: an exclusive lock on "<path>.lock".
class FileLock {
 public:
  // Waits at most `seconds`.
  // Throws Failure (kFileUnusable) when the lock file cannot be made or another process keeps the lock.
  explicit FileLock(const std::filesystem::path& path, int seconds = 10);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // Removes the lock file; who waits for it makes a new one.
  void remove_file();

 private:
  std::filesystem::path path_;  // of the lock file
  int descriptor_ = -1;
};

// Reads a token.
// Throws Failure: kNotFound when there is no file, kFileUnusable when it is no plain file of this user, others may read
// or write it, or it holds no token.
SoftToken load_token(const std::filesystem::path& path);

// Writes a token; returns once it is on the disk.  The folder must exist.
// Throws Failure (kFileUnusable); the old file is then untouched.
void save_token(const std::filesystem::path& path, const SoftToken& token);

// Removes a token, and its lock file.  Takes the lock.
// Throws Failure: kNotFound, kFileUnusable.
void remove_token(const std::filesystem::path& path);

}  // namespace zelvan::token
