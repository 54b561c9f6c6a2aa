// A sleep that takes no time and counts what it was asked for.  Linked in place of base/sleep.cpp.
#pragma once

#include <functional>
#include <vector>

namespace zelvan::test {

// The lengths of all sleeps since the last clear, in milliseconds, in order.
std::vector<unsigned long> sleeps();

// Forgets all sleeps and the hook.
void clear_sleeps();

// Runs `hook` at every sleep, with the length in milliseconds: the place where a test lets the world change.
void on_sleep(std::function<void(unsigned long)> hook);

}  // namespace zelvan::test
