#include "log/OTPLog.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <sstream>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/fake_clock.h"
#include "support/fake_sleep.h"
#include "unit/log/stream_faults.h"
#include "unit/log/temp_folder.h"

using zelvan::test::stream_faults;

static_assert(std::has_virtual_destructor_v<COTPLog>);

namespace {

constexpr std::time_t kNow = 1'700'000'000;
constexpr int kNever = INT_MAX;                // a maximum size that no test reaches by writing
constexpr std::size_t kLongestMessage = 1003;  // 1024 less the date, the TAB and the line feed

std::string line(const std::string& message) { return "2023-11-14 22:13:20\t" + message + "\n"; }

// Appends as another thread does between its own write-out and its next call.
void append(COTPLog& log, const std::string& text) {
  ASSERT_EQ(pthread_mutex_lock(&log.buffer_mutex), 0);
  std::memcpy(log.buffer + log.buffered, text.data(), text.size());
  log.buffered += static_cast<int>(text.size());
  ASSERT_EQ(pthread_mutex_unlock(&log.buffer_mutex), 0);
}

// Limits the size of every file this process writes; a write beyond it comes out short, as on a full disk.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    (void)std::signal(SIGXFSZ, SIG_IGN);
    (void)getrlimit(RLIMIT_FSIZE, &before_);
    set(bytes);
  }
  ~FileSizeLimit() { set(before_.rlim_cur); }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  void set(rlim_t bytes) const {
    const rlimit limit = {bytes, before_.rlim_max};
    (void)setrlimit(RLIMIT_FSIZE, &limit);
  }

 private:
  rlimit before_{};
};

class Log : public zelvan::test::TempFolder {
 protected:
  void SetUp() override {
    zelvan::test::set_clock(kNow);
    zelvan::test::clear_sleeps();
    stream_faults.open = 0;
    stream_faults.seek = 0;
    stream_faults.tell = 0;
    stream_faults.on_close = nullptr;
  }
  void TearDown() override { zelvan::test::clear_sleeps(); }

  [[nodiscard]] std::string path() const { return file("log"); }
  [[nodiscard]] std::string backup(int stamp) const { return path() + std::to_string(stamp) + ".bak.log"; }

  // A path of exactly `length` characters whose folder exists.
  [[nodiscard]] std::string path_of_length(std::size_t length) const {
    const std::string inner = file(std::string(150, 'd'));
    std::filesystem::create_directories(inner);
    return inner + "/" + std::string(length - inner.size() - 1, 'f');
  }

  // All lines of the file and its backups, with the number of times each was found.
  [[nodiscard]] std::map<std::string, int> all_lines() const {
    std::map<std::string, int> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder())) {
      std::istringstream text(read(entry.path().string()));
      for (std::string each; std::getline(text, each);) ++found[each];
    }
    return found;
  }

  // Many threads write; every line must be found exactly once, and whole.
  void write_from_many_threads(int max_bytes, int lines, const std::string& padding) const {
    constexpr int kThreads = 8;
    {
      COTPLog log(path().c_str(), max_bytes);
      std::vector<std::thread> threads;
      for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&log, &padding, lines, t] {
          for (int i = 0; i < lines; ++i) {
            const std::string message = std::to_string(t) + " " + std::to_string(i) + " " + padding;
            EXPECT_EQ(log.writelog(message.c_str()), 1);
          }
        });
      }
      for (auto& thread : threads) thread.join();
    }
    const auto found = all_lines();
    EXPECT_EQ(found.size(), static_cast<std::size_t>(kThreads * lines));
    for (int t = 0; t < kThreads; ++t) {
      for (int i = 0; i < lines; ++i) {
        std::string wanted = line(std::to_string(t) + " " + std::to_string(i) + " " + padding);
        wanted.pop_back();
        const auto each = found.find(wanted);
        ASSERT_NE(each, found.end()) << t << " " << i;
        ASSERT_EQ(each->second, 1) << t << " " << i;
      }
    }
  }
};

}  // namespace

// --- construction

TEST_F(Log, ThereIsNoLogUntilOneIsMade) { EXPECT_EQ(g_plog, nullptr); }

TEST_F(Log, NullPathMeansTheDefault) {
  {
    COTPLog log(nullptr, kNever);
    EXPECT_STREQ(log.path, "./otplog.log");
    EXPECT_EQ(log.writelog("here"), 1);
  }
  EXPECT_EQ(read("otplog.log"), line("here"));
}

TEST_F(Log, NewLogHoldsNothingAndOpensNothing) {
  const COTPLog log(path().c_str(), 4711);
  EXPECT_EQ(log.stream, nullptr);
  EXPECT_EQ(path(), log.path);
  EXPECT_EQ(log.buffered, 0);
  EXPECT_EQ(log.maximum_size, 4711);
  EXPECT_EQ(log.last_stamp, 0);
  EXPECT_EQ(files(), 0);
}

TEST_F(Log, FieldsStandInTheirOrder) {
  const COTPLog log(path().c_str(), 0);
  const std::array<const void*, 8> fields = {&log.stream,     log.path,   &log.buffered,     &log.maximum_size,
                                             &log.last_stamp, log.buffer, &log.buffer_mutex, &log.file_mutex};
  for (std::size_t i = 1; i < fields.size(); ++i) EXPECT_TRUE(std::less<>()(fields[i - 1], fields[i])) << i;
  EXPECT_EQ(sizeof log.path, 260U);
  EXPECT_EQ(sizeof log.buffer, 1024U);
}

TEST_F(Log, LongestPathIsWrittenTo) {
  const std::string longest = path_of_length(259);
  {
    COTPLog log(longest.c_str(), kNever);
    EXPECT_EQ(log.writelog("far away"), 1);
  }
  EXPECT_EQ(read(longest), line("far away"));
}

TEST_F(Log, PathThatIsTooLongIsRefusedNotCut) {
  const std::string too_long = path_of_length(260);
  COTPLog log(too_long.c_str(), kNever);
  EXPECT_STREQ(log.path, "");
  EXPECT_EQ(log.writelog("kept"), 1);
  EXPECT_EQ(log.writelog("lost"), -1);
  EXPECT_TRUE(std::filesystem::is_empty(std::filesystem::path(too_long).parent_path()));
}

// --- lines

TEST_F(Log, NullMessageDoesNothing) {
  COTPLog log(path().c_str(), kNever);
  EXPECT_EQ(log.writelog(nullptr), 1);
  EXPECT_EQ(log.buffered, 0);
  EXPECT_EQ(files(), 0);
}

TEST_F(Log, LineIsDateTabMessageAndLineFeed) {
  COTPLog log(path().c_str(), kNever);
  ASSERT_EQ(log.writelog("alice auth succeeded."), 1);
  EXPECT_EQ(std::string(log.buffer, static_cast<std::size_t>(log.buffered)),
            "2023-11-14 22:13:20\talice auth succeeded.\n");
}

TEST_F(Log, PercentSignsAreText) {
  COTPLog log(path().c_str(), kNever);
  ASSERT_EQ(log.writelog("%s%n"), 1);
  ASSERT_EQ(log.writefile(), 1);
  EXPECT_EQ(read(path()), line("%s%n"));
}

TEST_F(Log, EachLineReachesTheFileWithTheNextOne) {
  auto log = std::make_unique<COTPLog>(path().c_str(), kNever);
  ASSERT_EQ(log->writelog("one"), 1);
  EXPECT_FALSE(std::filesystem::exists(path()));
  ASSERT_EQ(log->writelog("two"), 1);
  EXPECT_EQ(read(path()), line("one"));
  ASSERT_EQ(log->writelog("three"), 1);
  EXPECT_EQ(read(path()), line("one") + line("two"));
  log.reset();
  EXPECT_EQ(read(path()), line("one") + line("two") + line("three"));
}

TEST_F(Log, DestructorOfAnEmptyLogMakesNoFile) {
  { const COTPLog log(path().c_str(), 0); }
  EXPECT_EQ(files(), 0);
}

TEST_F(Log, LinesAreAppendedToTheFileThatIsThere) {
  write(path(), "older\n");
  { EXPECT_EQ(COTPLog(path().c_str(), kNever).writelog("newer"), 1); }
  EXPECT_EQ(read(path()), "older\n" + line("newer"));
}

TEST_F(Log, FileMayBeRemovedBetweenTwoLines) {
  COTPLog log(path().c_str(), kNever);
  ASSERT_EQ(log.writelog("one"), 1);
  ASSERT_EQ(log.writelog("two"), 1);
  ASSERT_TRUE(std::filesystem::remove(path()));
  ASSERT_EQ(log.writelog("three"), 1);
  EXPECT_EQ(read(path()), line("two"));
}

TEST_F(Log, MessageThatFillsTheBufferIsKeptWhole) {
  for (const std::size_t length : {kLongestMessage - 1, kLongestMessage}) {
    std::filesystem::remove(path());
    const std::string message(length, 'x');
    { EXPECT_EQ(COTPLog(path().c_str(), kNever).writelog(message.c_str()), 1); }
    EXPECT_EQ(read(path()), line(message));
  }
}

TEST_F(Log, MessageLongerThanTheBufferIsCutToFit) {
  for (const std::size_t length : {kLongestMessage + 1, std::size_t{100'000}}) {
    std::filesystem::remove(path());
    {
      COTPLog log(path().c_str(), kNever);
      EXPECT_EQ(log.writelog(std::string(length, 'x').c_str()), 1);
      EXPECT_EQ(log.buffered, 1024);
      EXPECT_EQ(log.writelog("next"), 1);
    }
    EXPECT_EQ(read(path()), line(std::string(kLongestMessage, 'x')) + line("next"));
  }
}

TEST_F(Log, WithoutADateTheLineStartsWithTheTab) {
  zelvan::test::set_clock(LONG_MAX);
  { EXPECT_EQ(COTPLog(path().c_str(), kNever).writelog("later"), 1); }
  EXPECT_EQ(read(path()), "\tlater\n");
}

// --- write-out

TEST_F(Log, NothingToWriteNeedsNoLock) {
  COTPLog log(path().c_str(), 0);
  ASSERT_EQ(pthread_mutex_lock(&log.file_mutex), 0);
  EXPECT_EQ(log.writefile(), 1);  // would wait for ever
  ASSERT_EQ(pthread_mutex_unlock(&log.file_mutex), 0);
  EXPECT_EQ(files(), 0);
}

TEST_F(Log, WriteOutThatTakesEverythingCostsNoPause) {
  COTPLog log(path().c_str(), kNever);
  ASSERT_EQ(log.writelog("quick"), 1);
  EXPECT_EQ(log.writefile(), 1);
  EXPECT_EQ(log.buffered, 0);
  EXPECT_EQ(log.stream, nullptr);
  EXPECT_TRUE(zelvan::test::sleeps().empty());
}

TEST_F(Log, FailedWriteOutLosesTheNewLineAndKeepsTheOldOnes) {
  const std::string missing = file("missing");
  COTPLog log((missing + "/log").c_str(), kNever);
  ASSERT_EQ(log.writelog("old"), 1);
  EXPECT_EQ(log.writelog("lost"), -1);
  EXPECT_EQ(log.writefile(), -1);
  EXPECT_EQ(log.buffered, static_cast<int>(line("old").size()));
  ASSERT_EQ(mkdir(missing.c_str(), 0700), 0);
  EXPECT_EQ(log.writelog("new"), 1);
  EXPECT_EQ(read(missing + "/log"), line("old"));
}

TEST_F(Log, FailedWriteOutLeavesTheMutexesFree) {
  ASSERT_EQ(mkdir(path().c_str(), 0700), 0);  // a folder cannot be opened for writing
  COTPLog log(path().c_str(), kNever);
  ASSERT_EQ(log.writelog("old"), 1);
  EXPECT_EQ(log.writelog("lost"), -1);
  EXPECT_EQ(pthread_mutex_trylock(&log.buffer_mutex), 0);
  EXPECT_EQ(pthread_mutex_trylock(&log.file_mutex), 0);
  EXPECT_EQ(pthread_mutex_unlock(&log.buffer_mutex), 0);
  EXPECT_EQ(pthread_mutex_unlock(&log.file_mutex), 0);
}

TEST_F(Log, FileThatCannotGrowIsTriedAgainEvery100Milliseconds) {
  const FileSizeLimit limit(30);
  std::vector<std::string> seen;
  zelvan::test::on_sleep([&](unsigned long) {
    seen.push_back(read(path()));
    if (seen.size() == 3) limit.set(RLIM_INFINITY);
  });
  COTPLog log(path().c_str(), kNever);
  ASSERT_EQ(log.writelog("a message beyond the limit"), 1);
  EXPECT_EQ(log.writefile(), 1);
  const std::string whole = line("a message beyond the limit");
  EXPECT_EQ(zelvan::test::sleeps(), (std::vector<unsigned long>{100, 100, 100}));
  EXPECT_EQ(seen, std::vector<std::string>(3, whole.substr(0, 30)));
  EXPECT_EQ(read(path()), whole);
  EXPECT_EQ(log.buffered, 0);
}

TEST_F(Log, LinesAppendedDuringARetryAreWrittenToo) {
  const FileSizeLimit limit(10);
  COTPLog log(path().c_str(), kNever);
  zelvan::test::on_sleep([&](unsigned long) {
    append(log, line("meanwhile"));
    limit.set(RLIM_INFINITY);
  });
  ASSERT_EQ(log.writelog("first"), 1);
  EXPECT_EQ(log.writefile(), 1);
  EXPECT_EQ(read(path()), line("first") + line("meanwhile"));
  EXPECT_EQ(log.buffered, 0);
}

TEST_F(Log, LinesAppendedAfterTheLastLookStayInTheBuffer) {
  COTPLog log(path().c_str(), kNever);
  ASSERT_EQ(log.writelog("a longer first line"), 1);
  stream_faults.on_close = [&log] { append(log, line("late")); };
  EXPECT_EQ(log.writefile(), 1);
  EXPECT_EQ(read(path()), line("a longer first line"));
  EXPECT_EQ(std::string(log.buffer, static_cast<std::size_t>(log.buffered)), line("late"));
  EXPECT_EQ(log.writefile(), 1);
  EXPECT_EQ(read(path()), line("a longer first line") + line("late"));
}

TEST_F(Log, BufferIsMovedUnderItsMutexOnly) {
  COTPLog log(path().c_str(), kNever);
  ASSERT_EQ(log.writelog("first"), 1);
  std::promise<void> holding;
  std::promise<void> done;
  std::thread appender;
  stream_faults.on_close = [&] {
    appender = std::thread([&] {
      ASSERT_EQ(pthread_mutex_lock(&log.buffer_mutex), 0);
      holding.set_value();
      EXPECT_EQ(done.get_future().wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
      EXPECT_EQ(pthread_mutex_unlock(&log.buffer_mutex), 0);
    });
    holding.get_future().wait();
  };
  EXPECT_EQ(log.writefile(), 1);
  done.set_value();
  appender.join();
  EXPECT_EQ(log.buffered, 0);
}

// --- size

TEST_F(Log, WithoutAnOpenFileThereIsNoSize) {
  COTPLog log(path().c_str(), kNever);
  EXPECT_EQ(log.getfilesize(), -1);
}

TEST_F(Log, SizeIsFoundAndThePositionKept) {
  write(path(), "0123456789");
  COTPLog log(path().c_str(), kNever);
  log.stream = std::fopen(path().c_str(), "r");
  ASSERT_NE(log.stream, nullptr);
  ASSERT_EQ(std::fseek(log.stream, 3, SEEK_SET), 0);
  EXPECT_EQ(log.getfilesize(), 10);
  EXPECT_EQ(std::ftell(log.stream), 3);
  ASSERT_EQ(std::fclose(log.stream), 0);
}

TEST_F(Log, EachFailingSeekMakesTheSizeUnknown) {
  COTPLog log(path().c_str(), kNever);
  log.stream = std::fopen(path().c_str(), "a");
  ASSERT_NE(log.stream, nullptr);
  stream_faults.tell = 1;
  EXPECT_EQ(log.getfilesize(), -1);
  stream_faults.tell = 2;
  EXPECT_EQ(log.getfilesize(), -1);
  stream_faults.seek = 1;
  EXPECT_EQ(log.getfilesize(), -1);
  stream_faults.seek = 2;
  EXPECT_EQ(log.getfilesize(), -1);
  EXPECT_EQ(log.getfilesize(), 0);
  ASSERT_EQ(std::fclose(log.stream), 0);
}

TEST_F(Log, SizeBeyond32BitsReadsAsTheLargestNumber) {
  write(path(), "");
  std::filesystem::resize_file(path(), (std::uintmax_t{1} << 32U) + 5);  // its low 32 bits would read as 5
  COTPLog log(path().c_str(), kNever);
  log.stream = std::fopen(path().c_str(), "a");
  ASSERT_NE(log.stream, nullptr);
  EXPECT_EQ(log.getfilesize(), INT_MAX);
  ASSERT_EQ(std::fclose(log.stream), 0);
}

TEST_F(Log, UnknownSizeWritesNothingAndKeepsTheBuffer) {
  COTPLog log(path().c_str(), 0);
  ASSERT_EQ(log.writelog("kept"), 1);
  stream_faults.tell = 1;
  EXPECT_EQ(log.writefile(), 1);
  EXPECT_EQ(read(path()), "");
  EXPECT_EQ(log.buffered, static_cast<int>(line("kept").size()));
  EXPECT_EQ(log.stream, nullptr);
  EXPECT_EQ(files(), 1);  // no rotation either
}

TEST_F(Log, PipeFillsTheBufferAndThenLosesLines) {
  ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
  const int reader =
      open(path().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);  // so that opening for writing does not wait
  ASSERT_GE(reader, 0);
  const std::string message(400, 'x');
  COTPLog log(path().c_str(), kNever);
  EXPECT_EQ(log.writelog(message.c_str()), 1);
  EXPECT_EQ(log.writelog(message.c_str()), 1);
  EXPECT_EQ(log.writelog(message.c_str()), -1);
  EXPECT_EQ(log.writelog("short"), 1);
  ASSERT_EQ(close(reader), 0);
  ASSERT_TRUE(std::filesystem::remove(path()));
  EXPECT_EQ(log.writefile(), 1);
  EXPECT_EQ(read(path()), line(message) + line(message) + line("short"));
}

// --- rotation

TEST_F(Log, FileBelowTheMaximumIsKept) {
  write(path(), std::string(99, 'x'));
  { EXPECT_EQ(COTPLog(path().c_str(), 100).writelog("crossing"), 1); }
  EXPECT_EQ(read(path()), std::string(99, 'x') + line("crossing"));
  EXPECT_EQ(files(), 1);
}

TEST_F(Log, FileAtTheMaximumIsMovedAside) {
  for (const std::size_t size : {std::size_t{100}, std::size_t{101}}) {
    std::filesystem::remove(backup(kNow));
    write(path(), std::string(size, 'x'));
    { EXPECT_EQ(COTPLog(path().c_str(), 100).writelog("new file"), 1); }
    EXPECT_EQ(read(backup(kNow)), std::string(size, 'x'));
    EXPECT_EQ(read(path()), line("new file"));
    EXPECT_EQ(files(), 2);
  }
}

TEST_F(Log, OneMegabyteRotatesAtTheWriteOutAfterItIsReached) {
  write(path(), std::string(1'048'575, 'x'));
  COTPLog log(path().c_str(), 1 << 20);
  ASSERT_EQ(log.writelog("crossing"), 1);
  ASSERT_EQ(log.writefile(), 1);
  EXPECT_EQ(read(path()), std::string(1'048'575, 'x') + line("crossing"));
  ASSERT_EQ(log.writelog("next"), 1);
  ASSERT_EQ(log.writefile(), 1);
  EXPECT_EQ(read(backup(kNow)), std::string(1'048'575, 'x') + line("crossing"));
  EXPECT_EQ(read(path()), line("next"));
}

TEST_F(Log, MaximumOfZeroOrLessMovesEvenAnEmptyFile) {
  for (const int maximum : {0, -1, INT_MIN}) {
    { EXPECT_EQ(COTPLog(path().c_str(), maximum).writelog("line"), 1); }
    EXPECT_TRUE(std::filesystem::is_empty(backup(kNow)));
    EXPECT_EQ(read(path()), line("line"));
    std::filesystem::remove(path());
  }
}

TEST_F(Log, FileBeyond32BitsIsMovedAside) {
  write(path(), "");
  std::filesystem::resize_file(path(), (std::uintmax_t{1} << 32U) + 5);
  { EXPECT_EQ(COTPLog(path().c_str(), INT_MAX).writelog("new file"), 1); }
  EXPECT_EQ(std::filesystem::file_size(backup(kNow)), (std::uintmax_t{1} << 32U) + 5);
  EXPECT_EQ(read(path()), line("new file"));
}

TEST_F(Log, TwoRotationsInOneSecondGetTwoNames) {
  {
    COTPLog log(path().c_str(), 1);
    for (const char* message : {"one", "two", "three"}) ASSERT_EQ(log.writelog(message), 1);
  }
  EXPECT_EQ(read(backup(kNow)), line("one"));
  EXPECT_EQ(read(backup(kNow + 1)), line("two"));
  EXPECT_EQ(read(path()), line("three"));
}

TEST_F(Log, StampFollowsTheClockForwardsOnly) {
  COTPLog log(path().c_str(), 0);
  for (const std::time_t now : {kNow, kNow + 60, kNow - 3600}) {
    zelvan::test::set_clock(now);
    ASSERT_EQ(log.writelog("line"), 1);
    ASSERT_EQ(log.writefile(), 1);
  }
  EXPECT_TRUE(std::filesystem::exists(backup(kNow)));
  EXPECT_TRUE(std::filesystem::exists(backup(kNow + 60)));
  EXPECT_TRUE(std::filesystem::exists(backup(kNow + 61)));
  EXPECT_EQ(log.last_stamp, kNow + 61);
}

TEST_F(Log, StampCountsOnWhenTheTimeNoLongerFits) {
  COTPLog log(path().c_str(), 0);
  for (const std::time_t now : {std::time_t{INT_MAX}, std::time_t{INT_MAX} + 1, std::time_t{INT_MAX} + 2}) {
    zelvan::test::set_clock(now);
    ASSERT_EQ(log.writelog("line"), 1);
    ASSERT_EQ(log.writefile(), 1);
  }
  EXPECT_EQ(files(), 4);  // three names that differ, and the file
}

TEST_F(Log, RenameThatFailsKeepsTheFileAndTheBufferAndIsTriedAgain) {
  write(path(), "full");
  ASSERT_EQ(mkdir(backup(kNow).c_str(), 0700), 0);  // a file cannot take the name of a folder
  COTPLog log(path().c_str(), 4);
  ASSERT_EQ(log.writelog("kept"), 1);
  EXPECT_EQ(log.writelog("lost"), -1);
  EXPECT_EQ(read(path()), "full");
  EXPECT_EQ(log.stream, nullptr);
  EXPECT_EQ(log.buffered, static_cast<int>(line("kept").size()));
  EXPECT_EQ(log.writefile(), 1);
  EXPECT_EQ(read(backup(kNow + 1)), "full");
  EXPECT_EQ(read(path()), line("kept"));
}

TEST_F(Log, FileThatCannotBeOpenedAgainKeepsTheBuffer) {
  write(path(), "full");
  COTPLog log(path().c_str(), 4);
  ASSERT_EQ(log.writelog("kept"), 1);
  stream_faults.open = 2;
  EXPECT_EQ(log.writefile(), -1);
  EXPECT_EQ(log.stream, nullptr);
  EXPECT_EQ(read(backup(kNow)), "full");
  EXPECT_EQ(pthread_mutex_trylock(&log.file_mutex), 0);
  EXPECT_EQ(pthread_mutex_unlock(&log.file_mutex), 0);
  EXPECT_EQ(log.writefile(), 1);
  EXPECT_EQ(read(path()), line("kept"));
}

TEST_F(Log, BackupThatIsTheSameFileLeavesNoOldBytesBehind) {
  write(path(), "full");
  ASSERT_EQ(link(path().c_str(), backup(kNow).c_str()), 0);
  { EXPECT_EQ(COTPLog(path().c_str(), 4).writelog("new file"), 1); }
  EXPECT_EQ(read(backup(kNow)), "full");
  EXPECT_EQ(read(path()), line("new file"));
}

TEST_F(Log, LongestBackupNameIsUsed) {
  const std::string longest = path_of_length(241);  // and 10 digits, ".bak.log" and the NUL: 260
  write(longest, "full");
  { EXPECT_EQ(COTPLog(longest.c_str(), 4).writelog("new file"), 1); }
  EXPECT_EQ(read(longest + std::to_string(kNow) + ".bak.log"), "full");
  EXPECT_EQ(read(longest), line("new file"));
}

TEST_F(Log, BackupNameThatDoesNotFitIsAFailedRotation) {
  for (const std::size_t length : {std::size_t{242}, std::size_t{259}}) {
    const std::string too_long = path_of_length(length);
    write(too_long, "full");
    COTPLog log(too_long.c_str(), 4);
    ASSERT_EQ(log.writelog("kept"), 1);
    EXPECT_EQ(log.writefile(), -1);
    EXPECT_EQ(log.stream, nullptr);
    EXPECT_EQ(log.buffered, static_cast<int>(line("kept").size()));
    EXPECT_EQ(read(too_long), "full");
  }
}

// --- threads

TEST_F(Log, ManyThreadsLoseAndTearNothing) { write_from_many_threads(kNever, 200, "some words"); }

TEST_F(Log, ManyThreadsWithLongLinesLoseAndTearNothing) { write_from_many_threads(kNever, 200, std::string(900, 'x')); }

TEST_F(Log, ManyThreadsWithRotationLoseAndTearNothing) { write_from_many_threads(2000, 200, "some words"); }

TEST_F(Log, ManyThreadsWithAMaximumOfZeroLoseAndTearNothing) { write_from_many_threads(0, 50, "some words"); }

TEST_F(Log, ManyThreadsOnADiskThatFillsUpLoseAndTearNothing) {
  const FileSizeLimit limit(100);
  rlim_t allowed = 100;
  zelvan::test::on_sleep([&](unsigned long) { limit.set(allowed += 100); });  // only the holder of the file sleeps
  write_from_many_threads(kNever, 20, std::string(200, 'x'));
  EXPECT_GT(zelvan::test::sleeps().size(), 100U);
}
