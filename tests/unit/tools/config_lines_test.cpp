#include "zelvanctl/config_lines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>

#include "config/ConfigFile.h"

using namespace zelvan::ctl;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using Kind = ConfigLine::Kind;

// The items that the server keeps, as "section|key|value".
std::vector<std::string> kept_by_server(const std::string& text) {
  std::string path = testing::TempDir() + "/lines-XXXXXX";
  const int fd = mkstemp(path.data());
  EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(fd);
  CConfigFile file;
  EXPECT_EQ(file.config_init(path.c_str()), 0);
  unlink(path.c_str());
  std::vector<std::string> items;
  for (const auto& section : file.content().sections) {
    for (const auto& item : section.items) {
      if (item.key != zelvan::kCommentKey) items.push_back(section.name + "|" + item.key + "|" + item.value);
    }
  }
  return items;
}

std::vector<std::string> kept(const std::string& text) {
  const ConfigLines lines(text);
  std::vector<std::string> items;
  for (const ConfigLine& line : lines.all()) {
    if (line.kind != Kind::item || !line.in_section) continue;
    items.push_back(line.section + "|" + (line.indented ? "" : line.key) + "|" + line.value);
  }
  return items;
}

std::vector<std::string> losses(const std::string& text) { return edit_losses(ConfigLines(text)); }

std::string obstacle(const std::string& text) { return edit_obstacle(ConfigLines(text)); }

}  // namespace

class SameAsTheServer : public testing::TestWithParam<std::string> {};

TEST_P(SameAsTheServer, KeepsTheSameItems) { EXPECT_EQ(kept(GetParam()), kept_by_server(GetParam())); }

INSTANTIATE_TEST_SUITE_P(
    ConfigLines, SameAsTheServer,
    testing::Values("", "\n", "[s]\na=1\n", "[s]\r\na=1\r\n", "a=1\n[s]\nb=2", "[]\na=1\n[s]\nb=2\n", "[s]\n  a=1\n",
                    "[s]\n   \n\t\na\n=x\n==\n", "[s\na=1\n", "[s]x\na=b=c ;d\n", "; c\n\n[s]\n; d\n#e=f\n",
                    "[s]\n" + std::string(1018, 'k') + "=v\n", "[s]\n" + std::string(1019, 'k') + "=v\n",
                    "[s]\n" + std::string(1020, 'k') + "=v\n", "[s]\n" + std::string(1022, 'k') + "\n",
                    "[s]\n" + std::string(1023, 'k') + "=v\n", "[s]\n" + std::string(3000, ';') + "\n",
                    "[s]\n;" + std::string(1021, 'c') + "[t]\na=1\n", std::string("[s]\na=1\0b=2\nc=3\n", 15),
                    std::string("[s]\n\0a=1\nc=3\n", 13), "[s]\na=1\n[t]\nb=2\n[s]\na=3", "\xEF\xBB\xBF[s]\na=1\n"));

TEST(ConfigLines, NumbersCountLinesOfTheFile) {
  const ConfigLines lines("; c\n[s]\n\na=" + std::string(2000, 'x') + "\nb=1\n");
  EXPECT_EQ(lines.find("s", "b")->number, 5U);
}

TEST(ConfigLines, FindTakesTheFirstOccurrence) {
  const ConfigLines lines("[s]\nb=1\n[t]\na=2\n[s]\na=3\na=4\n");
  EXPECT_EQ(lines.find("s", "a")->number, 6U);
  EXPECT_EQ(lines.find("s", "c"), nullptr);
}

TEST(ConfigLines, AnIndentedKeyIsNotFound) { EXPECT_EQ(ConfigLines("[s]\n a=1\n").find("s", "a"), nullptr); }

TEST(EditLosses, ACleanFileLosesNothing) { EXPECT_THAT(losses("; head\n; er\n[s]\n; c\na=1\nb=\n[t]\n"), IsEmpty()); }

TEST(EditLosses, BlankLinesAreCounted) {
  EXPECT_THAT(losses("[s]\n\na=1\n  \n"), ElementsAre("2 blank lines would be lost"));
}

TEST(EditLosses, EachStrayLineIsNamed) {
  EXPECT_THAT(losses("; head\na=1\n; lost\n[s]\n x=1\nword\n[]\n[t\n[u] more\n"),
              ElementsAre(HasSubstr("line 2: the setting stands in no section"), HasSubstr("line 3: the comment"),
                          HasSubstr("line 5: the key of the indented"), HasSubstr("line 6: the line would get a ="),
                          HasSubstr("line 7: the section without a name"), HasSubstr("line 8: the section would get"),
                          HasSubstr("line 9: the text behind")));
}

TEST(EditLosses, NothingOfAValueIsShown) {
  for (const std::string& loss : losses("p=s3cret\n[share]\n 1.2.3.4=s3cret\n s3cret\n")) {
    EXPECT_THAT(loss, testing::Not(HasSubstr("s3cret")));
  }
}

TEST(EditObstacle, LongLinesNulBytesAndMarksStopAnEdit) {
  EXPECT_EQ(obstacle("[s]\n" + std::string(1021, 'k') + "\n"), "");
  EXPECT_THAT(obstacle("[s]\n" + std::string(1022, 'k') + "\n"), HasSubstr("line 2"));
  EXPECT_THAT(obstacle(std::string("[s]\na=1\0\n", 9)), HasSubstr("NUL"));
  EXPECT_THAT(obstacle("\xEF\xBB\xBF[s]\n"), HasSubstr("byte order mark"));
}

// The writer takes it for a comment, which has a line feed of its own.
TEST(ConfigLines, AKeyThatStandsForCommentsForbidsAnEdit) {
  EXPECT_THAT(obstacle("[s]\na=1\ncomment_t=hello\nb=2\n"), HasSubstr("line 3 has the key comment_t"));
  EXPECT_THAT(obstacle("[s]\ncomment_tt=1\n;comment_t=1\n"), IsEmpty());
}
