#include "base/text.h"

#include <algorithm>
#include <cstdio>

namespace zelvan {

bool copy_text(std::span<char> out, std::string_view text) {
  if (text.size() >= out.size()) return false;
  std::ranges::copy(text, out.begin());
  out[text.size()] = '\0';
  return true;
}

bool format_text(std::span<char> out, const char* format, ...) {
  if (out.empty()) return false;
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(out.data(), out.size(), format, arguments);
  va_end(arguments);
  if (length >= 0 && static_cast<std::size_t>(length) < out.size()) return true;
  out[0] = '\0';
  return false;
}

}  // namespace zelvan
