#include "log/server_log.h"

#include <sys/stat.h>

#include "support/fake_clock.h"
#include "unit/log/stream_faults.h"
#include "unit/log/temp_folder.h"

using zelvan::test::stream_faults;

namespace {

class ServerLog : public zelvan::test::TempFolder {
 protected:
  void SetUp() override { zelvan::test::set_clock(1'700'000'000); }
};

}  // namespace

TEST_F(ServerLog, NullTextWritesNothing) {
  srv_log(nullptr);
  EXPECT_FALSE(std::filesystem::exists("srvlog.txt"));
}

TEST_F(ServerLog, LineIsDateSpaceTextAndLineFeed) {
  srv_log("server starting...");
  EXPECT_EQ(read("srvlog.txt"), "2023-11-14 22:13:20 server starting...\n");
}

TEST_F(ServerLog, LinesAreAppended) {
  write("srvlog.txt", "older\n");
  srv_log("");
  zelvan::test::advance_clock(1);
  srv_log("Zelvan down...");
  EXPECT_EQ(read("srvlog.txt"), "older\n2023-11-14 22:13:20 \n2023-11-14 22:13:21 Zelvan down...\n");
}

TEST_F(ServerLog, PercentSignsAreText) {
  srv_log("%s%n");
  EXPECT_EQ(read("srvlog.txt"), "2023-11-14 22:13:20 %s%n\n");
}

TEST_F(ServerLog, FileThatCannotBeCreatedIsIgnored) {
  stream_faults.open = 1;
  srv_log("lost");
  EXPECT_EQ(stream_faults.open, 0);
  EXPECT_EQ(files(), 0);
}

TEST_F(ServerLog, FolderOfThatNameIsIgnored) {
  ASSERT_EQ(mkdir("srvlog.txt", 0700), 0);
  srv_log("lost");
  EXPECT_TRUE(std::filesystem::is_empty("srvlog.txt"));
}

TEST_F(ServerLog, WorkingDirectoryThatIsGoneIsIgnored) {
  const std::string gone = file("gone");
  ASSERT_EQ(mkdir(gone.c_str(), 0700), 0);
  std::filesystem::current_path(gone);
  ASSERT_TRUE(std::filesystem::remove(gone));
  srv_log("lost");
  std::filesystem::current_path(folder());
  EXPECT_EQ(files(), 0);
}
