#include "log/OTPLog.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <span>

#include "base/clock.h"
#include "base/locks.h"
#include "base/sleep.h"
#include "base/text.h"
#include "db/time_text.h"

COTPLog* g_plog = nullptr;

namespace {

constexpr unsigned long kRetryPause = 100;  // milliseconds between the attempts to write to a file that cannot grow

// Puts the current time, a TAB, the message and a line feed into `line`; a message that is too long is cut.
std::string_view make_line(std::span<char> line, std::string_view message) {
  std::array<char, zelvan::kTimeTextSize> date{};
  (void)otp_getcurdate(date.data());  // leaves an empty text when there is no date
  const std::size_t date_length = strnlen(date.data(), date.size());
  const std::size_t length = std::min(message.size(), line.size() - date_length - 2);

  auto end = std::copy_n(date.begin(), date_length, line.begin());
  *end++ = '\t';
  end = std::copy_n(message.begin(), length, end);
  *end++ = '\n';
  return {line.data(), date_length + length + 2};
}

}  // namespace

COTPLog::COTPLog(const char* log_path, int max_bytes) : maximum_size(max_bytes) {
  // A path that is too long leaves the empty one, which cannot be opened.
  (void)zelvan::copy_text(path, log_path != nullptr ? log_path : "./otplog.log");
  (void)MyInitLock(buffer_mutex);
  (void)MyInitLock(file_mutex);
}

COTPLog::~COTPLog() {
  (void)writefile();
  (void)MyUInitLock(buffer_mutex);
  (void)MyUInitLock(file_mutex);
}

int COTPLog::writelog(const char* msg) {
  if (msg == nullptr) return 1;
  const std::string_view message(msg);
  std::array<char, sizeof buffer> line_buffer{};
  const std::string_view line = make_line(line_buffer, message);

  zelvan::ScopedLock lock(buffer_mutex);
  // Deliberate: this holds on every call, so every line reaches the file no later than with the next call.
  const bool write_first = room() <= message.size() + sizeof buffer + 1;
  if (write_first && !make_room(lock, line.size())) return -1;
  append(line);
  return 1;
}

int COTPLog::writefile() { return write_out() == kFailed ? -1 : 1; }

int COTPLog::getfilesize() {
  if (stream == nullptr) return -1;
  const off_t position = ftello(stream);
  if (position == -1) return -1;
  if (fseeko(stream, 0, SEEK_END) != 0) return -1;
  const off_t size = ftello(stream);
  if (fseeko(stream, position, SEEK_SET) != 0) return -1;
  return static_cast<int>(std::min<off_t>(size, INT_MAX));
}

// Free bytes of the buffer.
std::size_t COTPLog::room() const { return sizeof buffer - static_cast<std::size_t>(buffered.load()); }

// Writes out until `length` bytes are free; other threads may take the room of the first write-out.  Called and left
// with the buffer mutex held, except that a failed write-out leaves it released.
bool COTPLog::make_room(zelvan::ScopedLock& lock, std::size_t length) {
  do {
    (void)lock.unlock();  // never held while the file mutex is taken
    const WriteOut outcome = write_out();
    if (outcome == kFailed) return false;
    (void)lock.lock();
    if (outcome == kKept) return length <= room();  // trying again would not help
  } while (length > room());
  return true;
}

// With the buffer mutex held; the caller has made room.
void COTPLog::append(std::string_view line) {
  const auto held = static_cast<std::size_t>(buffered.load());
  std::memcpy(buffer + held, line.data(), line.size());
  buffered = static_cast<std::int32_t>(held + line.size());
}

// The write-out reads the buffer under the file mutex alone while others append under the buffer mutex.  That is no
// data race: an append touches only bytes from `buffered` on and raises the atomic counter afterwards, the write-out
// reads only bytes below the value it has loaded, and bytes move only in drop_written, which holds both mutexes.
COTPLog::WriteOut COTPLog::write_out() {
  if (buffered == 0) return kWritten;
  const zelvan::ScopedLock lock(file_mutex);
  if (!open_file()) return kFailed;
  const int size = getfilesize();
  if (size == -1) {
    close_file();
    return kKept;
  }
  if (size >= maximum_size && !rotate()) return kFailed;
  const int written = write_bytes();
  close_file();
  drop_written(written);
  return kWritten;
}

// Opens the file unbuffered, so that a write that the disk refuses comes out short at once.
bool COTPLog::open_file() {
  stream = std::fopen(path, "a");
  if (stream == nullptr) return false;
  (void)std::setvbuf(stream, nullptr, _IONBF, 0);
  return true;
}

void COTPLog::close_file() {
  (void)std::fclose(stream);  // holds no bytes that could still fail
  stream = nullptr;
}

// Moves the open file aside and opens a new one.  On failure no file is open.
bool COTPLog::rotate() {
  close_file();
  raise_stamp();
  std::array<char, sizeof path> backup{};
  // The longest path leaves no room for the stamp: such a name is refused here, and the rotation fails.
  if (!zelvan::format_text(backup, "%s%d.bak.log", path, last_stamp)) return false;
  if (std::rename(path, backup.data()) != 0) return false;
  (void)std::remove(path);  // still there when the backup was a hard link to the same file
  return open_file();
}

// Backup names never repeat, even within one second.  From 2038 on the time does not fit the stamp; it then counts on
// from the last one.
void COTPLog::raise_stamp() {
  const auto now = static_cast<std::int32_t>(zelvan::now_seconds());
  last_stamp = now > last_stamp ? now : static_cast<std::int32_t>(static_cast<std::uint32_t>(last_stamp) + 1U);
}

// Writes all that the buffer holds, including what is appended meanwhile.  Returns the number of bytes written.
// Deliberate: a file that cannot grow is tried again without end; every caller of writelog waits behind it.
int COTPLog::write_bytes() {
  int written = 0;
  for (int held = buffered; written < held; held = buffered) {
    const auto rest = static_cast<std::size_t>(held - written);
    const std::size_t taken = std::fwrite(buffer + written, 1, rest, stream);
    written += static_cast<int>(taken);
    if (taken == rest) continue;
    std::clearerr(stream);
    otp_sleep(kRetryPause);
  }
  return written;
}

// With the file mutex held.  Lines appended since the last look move to the start of the buffer.
void COTPLog::drop_written(int written) {
  const zelvan::ScopedLock lock(buffer_mutex);
  const int rest = buffered - written;
  std::memmove(buffer, buffer + written, static_cast<std::size_t>(rest));
  buffered = rest;
}
