// Base32 text, as authenticator apps take keys.
//
// Source   RFC 4648 section 6: standard alphabet; without "=" padding, which key URIs leave out.
#pragma once

#include <string>
#include <string_view>

namespace zelvan::ctl {

// Returns the Base32 text of the bytes of `bytes`, upper case and without padding.
std::string base32(std::string_view bytes);

}  // namespace zelvan::ctl
