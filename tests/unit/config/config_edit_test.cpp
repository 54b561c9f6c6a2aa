#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>

#include "config/ConfigFile.h"
#include "temporary_file.h"

namespace {

using zelvan::test::TemporaryFile;

// A settings file and the object that read it.
struct Edited {
  explicit Edited(std::string_view text) : source(text) { EXPECT_EQ(file.config_init(source.path()), CONFIG_INIT_OK); }

  // What updateconfig leaves in the file.
  std::string written() {
    EXPECT_EQ(file.updateconfig(), UPDATECONFIG_OK);
    std::ostringstream text;
    text << std::ifstream(source.path()).rdbuf();
    return text.str();
  }

  TemporaryFile source;
  CConfigFile file;
};

}  // namespace

// ---- additem

TEST(ConfigEdit, AddItemChangesTheFirstItemOfThatKey) {
  Edited edited("[s]\na=1\na=2\n");
  EXPECT_EQ(edited.file.additem("s", "a", "9"), CONFIG_EDIT_OK);
  EXPECT_EQ(edited.written(), "[s]\na=9\na=2\n");
}

TEST(ConfigEdit, AddItemAppendsToTheSection) {
  Edited edited("[s]\na=1\n[t]\n");
  EXPECT_EQ(edited.file.additem("s", "b", "2"), 0);
  EXPECT_EQ(edited.written(), "[s]\na=1\nb=2\n[t]\n");
}

TEST(ConfigEdit, AddItemLooksAtTheFirstOfTwoSectionsOnly) {
  Edited edited("[s]\na=1\n[s]\nk=2\n");
  EXPECT_EQ(edited.file.additem("s", "k", "9"), 0);
  EXPECT_EQ(edited.written(), "[s]\na=1\nk=9\n[s]\nk=2\n");
}

TEST(ConfigEdit, AddItemMakesAMissingSectionAtTheEnd) {
  Edited edited("[s]\na=1\n");
  EXPECT_EQ(edited.file.additem("new", "k", "v"), 0);
  EXPECT_EQ(edited.written(), "[s]\na=1\n[new]\nk=v\n");
}

TEST(ConfigEdit, NamesAreComparedByteForByte) {
  Edited edited("[s]\na=1\n");
  EXPECT_EQ(edited.file.setnewvalue("S", "a", "9"), CONFIG_EDIT_NOT_FOUND);
  EXPECT_EQ(edited.file.setnewvalue("s", "A", "9"), CONFIG_EDIT_NOT_FOUND);
  EXPECT_EQ(edited.file.additem("S", "a", "9"), 0);
  EXPECT_EQ(edited.written(), "[s]\na=1\n[S]\na=9\n");
}

// ---- setnewvalue

TEST(ConfigEdit, SetNewValueSearchesLaterSectionsOfTheName) {
  Edited edited("[s]\na=1\n[s]\nk=2\nk=3\n");
  EXPECT_EQ(edited.file.setnewvalue("s", "k", "9"), CONFIG_EDIT_OK);
  EXPECT_EQ(edited.written(), "[s]\na=1\n[s]\nk=9\nk=3\n");
}

TEST(ConfigEdit, SetNewValueNeverAdds) {
  Edited edited("[s]\na=1\n");
  EXPECT_EQ(edited.file.setnewvalue("s", "b", "2"), -5);
  EXPECT_EQ(edited.file.setnewvalue("t", "a", "2"), -5);
  EXPECT_EQ(edited.written(), "[s]\na=1\n");
}

TEST(ConfigEdit, LookupFindsTheNewValue) {
  Edited edited("[s]\na=1\n");
  (void)edited.file.setnewvalue("s", "a", "42");
  EXPECT_EQ(edited.file.getvalInt("s", "a", 0), 42);
}

// ---- removeitem, addsection, removesection

TEST(ConfigEdit, RemoveItemTakesEveryItemOfThatKeyFromEverySectionOfThatName) {
  Edited edited("[s]\na=1\nb=2\na=3\n[t]\na=4\n[s]\na=5\nc=6\n");
  edited.file.removeitem("s", "a");
  EXPECT_EQ(edited.written(), "[s]\nb=2\n[t]\na=4\n[s]\nc=6\n");
}

TEST(ConfigEdit, CommentsAreRemovedByTheirKey) {
  Edited edited("[s]\n; one\na=1\n; two\n");
  edited.file.removeitem("s", zelvan::kCommentKey);
  EXPECT_EQ(edited.written(), "[s]\na=1\n");
}

TEST(ConfigEdit, AddSectionRefusesNull) {
  CConfigFile file;
  EXPECT_EQ(file.addsection(nullptr), CONFIG_EDIT_NO_NAME);
  EXPECT_EQ(CONFIG_EDIT_NO_NAME, -3);
}

TEST(ConfigEdit, AddSectionLeavesAnExistingOneAlone) {
  Edited edited("[s]\na=1\n");
  EXPECT_EQ(edited.file.addsection("s"), CONFIG_EDIT_OK);
  EXPECT_EQ(edited.file.addsection("t"), CONFIG_EDIT_OK);
  EXPECT_EQ(edited.written(), "[s]\na=1\n[t]\n");
}

TEST(ConfigEdit, RemoveSectionTakesAllOfThatName) {
  Edited edited("[s]\na=1\n; c\n[t]\nb=2\n[s]\nc=3\n");
  edited.file.removesection("s");
  edited.file.removesection("missing");
  EXPECT_EQ(edited.written(), "[t]\nb=2\n");
}

// ---- updateconfig

TEST(ConfigEdit, WithoutAPathNothingIsWritten) {
  CConfigFile file;
  EXPECT_EQ(file.updateconfig(), UPDATECONFIG_NO_PATH);
  EXPECT_EQ(UPDATECONFIG_NO_PATH, -1);
}

TEST(ConfigEdit, PathThatCannotBeOpenedIsReported) {
  CConfigFile file;
  ASSERT_EQ(file.config_init("/nonexistent/otp_conf.con"), CONFIG_INIT_NO_FILE);
  EXPECT_EQ(file.updateconfig(), UPDATECONFIG_NO_FILE);
  EXPECT_EQ(UPDATECONFIG_NO_FILE, -2);
}

TEST(ConfigEdit, ShortWriteLeavesTheFileAsFarAsItGot) {
  Edited edited("[s]\na=1\n");
  (void)edited.file.setnewvalue("s", "a", std::string(5000, 'x').c_str());
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  const auto old_action = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{1000, old.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const int result = edited.file.updateconfig();
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &old), 0);
  (void)std::signal(SIGXFSZ, old_action);
  EXPECT_EQ(result, UPDATECONFIG_SHORT);
  EXPECT_EQ(UPDATECONFIG_SHORT, -6);
  std::ifstream left(edited.source.path(), std::ios::ate);
  EXPECT_EQ(left.tellg(), 1000);
}

TEST(ConfigEdit, HeaderCommentAloneIsWrittenAlone) {
  Edited edited("; one\n; two\n");
  EXPECT_EQ(edited.written(), "; one\n; two\n");
}

TEST(ConfigEdit, NothingIsWrittenAsAnEmptyFile) {
  Edited edited("a=1\n\n");
  EXPECT_EQ(edited.written(), "");
}

TEST(ConfigEdit, CommentsStandWhereTheyStood) {
  const std::string text = "; head\n[s]\na=1\n; between\nb=2\n";
  Edited edited(text);
  EXPECT_EQ(edited.written(), text);
}

TEST(ConfigEdit, LinesEndInLineFeedsButCommentsKeepTheirEnd) {
  Edited edited("; head\r\n[s]\r\na=1\r\n; c\r\n");
  EXPECT_EQ(edited.written(), "; head\r\n[s]\na=1\n; c\r\n");
}

TEST(ConfigEdit, BlankLinesAndWhatStoodBeforeTheFirstSectionAreGone) {
  Edited edited("; head\n\nstray=1\n; stray\n[s]\n\na=1\n\n[t]\n");
  EXPECT_EQ(edited.written(), "; head\n[s]\na=1\n[t]\n");
}

TEST(ConfigEdit, IndentedItemIsWrittenWithoutItsKey) {
  Edited edited("[s]\n  k=v\n");
  EXPECT_EQ(edited.written(), "[s]\n=v\n");
}

TEST(ConfigEdit, NothingIsTrimmedOrEscaped) {
  const std::string text = "[ s ]\nk = v = w \n";
  Edited edited(text);
  EXPECT_EQ(edited.written(), text);
}

TEST(ConfigEdit, WritingAgainWritesTheSame) {
  Edited edited("; h\n\n[s]\n k=v\na=1\n\n; c\n[t]\nb=\n[s]\na=2\n");
  const std::string once = edited.written();
  Edited again(once);
  EXPECT_EQ(again.written(), once);
}
