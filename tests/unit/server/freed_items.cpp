#include "unit/server/freed_items.h"

#include <atomic>

namespace {
std::atomic<const void*> watched{nullptr};
std::atomic<int> freed{0};
}  // namespace

extern "C" {
void __real__ZdaPv(void* block);
void __wrap__ZdaPv(void* block) {
  if (block != nullptr && block == watched) ++freed;
  __real__ZdaPv(block);
}
}

namespace zelvan::test {

void watch(const void* item) {
  watched = item;
  freed = 0;
}

int times_freed() { return freed; }

}  // namespace zelvan::test
