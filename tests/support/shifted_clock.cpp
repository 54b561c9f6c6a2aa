// time(2) for a program that is to believe that time has passed: loaded into it with LD_PRELOAD.
//
// The file that the environment variable ZELVAN_TEST_CLOCK names holds 8 bytes, the seconds to add.  A test writes into
// it while the program runs.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

const volatile std::int64_t* map_shift() {
  const char* const path = std::getenv("ZELVAN_TEST_CLOCK");
  const int file = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
  if (file < 0) return nullptr;
  void* const mapped = mmap(nullptr, sizeof(std::int64_t), PROT_READ, MAP_SHARED, file, 0);
  close(file);
  return mapped != MAP_FAILED ? static_cast<const volatile std::int64_t*>(mapped) : nullptr;
}

}  // namespace

extern "C" std::time_t time(std::time_t* out) noexcept {
  static const volatile std::int64_t* const shift = map_shift();
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const std::time_t seconds = now.tv_sec + (shift != nullptr ? *shift : 0);
  if (out != nullptr) *out = seconds;
  return seconds;
}
