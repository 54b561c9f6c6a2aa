// Text that must not stay in memory: keys, PINs, passwords, codes.
#pragma once

#include <string.h>

#include <string>
#include <string_view>

namespace zelvan::token {

// Overwrites a text that held a secret.
inline void wipe(std::string& text) {
  explicit_bzero(text.data(), text.size());
  text.clear();
}

// Holds a text and overwrites it when it goes.  It has no conversion to text, so a secret is shown only where the code
// says reveal().
class Secret {
 public:
  Secret() = default;
  explicit Secret(std::string_view text) : text_(text) {}
  Secret(const Secret&) = default;
  Secret& operator=(const Secret& other) {
    if (this == &other) return *this;
    wipe(text_);
    text_ = other.text_;
    return *this;
  }
  ~Secret() { wipe(text_); }

  [[nodiscard]] const std::string& reveal() const { return text_; }
  [[nodiscard]] bool empty() const { return text_.empty(); }

 private:
  std::string text_;
};

}  // namespace zelvan::token
