#include "zelvanctl/table.h"

#include <gtest/gtest.h>

using zelvan::ctl::display_width;
using zelvan::ctl::printable;
using zelvan::ctl::Table;

TEST(Table, ColumnsAreAsWideAsTheirLongestText) {
  Table table({{"A"}, {"LONG"}, {"C"}});
  table.add({"xyz", "1", "end"});
  table.add({"x", "12345", ""});
  EXPECT_EQ(table.text(), "A    LONG   C\nxyz  1      end\nx    12345\n");
}

TEST(Table, NumbersStandToTheRight) {
  Table table({{"N", Table::Align::right}, {"X"}});
  table.add({"7", "a"});
  table.add({"123", "b"});
  EXPECT_EQ(table.text(), "  N  X\n  7  a\n123  b\n");
}

TEST(Table, MissingCellsAreEmptyAndFurtherOnesDropped) {
  Table table({{"A"}, {"B"}});
  table.add({"1"});
  table.add({"2", "3", "4"});
  EXPECT_EQ(table.text(), "A  B\n1\n2  3\n");
}

TEST(Table, CharactersCountNotBytes) {
  EXPECT_EQ(display_width("Zürich"), 6U);
  Table table({{"A"}, {"B"}});
  table.add({"ü", "x"});
  EXPECT_EQ(table.text(), "A  B\nü  x\n");
}

TEST(Table, ControlCharactersCannotReachTheTerminal) {
  EXPECT_EQ(printable("a\x1b[31mb\r\n\x7f"), "a?[31mb???");
  EXPECT_EQ(printable("\xC2\x9B"), "?");  // U+009B, a control sequence introducer
}

TEST(Table, BytesThatAreNoUtf8AreReplaced) {
  EXPECT_EQ(printable("\xFF"), "?");
  EXPECT_EQ(printable("\xC3"), "?");
  EXPECT_EQ(printable("\xC0\xAF"), "??");            // an overlong form
  EXPECT_EQ(printable("\xED\xA0\x80"), "???");       // a surrogate
  EXPECT_EQ(printable("\xF4\x90\x80\x80"), "????");  // beyond U+10FFFF
}

TEST(Table, GoodUtf8Stays) { EXPECT_EQ(printable("aé€𝄞"), "aé€𝄞"); }

TEST(Table, BoldTitlesAreWrappedOnce) {
  Table table({{"A"}});
  EXPECT_EQ(table.text(true), "\x1b[1mA\x1b[0m\n");
}
