#include "zelvanctl/csv.h"

#include <gtest/gtest.h>

using zelvan::ctl::csv_field;
using zelvan::ctl::csv_line;
using zelvan::ctl::CsvLine;
using zelvan::ctl::parse_csv;

namespace {

using Fields = std::vector<std::string>;

}  // namespace

TEST(Csv, NothingHasNoLines) { EXPECT_TRUE(parse_csv("").empty()); }

TEST(Csv, AMissingClosingQuoteIsAProblemOfItsLine) {
  const auto lines = parse_csv("a\n\"b\nc");
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_TRUE(lines[0].problem.empty());
  EXPECT_EQ(lines[1].number, 2U);
  EXPECT_EQ(lines[1].problem, "the closing quote is missing");
}

TEST(Csv, TextBehindAClosingQuoteIsAProblemAndTheNextLineIsRead) {
  const auto lines = parse_csv("\"a\"x,y\nb\n");
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_FALSE(lines[0].problem.empty());
  EXPECT_EQ(lines[1].fields, Fields{"b"});
  EXPECT_EQ(lines[1].number, 2U);
}

TEST(Csv, AQuoteInsideAnUnquotedFieldIsAProblem) { EXPECT_FALSE(parse_csv("a\"b\n").front().problem.empty()); }

TEST(Csv, SplitsAtCommas) { EXPECT_EQ(parse_csv("a,,c").front().fields, (Fields{"a", "", "c"})); }

TEST(Csv, ACommaAtTheEndBeginsAnEmptyField) { EXPECT_EQ(parse_csv("a,\n").front().fields, (Fields{"a", ""})); }

TEST(Csv, TakesBothKindsOfLineEnds) {
  const auto lines = parse_csv("a,b\r\nc,d\ne,f\r\n");
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0].fields, (Fields{"a", "b"}));
  EXPECT_EQ(lines[2].fields, (Fields{"e", "f"}));
}

TEST(Csv, QuotedFieldsHoldCommasQuotesAndLineEnds) {
  const auto lines = parse_csv("\"a,\"\"b\"\"\nc\",d\nnext");
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].fields, (Fields{"a,\"b\"\nc", "d"}));
  EXPECT_EQ(lines[1].number, 3U);
}

TEST(Csv, EmptyLinesAreSkippedAndCounted) {
  const auto lines = parse_csv("a\n\n\r\nb\n");
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[1].number, 4U);
}

TEST(Csv, AByteOrderMarkIsSkipped) {
  EXPECT_EQ(parse_csv("\xEF\xBB\xBF"
                      "a")
                .front()
                .fields,
            Fields{"a"});
}

TEST(Csv, QuotesOnlyWhatNeedsIt) {
  EXPECT_EQ(csv_field("plain text"), "plain text");
  EXPECT_EQ(csv_field("a,b"), "\"a,b\"");
  EXPECT_EQ(csv_field("a\"b"), "\"a\"\"b\"");
}

TEST(Csv, WhatIsWrittenIsReadBack) {
  const Fields fields{"a,b", "", "\"", "x\ny", "z\r", "plain"};
  EXPECT_EQ(parse_csv(csv_line(fields)).front().fields, fields);
}
