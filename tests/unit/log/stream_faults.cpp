#include "unit/log/stream_faults.h"

#include <cerrno>
#include <cstdio>
#include <utility>

namespace zelvan::test {
StreamFaults stream_faults;
}  // namespace zelvan::test

using zelvan::test::stream_faults;

namespace {

// True when this call is the one that fails.
bool fails(std::atomic<int>& countdown) {
  int calls = countdown;
  while (calls > 0 && !countdown.compare_exchange_weak(calls, calls - 1)) continue;
  if (calls != 1) return false;
  errno = EIO;
  return true;
}

}  // namespace

extern "C" {

std::FILE* __real_fopen(const char*, const char*);
std::FILE* __wrap_fopen(const char* path, const char* mode) {
  return fails(stream_faults.open) ? nullptr : __real_fopen(path, mode);
}

int __real_fclose(std::FILE*);
int __wrap_fclose(std::FILE* stream) {
  if (stream_faults.on_close) std::exchange(stream_faults.on_close, nullptr)();
  return __real_fclose(stream);
}

int __real_fseeko(std::FILE*, off_t, int);
int __wrap_fseeko(std::FILE* stream, off_t offset, int origin) {
  return fails(stream_faults.seek) ? -1 : __real_fseeko(stream, offset, origin);
}

off_t __real_ftello(std::FILE*);
off_t __wrap_ftello(std::FILE* stream) { return fails(stream_faults.tell) ? -1 : __real_ftello(stream); }
}
