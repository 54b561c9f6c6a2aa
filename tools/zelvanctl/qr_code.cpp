#include "zelvanctl/qr_code.h"

#include <qrencode.h>

#include <cstring>
#include <memory>

#include "zelvanctl/failure.h"

namespace zelvan::ctl {
namespace {

constexpr std::size_t kQuietZone = 4;  // modules on each side

// Frees a code and the key in its modules.
struct FreeQrCode {
  void operator()(QRcode* code) const {
    explicit_bzero(code->data, static_cast<std::size_t>(code->width) * static_cast<std::size_t>(code->width));
    QRcode_free(code);
  }
};

// One character for an upper and a lower module.
std::string_view half_blocks(bool upper_light, bool lower_light) {
  if (upper_light) return lower_light ? "█" : "▀";
  return lower_light ? "▄" : " ";
}

}  // namespace

QrCode qr_code(std::string_view text) {
  const std::string copy(text);
  const std::unique_ptr<QRcode, FreeQrCode> encoded(QRcode_encodeString8bit(copy.c_str(), 0, QR_ECLEVEL_L));
  if (!encoded) throw Failure(kFailed, "the text does not fit a QR code");
  QrCode code;
  code.width = static_cast<std::size_t>(encoded->width);
  code.modules.reserve(code.width * code.width);
  for (std::size_t i = 0; i < code.width * code.width; ++i) code.modules.push_back((encoded->data[i] & 1U) != 0);
  return code;
}

std::string draw(const QrCode& code, bool colours) {
  const std::size_t side = code.width + 2 * kQuietZone;
  const auto light = [&](std::size_t x, std::size_t y) {
    const bool inside =
        x >= kQuietZone && y >= kQuietZone && x < kQuietZone + code.width && y < kQuietZone + code.width;
    return y < side && !(inside && code.dark(x - kQuietZone, y - kQuietZone));
  };
  std::string out;
  for (std::size_t y = 0; y < side; y += 2) {
    // White letters on a black ground (256-colour codes: themes leave them alone), so that light is light everywhere.
    if (colours) out += "\x1b[38;5;231;48;5;16m";
    for (std::size_t x = 0; x < side; ++x) out += half_blocks(light(x, y), light(x, y + 1));
    if (colours) out += "\x1b[0m";
    out += '\n';
  }
  return out;
}

}  // namespace zelvan::ctl
