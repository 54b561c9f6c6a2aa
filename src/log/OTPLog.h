// The operation log: one text line per authentication outcome, in a file that is moved aside when it is full.
//
// A line is the UTC date and time as 19 characters, a TAB, the message and a line feed.  The file is opened for each
// write-out and closed again, so it may be moved or removed from outside at any moment.  A backup has the name of the
// file, followed by a stamp (the time in seconds, or one more than the last stamp) and ".bak.log".
//
// Threads  Any thread may call writelog and writefile.  Lock order: file mutex, then buffer mutex.
// Memory   1024 bytes of buffer in the object; no line ever runs past it.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "base/locks.h"

class COTPLog {
 public:
  // Prepares the log; no file is opened yet.
  //   log_path   the log file, at most 259 characters; null means "./otplog.log".  A longer path is not cut to the
  //              name of another file: it is refused, and every write-out fails.
  //   max_bytes  a file of at least this size is moved aside at the next write-out; 0 or less moves it every time
  COTPLog(const char* log_path, int max_bytes);

  // Writes what the buffer holds.
  virtual ~COTPLog();

  COTPLog(const COTPLog&) = delete;
  COTPLog& operator=(const COTPLog&) = delete;

  // Writes out the lines of earlier calls, then takes `msg` as a line into the buffer: a line reaches the file with
  // the next call or with the destructor.
  //   msg  NUL-terminated; what does not fit an empty buffer (about 1000 characters) is cut off; null does nothing
  // Returns 1, or -1 when the line is lost: the write-out failed, or nothing could be written and the buffer is full.
  int writelog(const char* msg);

  // Writes what the buffer holds to the file, rotating it first when it is full.  A file that cannot grow is tried
  // again every 100 ms without end.
  // Returns 1 (also when there was nothing to write, or when the size of the file cannot be found: then nothing is
  // written and the buffer keeps its lines), or -1 when the file cannot be opened, moved aside or opened again; the
  // buffer keeps its lines then too.
  int writefile();

  // Returns the size of the open file in bytes, or -1 when no file is open or it cannot be found.  Call it with the
  // file mutex held.  A size that does not fit 32 bits is reported as 2147483647, so such a file is always full.
  int getfilesize();

  std::FILE* stream = nullptr;            // open only while a write-out runs
  char path[260] = {};                    // the log file, with its NUL; empty when the given path was too long
  std::atomic<std::int32_t> buffered{0};  // bytes held in `buffer`
  std::int32_t maximum_size;              // bytes; a file of this size or more is rotated
  std::int32_t last_stamp = 0;            // the number in the newest backup name; 0 before the first
  char buffer[1024] = {};                 // lines not written yet, without NUL
  pthread_mutex_t buffer_mutex{};         // guards appending to the buffer and moving its rest
  pthread_mutex_t file_mutex{};           // guards the file and the write-out

 private:
  enum WriteOut { kWritten, kKept, kFailed };  // kKept: nothing written, since the size cannot be found

  std::size_t room() const;
  bool make_room(zelvan::ScopedLock& lock, std::size_t length);
  void append(std::string_view line);
  WriteOut write_out();
  bool open_file();
  void close_file();
  bool rotate();
  void raise_stamp();
  int write_bytes();
  void drop_written(int written);
};

// The log of this process; null when outcomes go to the database instead.  Set before the first worker starts.
extern COTPLog* g_plog;
