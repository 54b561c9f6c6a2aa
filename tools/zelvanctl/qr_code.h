// QR codes, drawn with half-block characters on a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zelvan::ctl {

// A square of modules, row by row; true is dark.
struct QrCode {
  std::size_t width = 0;
  std::vector<bool> modules;

  [[nodiscard]] bool dark(std::size_t x, std::size_t y) const { return modules.at(y * width + x); }
};

// Returns the QR code of a text, error correction level L, which keeps it small on a terminal.
// Throws Failure when the text is too long for a QR code.
QrCode qr_code(std::string_view text);

// Draws the code, two rows of modules in one line of text, with the quiet zone of four modules that readers need.
//   colours  draws black on white whatever the terminal's colours are; without it, light modules are drawn in the
//            colour of letters, which is right on a dark background only
std::string draw(const QrCode& code, bool colours);

}  // namespace zelvan::ctl
