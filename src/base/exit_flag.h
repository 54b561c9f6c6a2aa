// The process-wide exit flag.
//
// Threads  Every loop of the server polls it; a signal handler may set it, so it must be lock-free.
#pragma once

#include <atomic>

// 0 while the server runs; any other value asks every loop to end in order.
extern std::atomic<int> nexit;
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler stores to the exit flag");
