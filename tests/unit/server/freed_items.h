// Tells which work items were freed.  The test program links with --wrap for operator delete[].
#pragma once

namespace zelvan::test {

// Watches the item at that address from now on, in place of any other.
void watch(const void* item);

// How often the watched item was freed.
int times_freed();

}  // namespace zelvan::test
