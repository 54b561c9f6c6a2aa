#include "zelvanctl/key_maker.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "zelvanctl/failure.h"

namespace zelvan::ctl {

void fill_random(std::span<unsigned char> out) {
  while (!out.empty()) {
    const ssize_t got = getrandom(out.data(), out.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) throw Failure(kFailed, std::string("no random numbers: ") + std::strerror(errno));
    out = out.subspan(static_cast<std::size_t>(got));
  }
}

std::string random_text(std::string_view alphabet, std::size_t count) {
  // Bytes from the largest multiple of the alphabet's size on are thrown away, so that no character comes more often.
  const std::size_t fair = 256 - 256 % alphabet.size();
  std::string text;
  text.reserve(count);
  std::array<unsigned char, 64> bytes{};
  while (text.size() < count) {
    fill_random(bytes);
    for (const unsigned char byte : bytes) {
      if (byte < fair && text.size() < count) text += alphabet[byte % alphabet.size()];
    }
  }
  explicit_bzero(bytes.data(), bytes.size());
  return text;
}

Secret make_key() {
  std::string text = random_text("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", kKeyCharacters);
  Secret key(text);
  explicit_bzero(text.data(), text.size());
  return key;
}

std::string make_serial() { return "Z" + random_text("23456789ABCDEFGHJKLMNPQRSTUVWXYZ", 11); }

}  // namespace zelvan::ctl
