#include "base/exit_flag.h"

std::atomic<int> nexit{0};
