// The settings file: read once at start-up, looked up by section and key.
//
// The editing operations complete the class as a general settings-file editor for tools; the server never calls them.
//
// Threads  config_init runs before any other thread exists; from then on the object is read-only, and any thread may
//          look up values without a lock.  The editing operations take no lock: never use them while the server runs.
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

// Result of the editing operations.
enum config_edit_result : int {
  CONFIG_EDIT_OK = 0,
  CONFIG_EDIT_NO_NAME = -3,    // addsection: the name is null
  CONFIG_EDIT_NOT_FOUND = -5,  // setnewvalue: there is no such item
};

enum updateconfig_result : int {
  UPDATECONFIG_OK = 0,
  UPDATECONFIG_NO_PATH = -1,  // config_init was never called
  UPDATECONFIG_NO_FILE = -2,  // the file cannot be opened for writing
  UPDATECONFIG_SHORT = -6,    // a write came out short, or closing failed: the file is left as far as it got
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

  // The editing operations change the object only; updateconfig writes the file.  Names are compared byte for byte. But
  // for addsection, null arguments are not allowed.

  // Gives the first item of that key in the first section of that name a new value.  A missing item is added at the end
  // of that section, a missing section behind all others.  Returns CONFIG_EDIT_OK.
  int additem(const char* section, const char* key, const char* value);

  // Gives the first item of that key, over all sections of that name, a new value.
  // Returns CONFIG_EDIT_OK, or CONFIG_EDIT_NOT_FOUND and changes nothing.
  int setnewvalue(const char* section, const char* key, const char* value);

  // Removes every item of that key from every section of that name.  The key "comment_t" removes comment lines.
  void removeitem(const char* section, const char* key);

  // Adds an empty section behind all others, unless there is one of that name.
  // Returns CONFIG_EDIT_OK, or CONFIG_EDIT_NO_NAME for null.
  int addsection(const char* section);

  // Removes every section of that name with all that it holds.
  void removesection(const char* section);

  // Writes what the object holds over the file that it was read from: the header comment, then each section with its
  // items and comments.  Blank lines, and what stood before the first section, are gone.
  // Deliberate: the file is written in place; a write that fails leaves it cut off.
  // Returns an updateconfig_result.
  int updateconfig();

  // Returns all that was read, in file order, for tools that list or check a settings file.
  const zelvan::ConfigText& content() const { return text_; }

 private:
  const std::string* find(const char* section, const char* key) const;
  zelvan::ConfigSection* find_section(const char* section);

  std::unique_ptr<char[]> path_;  // NUL-terminated, with "/" in place of each backslash; null before config_init
  zelvan::ConfigText text_;
};

// The settings file of the server; empty until start-up has read it.
extern CConfigFile configfile;
