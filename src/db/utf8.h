// Whether bytes are UTF-8.
//
// Source   RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF.
// Threads  Pure function.
#pragma once

#include <string_view>

namespace zelvan {

// Returns true when `text` is whole, well-formed UTF-8; the empty text is.
[[nodiscard]] bool is_utf8(std::string_view text);

}  // namespace zelvan
