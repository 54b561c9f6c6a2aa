// Hands out the next counter of a stored token.
#pragma once

#include <ctime>
#include <filesystem>

#include "zelvan_token/soft_token.h"

namespace zelvan::token {

struct StoredDraw {
  SoftToken token;
  Draw draw;
};

// Reads the token, draws a counter (event and time-stepped tokens) and stores the token before it returns, so that no
// other process, and none after a crash, gets the same counter.  A draw that says wait leaves the file alone.
// Throws Failure as load_token, save_token and FileLock do.
StoredDraw draw_from_file(const std::filesystem::path& path, std::time_t now);

}  // namespace zelvan::token
