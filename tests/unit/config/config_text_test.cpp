#include "config/config_text.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <random>
#include <string>

namespace {

zelvan::ConfigText build(std::initializer_list<std::string_view> lines) {
  zelvan::ConfigText text;
  zelvan::ConfigTextBuilder builder(text);
  for (const auto line : lines) builder.take_line(line);
  builder.finish();
  return text;
}

// The items of all sections as one readable text: "[name]key=value;key=value;[name]".
std::string shape(const zelvan::ConfigText& text) {
  std::string out;
  for (const auto& section : text.sections) {
    out += "[" + section.name + "]";
    for (const auto& item : section.items) out += item.key + "=" + item.value + ";";
  }
  return out;
}

}  // namespace

TEST(ConfigText, SectionNameEndsAtTheFirstBracket) {
  EXPECT_EQ(zelvan::parse_section_name("[options]\n"), "options");
  EXPECT_EQ(zelvan::parse_section_name("[a]b]\n"), "a");
  EXPECT_EQ(zelvan::parse_section_name("[a] ; what follows is ignored\n"), "a");
}

TEST(ConfigText, SectionNameIsNotTrimmed) { EXPECT_EQ(zelvan::parse_section_name("[ a ]\r\n"), " a "); }

TEST(ConfigText, SectionNameMayBeEmpty) {
  EXPECT_EQ(zelvan::parse_section_name("[]\n"), "");
  EXPECT_EQ(zelvan::parse_section_name("["), "");
}

TEST(ConfigText, SectionNameWithoutBracketStopsAtTheEndOfTheLine) {
  EXPECT_EQ(zelvan::parse_section_name("[open\r\n"), "open");
  EXPECT_EQ(zelvan::parse_section_name("[open\n"), "open");
  EXPECT_EQ(zelvan::parse_section_name("[open"), "open");
}

TEST(ConfigText, LongSectionNameIsKeptWhole) {
  for (const std::size_t length : {98U, 99U, 100U, 1000U}) {
    const std::string name(length, 'n');
    EXPECT_EQ(zelvan::parse_section_name("[" + name + "]\n"), name);
  }
}

struct ItemCase {
  const char* line;
  const char* key;
  const char* value;
};

class ConfigItemLine : public testing::TestWithParam<ItemCase> {};

TEST_P(ConfigItemLine, SplitsAsWritten) {
  const auto item = zelvan::parse_item(GetParam().line);
  ASSERT_TRUE(item.has_value());
  EXPECT_EQ(item->key, GetParam().key);
  EXPECT_EQ(item->value, GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(ConfigText, ConfigItemLine,
                         testing::Values(ItemCase{"k=v\n", "k", "v"},        //
                                         ItemCase{"k=v\r\n", "k", "v"},      //
                                         ItemCase{"k=v", "k", "v"},          //
                                         ItemCase{"k=v=w\n", "k", "v=w"},    //
                                         ItemCase{"k=\n", "k", ""},          //
                                         ItemCase{"=v\n", "", "v"},          //
                                         ItemCase{"k = v \n", "k ", " v "},  // blanks stay
                                         ItemCase{"k=v;w\n", "k", "v;w"},    // no comment inside a value
                                         ItemCase{"#k=v\n", "#k", "v"},      // no comment either
                                         ItemCase{"k=v]\n", "k", "v]"},      //
                                         ItemCase{"k=v\rw\n", "k", "v"},     // a lone CR ends the value
                                         ItemCase{"\tk=v\n", "\tk", "v"},    // a tab is part of the key
                                         ItemCase{"\t\n", "\t", ""},         //
                                         ItemCase{"  k=v\n", "", "v"},       // indented: the key reads as empty
                                         ItemCase{" k\n", "", ""},           //
                                         ItemCase{" =v\n", "", "v"},         //
                                         ItemCase{"word\n", "word", ""},     // no "="
                                         ItemCase{"word\r\n", "word", ""},   //
                                         ItemCase{"word", "word", ""},       //
                                         ItemCase{"\xC3\xA4=\xFF\n", "\xC3\xA4", "\xFF"}));  // bytes, no character set

TEST(ConfigText, LineOfBlanksIsNoItem) {
  for (const char* line : {"", " ", "   \n", "  \r\n", "\n", "\r\n"}) EXPECT_FALSE(zelvan::parse_item(line)) << line;
}

TEST(ConfigText, LongKeyAndValueAreKeptWhole) {
  for (const std::size_t length : {98U, 99U, 100U, 500U}) {
    const std::string word(length, 'w');
    const auto item = zelvan::parse_item(word + "=" + word + "\n");
    ASSERT_TRUE(item.has_value());
    EXPECT_EQ(item->key, word);
    EXPECT_EQ(item->value, word);
  }
}

TEST(ConfigText, NothingReadIsEmpty) {
  const auto text = build({});
  EXPECT_TRUE(text.sections.empty());
  EXPECT_TRUE(text.header_comment.empty());
}

TEST(ConfigText, OnlyCommentsMakeNoSection) {
  const auto text = build({"; one\n", ";two\r\n", ";three"});
  EXPECT_TRUE(text.sections.empty());
  EXPECT_EQ(text.header_comment, "; one\n;two\r\n;three");
}

TEST(ConfigText, BlankLineLeavesTheHeaderCommentOpen) {
  const auto text = build({";a\n", "\n", "\r\n", ";b\n", "[s]\n"});
  EXPECT_EQ(text.header_comment, ";a\n;b\n");
  EXPECT_EQ(shape(text), "[s]");
}

TEST(ConfigText, KeyLineEndsTheHeaderComment) {
  const auto text = build({";a\n", "k=v\n", ";b\n", "[s]\n"});
  EXPECT_EQ(text.header_comment, ";a\n");
  EXPECT_EQ(shape(text), "[s]");
}

TEST(ConfigText, LineOfBlanksEndsTheHeaderComment) {
  EXPECT_EQ(build({";a\n", "  \n", ";b\n"}).header_comment, ";a\n");
}

TEST(ConfigText, LineThatBeginsWithANulEndsTheHeaderComment) {
  const auto text = build({";a\n", "", ";b\n"});
  EXPECT_EQ(text.header_comment, ";a\n");
}

TEST(ConfigText, SectionEndsTheHeaderComment) {
  const auto text = build({"[s]\n", ";a\n"});
  EXPECT_EQ(text.header_comment, "");
  EXPECT_EQ(shape(text), "[s]comment_t=;a\n;");
}

TEST(ConfigText, CommentInsideASectionIsAnItemWithItsTerminator) {
  const auto text = build({"[s]\n", "a=1\n", "; note\r\n", "b=2\n"});
  EXPECT_EQ(shape(text), "[s]a=1;comment_t=; note\r\n;b=2;");
}

TEST(ConfigText, IndentedCommentIsAnItemWithAnEmptyKey) {
  EXPECT_EQ(shape(build({"[s]\n", " ;c\n"})), "[s]=;");
  EXPECT_EQ(shape(build({"[s]\n", " ;c=d\n"})), "[s]=d;");
}

TEST(ConfigText, IndentedSectionIsAnItem) { EXPECT_EQ(shape(build({"[s]\n", " [t]\n"})), "[s]=;"); }

TEST(ConfigText, NothingIsSortedOrMerged) {
  const auto text = build({"[z]\n", "b=1\n", "a=2\n", "b=3\n", "[a]\n", "[z]\n", "c=4\n"});
  EXPECT_EQ(shape(text), "[z]b=1;a=2;b=3;[a][z]c=4;");
}

TEST(ConfigText, ItemsOfASectionWithoutANameAreDropped) {
  EXPECT_EQ(shape(build({"[s]\n", "a=1\n", "[]\n", "b=2\n", "[t]\n", "c=3\n"})), "[s]a=1;[t]c=3;");
}

TEST(ConfigText, ItemsBeforeTheFirstSectionAreDropped) { EXPECT_EQ(shape(build({"a=1\n", "[s]\n"})), "[s]"); }

TEST(ConfigText, BuilderAppendsToWhatIsThere) {
  zelvan::ConfigText text = build({";a\n", "[s]\n", "k=1\n"});
  zelvan::ConfigTextBuilder builder(text);
  for (const char* line : {";b\n", "[t]\n", "k=2\n"}) builder.take_line(line);
  builder.finish();
  EXPECT_EQ(shape(text), "[s]k=1;[t]k=2;");
  EXPECT_EQ(text.header_comment, ";a\n;b\n");
}

TEST(ConfigText, WipeOverwritesEveryValue) {
  auto text = build({"[s]\n", "k=secret\n", "[t]\n", "l=other\n"});
  zelvan::wipe_values(text);
  EXPECT_EQ(text.sections[0].items[0].value, std::string(6, '\0'));
  EXPECT_EQ(text.sections[1].items[0].value, std::string(5, '\0'));
}

// Every item has come from the line that made it: no text can grow beyond it, whatever bytes the line has.
TEST(ConfigText, NoLineYieldsMoreThanItHolds) {
  std::mt19937 random(5);
  constexpr std::string_view kBytes = "[]=; \t\r\nab\xFF";
  for (int round = 0; round < 20'000; ++round) {
    std::string line(random() % 24, '\0');
    for (char& byte : line) byte = kBytes[random() % kBytes.size()];
    const auto text = build({"[s]\n", line});
    std::size_t held = 0;
    for (const auto& section : text.sections) {
      held += section.name.size();
      for (const auto& item : section.items) held += item.key == zelvan::kCommentKey ? 0 : item.key.size();
      for (const auto& item : section.items) held += item.value.size();
    }
    ASSERT_LE(held, line.size() + 1) << line;
  }
}
