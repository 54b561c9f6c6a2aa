#include "support/fake_sleep.h"

#include <mutex>
#include <utility>

#include "base/sleep.h"

namespace {
std::mutex sleep_mutex;
std::vector<unsigned long> sleep_list;
std::function<void(unsigned long)> sleep_hook;
}  // namespace

void otp_sleep(unsigned long ms) {
  std::function<void(unsigned long)> hook;
  {
    const std::scoped_lock lock(sleep_mutex);
    sleep_list.push_back(ms);
    hook = sleep_hook;
  }
  if (hook) hook(ms);
}

namespace zelvan::test {

std::vector<unsigned long> sleeps() {
  const std::scoped_lock lock(sleep_mutex);
  return sleep_list;
}

void clear_sleeps() {
  const std::scoped_lock lock(sleep_mutex);
  sleep_list.clear();
  sleep_hook = nullptr;
}

void on_sleep(std::function<void(unsigned long)> hook) {
  const std::scoped_lock lock(sleep_mutex);
  sleep_hook = std::move(hook);
}

}  // namespace zelvan::test
