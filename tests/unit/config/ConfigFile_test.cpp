#include "config/ConfigFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <climits>
#include <cstring>
#include <string>
#include <type_traits>

#include "temporary_file.h"

namespace {

using zelvan::test::TemporaryFile;

// A settings file read from `text`.
struct Loaded {
  explicit Loaded(std::string_view text) {
    const TemporaryFile source(text);
    EXPECT_EQ(file.config_init(source.path()), CONFIG_INIT_OK);
  }

  std::string value(const char* section, const char* key) const {
    std::array<char, 2048> out{};
    const int result = file.getvalstr(section, key, out.data(), 2047, nullptr);
    return result == GETVAL_OK ? out.data() : "<" + std::to_string(result) + ">";
  }

  CConfigFile file;
};

constexpr const char* kUnread = "<-5>";

}  // namespace

static_assert(std::has_virtual_destructor_v<CConfigFile>);
static_assert(!std::is_copy_constructible_v<CConfigFile>);

// ---- config_init

TEST(ConfigFile, NullPathIsRefused) {
  CConfigFile file;
  EXPECT_EQ(file.config_init(nullptr), CONFIG_INIT_NO_PATH);
  EXPECT_EQ(CONFIG_INIT_NO_PATH, -1);
}

TEST(ConfigFile, MissingFileIsReported) {
  CConfigFile file;
  EXPECT_EQ(file.config_init("/nonexistent/otp_conf.con"), CONFIG_INIT_NO_FILE);
  EXPECT_EQ(file.config_init(""), CONFIG_INIT_NO_FILE);
  EXPECT_EQ(CONFIG_INIT_NO_FILE, -2);
}

TEST(ConfigFile, FolderReadsAsAnEmptyFile) {
  CConfigFile file;
  EXPECT_EQ(file.config_init("/tmp"), CONFIG_INIT_OK);
  EXPECT_TRUE(file.content().sections.empty());
}

TEST(ConfigFile, EmptyFileLoads) {
  const Loaded loaded("");
  EXPECT_TRUE(loaded.file.content().sections.empty());
  EXPECT_TRUE(loaded.file.content().header_comment.empty());
}

TEST(ConfigFile, BackslashesOfThePathAreSlashes) {
  const TemporaryFile source("[s]\nk=v\n");
  std::string path = source.path();
  for (char& c : path) c = c == '/' ? '\\' : c;
  CConfigFile file;
  EXPECT_EQ(file.config_init(path.c_str()), CONFIG_INIT_OK);
  EXPECT_EQ(file.getvalInt("s", "k", 1), 0);
}

TEST(ConfigFile, SecondFileIsAppended) {
  Loaded loaded(";a\n[s]\nk=1\n");
  const TemporaryFile second(";b\n[s]\nk=2\nl=3\n");
  EXPECT_EQ(loaded.file.config_init(second.path()), CONFIG_INIT_OK);
  EXPECT_EQ(loaded.file.content().sections.size(), 2U);
  EXPECT_EQ(loaded.file.content().header_comment, ";a\n;b\n");
  EXPECT_EQ(loaded.value("s", "k"), "1");
  EXPECT_EQ(loaded.value("s", "l"), "3");
}

TEST(ConfigFile, LastLineNeedsNoTerminator) {
  EXPECT_EQ(Loaded("[s]\nk=v").value("s", "k"), "v");
  EXPECT_EQ(Loaded("[s").file.content().sections.size(), 1U);
}

TEST(ConfigFile, CarriageReturnLineFeedEndsALine) {
  const Loaded loaded("[s]\r\n\r\n;c\r\nk=v\r\n");
  EXPECT_EQ(loaded.value("s", "k"), "v");
  EXPECT_EQ(loaded.value("s", "comment_t"), ";c\r\n");
}

TEST(ConfigFile, LineOf1022BytesIsReadWhole) {
  const std::string value(1019, 'v');  // with "k=" and the line feed 1022
  EXPECT_EQ(Loaded("[s]\nk=" + value + "\nl=1\n").value("s", "k"), value);
}

TEST(ConfigFile, RestOfALongLineIsALineOfItsOwn) {
  const std::string value(1020, 'v');  // "k=" and the value fill one read
  const Loaded key("[s]\nk=" + value + "l=1\n");
  EXPECT_EQ(key.value("s", "k"), value);
  EXPECT_EQ(key.value("s", "l"), "1");

  const Loaded section("[s]\nk=" + value + "[t]\nl=1\n");
  EXPECT_EQ(section.value("s", "l"), kUnread);
  EXPECT_EQ(section.value("t", "l"), "1");

  const Loaded blank("[s]\nk=" + value + "\nl=1\n");
  EXPECT_EQ(blank.value("s", "k"), value);
  EXPECT_EQ(blank.file.content().sections[0].items.size(), 2U);

  const Loaded end("[s]\nk=" + value);
  EXPECT_EQ(end.value("s", "k"), value);
  EXPECT_EQ(end.file.content().sections[0].items.size(), 1U);
}

TEST(ConfigFile, RestOfALongCommentIsALineOfItsOwn) {
  const Loaded loaded("[s]\n;" + std::string(1021, 'c') + "k=v\n");
  EXPECT_EQ(loaded.value("s", "comment_t"), ";" + std::string(1021, 'c'));
  EXPECT_EQ(loaded.value("s", "k"), "v");
}

TEST(ConfigFile, NulByteEndsTheLine) {
  using std::string_view_literals::operator""sv;
  EXPECT_EQ(Loaded("[s]\nk=v\0w\nl=1\n"sv).value("s", "k"), "v");
  EXPECT_EQ(Loaded("[s]\nk=v\0w\nl=1\n"sv).value("s", "l"), "1");
  EXPECT_EQ(Loaded("[s\0t]\nk=v\n"sv).value("s", "k"), "v");
  EXPECT_EQ(Loaded("[s]\n\0k=v\nl=1\n"sv).file.content().sections[0].items.size(), 1U);
}

// ---- getvalstr

TEST(ConfigFile, NullArgumentOrEmptyRoomIsRefused) {
  const Loaded loaded("[s]\nk=v\n");
  std::array<char, 8> out{"kept"};
  EXPECT_EQ(loaded.file.getvalstr(nullptr, "k", out.data(), 7, "d"), GETVAL_BAD_ARGUMENT);
  EXPECT_EQ(loaded.file.getvalstr("s", nullptr, out.data(), 7, "d"), GETVAL_BAD_ARGUMENT);
  EXPECT_EQ(loaded.file.getvalstr("s", "k", nullptr, 7, "d"), GETVAL_BAD_ARGUMENT);
  for (const int limit : {0, -1, INT_MIN}) {
    EXPECT_EQ(loaded.file.getvalstr("s", "k", out.data(), limit, "d"), GETVAL_BAD_ARGUMENT);
  }
  EXPECT_STREQ(out.data(), "kept");
  EXPECT_EQ(GETVAL_BAD_ARGUMENT, -3);
}

TEST(ConfigFile, ValueOfExactlyTheLimitFits) {
  const Loaded loaded("[s]\nk=hello\n");
  std::array<char, 6> out{};
  EXPECT_EQ(loaded.file.getvalstr("s", "k", out.data(), 5, nullptr), 0);
  EXPECT_STREQ(out.data(), "hello");
}

TEST(ConfigFile, ValueLongerThanTheLimitIsRefused) {
  const Loaded loaded("[s]\nk=hello\n");
  std::array<char, 6> out{"kept"};
  EXPECT_EQ(loaded.file.getvalstr("s", "k", out.data(), 4, "d"), GETVAL_TOO_LONG);
  EXPECT_STREQ(out.data(), "kept");
  EXPECT_EQ(GETVAL_TOO_LONG, -4);
}

TEST(ConfigFile, LargestLimitIsTaken) {
  const Loaded loaded("[s]\nk=hello\n");
  std::array<char, 6> out{};
  EXPECT_EQ(loaded.file.getvalstr("s", "k", out.data(), INT_MAX, nullptr), 0);
  EXPECT_STREQ(out.data(), "hello");
}

TEST(ConfigFile, MissingKeyWithoutADefaultIsReported) {
  const Loaded loaded("[s]\nk=v\n");
  std::array<char, 6> out{"kept"};
  EXPECT_EQ(loaded.file.getvalstr("s", "x", out.data(), 5, nullptr), GETVAL_NOT_FOUND);
  EXPECT_EQ(CConfigFile().getvalstr("s", "k", out.data(), 5, nullptr), GETVAL_NOT_FOUND);
  EXPECT_STREQ(out.data(), "kept");
  EXPECT_EQ(GETVAL_NOT_FOUND, -5);
}

TEST(ConfigFile, DefaultIsCopiedForAMissingKey) {
  std::array<char, 6> out{};
  EXPECT_EQ(CConfigFile().getvalstr("s", "k", out.data(), 5, "hello"), 0);
  EXPECT_STREQ(out.data(), "hello");
}

TEST(ConfigFile, TooLongDefaultLeavesTheBufferAloneAndIsNoError) {
  std::array<char, 6> out{"kept"};
  EXPECT_EQ(CConfigFile().getvalstr("s", "k", out.data(), 5, "0123456789"), 0);
  EXPECT_EQ(CConfigFile().getvalstr("s", "k", out.data(), 5, "012345"), 0);
  EXPECT_STREQ(out.data(), "kept");
}

TEST(ConfigFile, EmptyValueIsFound) {
  const Loaded loaded("[s]\nk=\n");
  std::array<char, 6> out{"old"};
  EXPECT_EQ(loaded.file.getvalstr("s", "k", out.data(), 5, "d"), 0);
  EXPECT_STREQ(out.data(), "");
}

TEST(ConfigFile, FirstOfTwoKeysWins) { EXPECT_EQ(Loaded("[s]\nk=1\nk=2\n").value("s", "k"), "1"); }

TEST(ConfigFile, LookupGoesOnInLaterSectionsOfTheName) {
  const Loaded loaded("[s]\nx=1\n[t]\nk=9\n[s]\nk=2\nx=3\n");
  EXPECT_EQ(loaded.value("s", "k"), "2");
  EXPECT_EQ(loaded.value("s", "x"), "1");
}

TEST(ConfigFile, NamesAreComparedByteForByte) {
  const Loaded loaded("[S]\nk=v\n[ a ]\nk =w\n");
  EXPECT_EQ(loaded.value("s", "k"), kUnread);
  EXPECT_EQ(loaded.value("S", "K"), kUnread);
  EXPECT_EQ(loaded.value("S", "k"), "v");
  EXPECT_EQ(loaded.value("a", "k "), kUnread);
  EXPECT_EQ(loaded.value(" a ", "k"), kUnread);
  EXPECT_EQ(loaded.value(" a ", "k "), "w");
}

TEST(ConfigFile, IndentedKeyIsNotFound) {
  const Loaded loaded("[s]\n  k=v\n");
  EXPECT_EQ(loaded.value("s", "k"), kUnread);
  EXPECT_EQ(loaded.value("s", "  k"), kUnread);
  ASSERT_EQ(loaded.file.content().sections[0].items.size(), 1U);
  EXPECT_EQ(loaded.file.content().sections[0].items[0].key, "");
}

TEST(ConfigFile, CommentKeyFindsTheFirstComment) {
  EXPECT_EQ(Loaded("[s]\n;one\n;two\n").value("s", "comment_t"), ";one\n");
}

// ---- getvalInt

TEST(ConfigFile, NumberOfNothingIsTheDefault) {
  const Loaded loaded("[s]\nk=7\n");
  EXPECT_EQ(loaded.file.getvalInt(nullptr, "k", 3), 3);
  EXPECT_EQ(loaded.file.getvalInt("s", nullptr, 3), 3);
  EXPECT_EQ(loaded.file.getvalInt("s", "x", 3), 3);
  EXPECT_EQ(loaded.file.getvalInt("x", "k", 3), 3);
  EXPECT_EQ(CConfigFile().getvalInt("s", "k", 3), 3);
}

struct NumberCase {
  const char* text;
  int number;
};

class ConfigNumber : public testing::TestWithParam<NumberCase> {};

TEST_P(ConfigNumber, IsReadAsAtoiReadsIt) {
  const Loaded loaded("[s]\nk=" + std::string(GetParam().text) + "\n");
  EXPECT_EQ(loaded.file.getvalInt("s", "k", 99), GetParam().number);
}

INSTANTIATE_TEST_SUITE_P(ConfigFile, ConfigNumber,
                         testing::Values(NumberCase{"7", 7}, NumberCase{"", 0}, NumberCase{"word", 0},
                                         NumberCase{" \t12", 12}, NumberCase{"-3", -3}, NumberCase{"+3", 3},
                                         NumberCase{"- 3", 0}, NumberCase{"12 ; seconds", 12}, NumberCase{"0x10", 0},
                                         NumberCase{"010", 10}, NumberCase{"2147483647", INT_MAX},
                                         NumberCase{"-2147483648", INT_MIN}, NumberCase{"4294967301", 5}));

TEST(ConfigFile, TheServersFileIsEmptyUntilItIsRead) { EXPECT_TRUE(configfile.content().sections.empty()); }
