// The text of a token file: one JSON object.  Key and PIN are hexadecimal, since they may be any bytes.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "zelvan_token/soft_token.h"

namespace zelvan::token {

// What is wrong with the text of a token file.
class BadText : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Writes a token as text; the caller wipes it.
std::string to_text(const SoftToken& token);

// Reads such a text.  Members not known are skipped.
// Throws BadText when it is no JSON, was written in another format, lacks a member or holds an impossible value.
SoftToken from_text(std::string_view text);

}  // namespace zelvan::token
