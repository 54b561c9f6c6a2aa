#include "zelvan_token/draw.h"

#include "zelvan_token/token_file.h"

namespace zelvan::token {

StoredDraw draw_from_file(const std::filesystem::path& path, std::time_t now) {
  require_token(path);
  const FileLock lock(path);
  StoredDraw result{load_token(path), {}};
  result.draw = draw_counter(result.token, now);
  if (result.draw.wait == 0) save_token(path, result.token);
  return result;
}

}  // namespace zelvan::token
