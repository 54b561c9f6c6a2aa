#include "zelvanctl/qr_code.h"

#include <gtest/gtest.h>

#include <array>

#include "zelvanctl/failure.h"

using namespace zelvan::ctl;

namespace {

// The modules of a drawing, read back from its half blocks.
std::vector<std::vector<bool>> read_back(std::string_view drawing) {
  std::vector<std::vector<bool>> rows;
  while (!drawing.empty()) {
    std::vector<bool> upper;
    std::vector<bool> lower;
    while (!drawing.starts_with('\n')) {
      const bool full = drawing.starts_with("█");
      const bool up = drawing.starts_with("▀");
      const bool low = drawing.starts_with("▄");
      upper.push_back(!(full || up));
      lower.push_back(!(full || low));
      drawing.remove_prefix(full || up || low ? 3 : 1);
    }
    drawing.remove_prefix(1);
    rows.push_back(upper);
    rows.push_back(lower);
  }
  return rows;
}

// ISO/IEC 18004 section 6.3.3: the finder pattern that stands in three corners.
constexpr std::array<std::string_view, 7> kFinder{"#######", "#     #", "# ### #", "# ### #",
                                                  "# ### #", "#     #", "#######"};

}  // namespace

TEST(QrCode, ATextThatIsTooLongIsRefused) { EXPECT_THROW(qr_code(std::string(3000, 'x')), Failure); }

TEST(QrCode, HasFinderPatternsInThreeCorners) {
  const QrCode code = qr_code("otpauth://totp/alice");
  for (std::size_t y = 0; y < 7; ++y) {
    for (std::size_t x = 0; x < 7; ++x) {
      const bool dark = kFinder.at(y)[x] == '#';
      EXPECT_EQ(code.dark(x, y), dark);
      EXPECT_EQ(code.dark(code.width - 7 + x, y), dark);
      EXPECT_EQ(code.dark(x, code.width - 7 + y), dark);
    }
  }
}

TEST(QrCode, TheDrawingShowsEveryModuleInsideAQuietZone) {
  const QrCode code = qr_code("hello");
  const auto rows = read_back(draw(code, false));
  const std::size_t side = code.width + 8;
  ASSERT_EQ(rows.size(), side + side % 2);
  for (std::size_t y = 0; y < side; ++y) {
    ASSERT_EQ(rows[y].size(), side);
    for (std::size_t x = 0; x < side; ++x) {
      const bool inside = x >= 4 && y >= 4 && x < 4 + code.width && y < 4 + code.width;
      EXPECT_EQ(rows[y][x], inside && code.dark(x - 4, y - 4)) << x << "," << y;
    }
  }
}

TEST(QrCode, WithColoursEveryLineSetsAndResetsThem) {
  const std::string drawing = draw(qr_code("hello"), true);
  EXPECT_TRUE(drawing.starts_with("\x1b[38;5;231;48;5;16m"));
  EXPECT_TRUE(drawing.ends_with("\x1b[0m\n"));
}
