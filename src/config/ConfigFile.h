// The settings file: read once at start-up, looked up by section and key.
//
// Threads  config_init runs before any other thread exists; from then on the object is read-only, and any thread may
//          look up values without a lock.
// Memory   Owns the path and all texts; the destructor wipes the values, since some of them are secrets.
#pragma once

#include <memory>
#include <string>

#include "config/config_text.h"

enum config_init_result : int {
  CONFIG_INIT_OK = 0,
  CONFIG_INIT_NO_PATH = -1,  // the path is null
  CONFIG_INIT_NO_FILE = -2,  // the file cannot be opened for reading
};

enum getvalstr_result : int {
  GETVAL_OK = 0,
  GETVAL_BAD_ARGUMENT = -3,  // a null pointer or a limit below 1
  GETVAL_TOO_LONG = -4,      // the value is longer than the limit
  GETVAL_NOT_FOUND = -5,     // no such item and no default
};

class CConfigFile {
 public:
  CConfigFile();
  virtual ~CConfigFile();
  CConfigFile(const CConfigFile&) = delete;
  CConfigFile& operator=(const CConfigFile&) = delete;

  // Reads the file into the object, behind whatever an earlier call has read.
  //   path  NUL-terminated; each backslash is taken as "/"
  // Returns a config_init_result.  The path is remembered even when the file cannot be opened.  Reading itself never
  // fails: a read error (the path is a folder, say) ends it like the end of the file, and what is no section, comment
  // or blank line is an item.  A line longer than 1022 bytes is taken as several lines of 1022 bytes.
  int config_init(const char* path);

  // Copies the value of an item, the first of that key in the sections of that name.
  //   section, key  NUL-terminated; compared byte for byte
  //   out           limit + 1 bytes
  //   limit         the longest value accepted, in characters, NUL not counted; at least 1
  //   fallback      NUL-terminated text taken when there is no such item; may be null
  // Returns a getvalstr_result.  `out` is written only on GETVAL_OK, and not even then when the fallback is taken and
  // is longer than `limit`.
  int getvalstr(const char* section, const char* key, char* out, int limit, const char* fallback) const;

  // Returns the value of an item, the first of that key in the sections of that name, as atoi(3) reads it: an empty
  // value or one that does not begin with a number is 0.
  //   section, key  NUL-terminated; compared byte for byte
  //   fallback      the result when section or key is null or there is no such item
  int getvalInt(const char* section, const char* key, int fallback) const;

  // Returns all that was read, in file order, for tools that list or check a settings file.
  const zelvan::ConfigText& content() const { return text_; }

 private:
  const std::string* find(const char* section, const char* key) const;

  std::unique_ptr<char[]> path_;  // NUL-terminated, with "/" in place of each backslash; null before config_init
  zelvan::ConfigText text_;
};

// The settings file of the server; empty until start-up has read it.
extern CConfigFile configfile;
