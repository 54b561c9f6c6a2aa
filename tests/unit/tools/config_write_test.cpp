#include "zelvanctl/config_write.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>

#include "zelvanctl/failure.h"

using namespace zelvan::ctl;

namespace {

namespace fs = std::filesystem;

class ConfigWrite : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "zelvan-write-XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder_ = name;
    file_ = folder_ / "otp_conf.con";
  }
  void TearDown() override { fs::remove_all(folder_); }

  void write(const std::string& text) const { std::ofstream(file_) << text; }
  [[nodiscard]] std::string text() const { return read_bytes(file_); }
  [[nodiscard]] std::ptrdiff_t files() const {
    return std::distance(fs::directory_iterator(folder_), fs::directory_iterator());
  }
  void edit(const fs::path& path) const {
    edit_settings(path, text(), [](CConfigFile& file) { file.additem("s", "b", "2"); });
  }
  template <typename Action>
  ExitCode code_of(Action action) const {
    try {
      action();
    } catch (const Failure& failure) {
      return failure.code();
    }
    return kOk;
  }

  fs::path folder_;
  fs::path file_;
};

}  // namespace

TEST_F(ConfigWrite, KeepsCommentsAndOrder) {
  write("; head\n[s]\n; one\na=1\n; two\n[t]\nx=\n");
  edit(file_);
  EXPECT_EQ(text(), "; head\n[s]\n; one\na=1\n; two\nb=2\n[t]\nx=\n");
  EXPECT_EQ(files(), 1);
}

TEST_F(ConfigWrite, ALastCommentWithoutLineFeedDoesNotSwallowTheItem) {
  write("[s]\na=1\n; last");
  edit(file_);
  EXPECT_EQ(text(), "[s]\na=1\n; last\nb=2\n");
}

TEST_F(ConfigWrite, AHeaderCommentWithoutLineFeedDoesNotSwallowTheSection) {
  write("; all");
  edit(file_);
  EXPECT_EQ(text(), "; all\n[s]\nb=2\n");
}

TEST_F(ConfigWrite, KeepsTheMode) {
  write("[s]\n");
  fs::permissions(file_, fs::perms(0640));
  edit(file_);
  EXPECT_EQ(fs::status(file_).permissions(), fs::perms(0640));
}

TEST_F(ConfigWrite, FollowsLinks) {
  write("[s]\n");
  fs::create_symlink(file_, folder_ / "link");
  edit(folder_ / "link");
  EXPECT_TRUE(fs::is_symlink(folder_ / "link"));
  EXPECT_EQ(text(), "[s]\nb=2\n");
}

TEST_F(ConfigWrite, AFileThatChangedMeanwhileIsLeftAlone) {
  write("[s]\n");
  EXPECT_EQ(code_of([&] {
              edit_settings(file_, text(), [&](CConfigFile& file) {
                file.additem("s", "b", "2");
                write("[s]\nother=1\n");
              });
            }),
            kRefused);
  EXPECT_EQ(text(), "[s]\nother=1\n");
  EXPECT_EQ(files(), 1);
}

TEST_F(ConfigWrite, AWriteThatFailsLeavesTheFileAndNothingElse) {
  write("[s]\n");
  EXPECT_EQ(code_of([&] {
              edit_settings(file_, text(), [&](CConfigFile& file) {
                // The copy's place is taken by a folder, so that it cannot be opened for writing.
                for (const auto& entry : fs::directory_iterator(folder_)) {
                  if (entry.path() == file_) continue;
                  fs::remove(entry.path());
                  fs::create_directory(entry.path());
                }
                file.additem("s", "b", "2");
              });
            }),
            kUnreachable);
  EXPECT_EQ(text(), "[s]\n");
}

TEST_F(ConfigWrite, AFileThatChangedBeforeTheEditIsLeftAlone) {
  write("[s]\nother=1\n");
  EXPECT_EQ(code_of([&] { edit_settings(file_, "[s]\n", [](CConfigFile&) { FAIL(); }); }), kRefused);
  EXPECT_EQ(text(), "[s]\nother=1\n");
}

TEST_F(ConfigWrite, WhatIsNoRegularFileIsLeftAlone) {
  const fs::path pipe = folder_ / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(code_of([&] { edit_settings(pipe, "", [](CConfigFile&) { FAIL(); }); }), kRefused);
  EXPECT_TRUE(fs::is_fifo(pipe));
}

TEST_F(ConfigWrite, AMissingFileIsTold) {
  EXPECT_EQ(code_of([&] { (void)read_bytes(file_); }), kUnreachable);
}
