#include "zelvanctl/progress.h"

#include <gtest/gtest.h>

using zelvan::ctl::progress_line;

TEST(Progress, TheBarFillsFromEmptyToFull) {
  EXPECT_EQ(progress_line("x", 0, 10), "x [" + std::string(30, ' ') + "]   0%");
  EXPECT_EQ(progress_line("x", 5, 10), "x [" + std::string(15, '#') + std::string(15, ' ') + "]  50%");
  EXPECT_EQ(progress_line("x", 10, 10), "x [" + std::string(30, '#') + "] 100%");
}

TEST(Progress, NothingToDoIsDone) { EXPECT_TRUE(progress_line("x", 0, 0).ends_with("100%")); }
