// Text that must not stay in memory: keys, PINs, passwords.
#pragma once

#include <cstring>
#include <string>
#include <string_view>
#include <utility>

namespace zelvan::ctl {

// Holds a text and overwrites it when it goes.  It has no conversion to text and no output operator, so a secret is
// shown only where the code says reveal().
class Secret {
 public:
  Secret() = default;
  explicit Secret(std::string_view text) : text_(text) {}
  Secret(const Secret&) = default;
  Secret(Secret&& other) noexcept : text_(std::move(other.text_)) { other.wipe(); }
  Secret& operator=(const Secret& other) {
    if (this != &other) {
      wipe();
      text_ = other.text_;
    }
    return *this;
  }
  Secret& operator=(Secret&& other) noexcept {
    if (this != &other) {
      wipe();
      text_ = std::move(other.text_);
      other.wipe();
    }
    return *this;
  }
  ~Secret() { wipe(); }

  [[nodiscard]] const std::string& reveal() const { return text_; }
  [[nodiscard]] bool empty() const { return text_.empty(); }

 private:
  // The whole capacity: a short text that was moved away is still in the string's own buffer.
  void wipe() noexcept {
    text_.resize(text_.capacity());
    explicit_bzero(text_.data(), text_.size());
    text_.clear();
  }

  std::string text_;
};

}  // namespace zelvan::ctl
