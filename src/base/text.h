// Text into buffers of a fixed size.  What does not fit is reported, never cut.
//
// Threads  No state.
// Memory   Works on the caller's buffers; allocates nothing.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <span>
#include <string_view>

namespace zelvan {

// Copies `text` and a terminating NUL into `out`.
// Returns true, or false (and leaves `out` untouched) when text.size() + 1 bytes do not fit.
[[nodiscard]] bool copy_text(std::span<char> out, std::string_view text);

// Formats as snprintf(3) does into `out`.
// Returns true, or false when the text and its NUL do not fit; `out` then holds an empty text.
[[nodiscard]] bool format_text(std::span<char> out, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace zelvan
