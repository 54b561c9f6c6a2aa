#include "zelvan_token/token_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>

#include "token_fixture.h"

namespace zelvan::token {
namespace {

using test::event_token;
using test::failure_of;
using testing::ElementsAre;

mode_t mode_of(const std::filesystem::path& path) {
  struct stat status {};
  EXPECT_EQ(0, ::lstat(path.c_str(), &status));
  return status.st_mode & 07777U;
}

// Changes a variable of the environment for one test.
class Variable {
 public:
  Variable(const char* name, const char* value) : name_(name) {
    if (const char* const before = std::getenv(name)) before_ = before;
    if (value != nullptr) {
      ::setenv(name, value, 1);
    } else {
      ::unsetenv(name);
    }
  }
  ~Variable() {
    if (before_) {
      ::setenv(name_, before_->c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  const char* name_;
  std::optional<std::string> before_;
};

class TokenFile : public test::Folder {
 protected:
  void write(const std::string& text, mode_t mode = 0600) const {
    std::ofstream(path_) << text;
    ASSERT_EQ(0, ::chmod(path_.c_str(), mode));
  }
  [[nodiscard]] ExitCode load_failure() const {
    return failure_of([&] { (void)load_token(path_); });
  }
};

TEST_F(TokenFile, ThatIsMissingIsNotFound) {
  EXPECT_EQ(kNotFound, load_failure());
  EXPECT_EQ(kNotFound, failure_of([&] { remove_token(path_, "", Damaged::allowed); }));
  EXPECT_TRUE(names().empty());
}

TEST_F(TokenFile, ThatIsCorruptIsSaidToBe) {
  for (const char* const text : {"", "{", "{}", "[]", "\xFF\xFE", "null"}) {
    write(text);
    EXPECT_EQ(kFileUnusable, load_failure()) << text;
  }
}

TEST_F(TokenFile, ThatIsTooLargeIsNotReadOn) {
  write(std::string(64 * 1024 + 1, ' '));
  EXPECT_EQ(kFileUnusable, load_failure());
}

TEST_F(TokenFile, ThatOthersMayReadIsNotTrusted) {
  save_token(path_, event_token());
  for (const mode_t mode : {0640U, 0604U, 0610U, 0602U, 0666U}) {
    ASSERT_EQ(0, ::chmod(path_.c_str(), mode));
    EXPECT_EQ(kFileUnusable, load_failure()) << std::oct << mode;
  }
  ASSERT_EQ(0, ::chmod(path_.c_str(), 0400));
  EXPECT_EQ(kOk, load_failure());
}

TEST_F(TokenFile, ThatBelongsToAnotherIsNotTrusted) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may give a file away";
  save_token(path_, event_token());
  ASSERT_EQ(0, ::chown(path_.c_str(), 12345, 12345));
  EXPECT_EQ(kFileUnusable, load_failure());
}

TEST_F(TokenFile, ThatIsNoPlainFileIsNotOpenedForLong) {
  ASSERT_EQ(0, ::mkfifo(path_.c_str(), 0600));
  EXPECT_EQ(kFileUnusable, load_failure());
  ASSERT_EQ(0, ::unlink(path_.c_str()));
  ASSERT_EQ(0, ::mkdir(path_.c_str(), 0700));
  EXPECT_EQ(kFileUnusable, load_failure());
}

TEST_F(TokenFile, ComesBackAsItWent) {
  save_token(path_, event_token());
  EXPECT_EQ("alice", load_token(path_).user);
  EXPECT_EQ(event_token().key.reveal(), load_token(path_).key.reveal());
}

TEST_F(TokenFile, IsOpenToItsOwnerOnly) {
  const mode_t before = ::umask(0);
  save_token(path_, event_token());
  (void)::umask(before);
  EXPECT_EQ(0600U, mode_of(path_));
}

TEST_F(TokenFile, LeavesNothingBesideIt) {
  save_token(path_, event_token());
  save_token(path_, event_token());
  EXPECT_THAT(names(), ElementsAre("alice.json"));
}

TEST_F(TokenFile, ReplacesASymbolicLinkNotItsTarget) {
  std::ofstream(folder_ / "target") << "precious";
  std::filesystem::create_symlink(folder_ / "target", path_);
  save_token(path_, event_token());
  EXPECT_EQ(8U, std::filesystem::file_size(folder_ / "target"));
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(path_)));
}

TEST_F(TokenFile, ThatIsASymbolicLinkIsNotRead) {
  save_token(folder_ / "target", event_token());
  std::filesystem::create_symlink("target", path_);
  EXPECT_EQ(kFileUnusable, load_failure());
  EXPECT_EQ(folder_ / "target", resolve_links(path_));
}

TEST_F(TokenFile, IsFoundBehindLinks) {
  std::filesystem::create_symlink("second", path_);
  std::filesystem::create_symlink(folder_ / "third", folder_ / "second");
  EXPECT_EQ(folder_ / "third", resolve_links(path_));
  EXPECT_EQ(folder_ / "third", resolve_links(folder_ / "third"));
  std::filesystem::create_symlink(path_, folder_ / "third");
  EXPECT_EQ(kFileUnusable, failure_of([&] { (void)resolve_links(path_); }));
}

TEST_F(TokenFile, WithASecondNameIsNotUsed) {
  save_token(path_, event_token());
  std::filesystem::create_hard_link(path_, folder_ / "second");
  EXPECT_EQ(kFileUnusable, load_failure());
}

TEST_F(TokenFile, TakesTheDraftsOfAKilledProcessAway) {
  const auto leave_drafts = [&] {
    for (const char* const name : {".alice.json.draft-aB3xY9", ".alice.json.draft-long123", ".alice.json.backup"}) {
      std::ofstream(folder_ / name) << "key";
    }
  };
  leave_drafts();
  save_token(path_, event_token());
  EXPECT_THAT(names(), ElementsAre(".alice.json.backup", ".alice.json.draft-long123", "alice.json"));
  leave_drafts();
  remove_token(path_, "", Damaged::refused);
  EXPECT_THAT(names(), ElementsAre(".alice.json.backup", ".alice.json.draft-long123"));
}

TEST_F(TokenFile, IsRehearsedWithoutATrace) {
  rehearse_save(path_);
  EXPECT_TRUE(names().empty());
  EXPECT_EQ(kFileUnusable, failure_of([&] { rehearse_save(folder_ / "no" / "x.json"); }));
}

class Replaceable : public TokenFile {
 protected:
  [[nodiscard]] ExitCode check(std::string_view user, Damaged damaged) const {
    return failure_of([&] { check_replaceable(path_, user, damaged); });
  }
};

TEST_F(Replaceable, IsWhatIsNotThere) { EXPECT_EQ(kOk, check("alice", Damaged::refused)); }

TEST_F(Replaceable, IsTheUsersTokenWhoeverMayReadIt) {
  save_token(path_, event_token());
  ASSERT_EQ(0, ::chmod(path_.c_str(), 0644));
  EXPECT_EQ(kOk, check("alice", Damaged::refused));
  EXPECT_EQ(kOk, check("", Damaged::refused));
}

TEST_F(Replaceable, IsNotAnothersToken) {
  save_token(path_, event_token());
  EXPECT_EQ(kUsage, check("bob", Damaged::allowed));
  EXPECT_EQ(kUsage, failure_of([&] { remove_token(path_, "bob", Damaged::allowed); }));
  EXPECT_TRUE(std::filesystem::exists(path_));
}

TEST_F(Replaceable, IsADamagedTokenWhereThatIsAllowed) {
  for (const std::string& text : {std::string(), std::string("notes"), std::string(64 * 1024 + 1, ' ')}) {
    write(text);
    EXPECT_EQ(kFileUnusable, check("alice", Damaged::refused)) << text.size();
    EXPECT_EQ(kOk, check("alice", Damaged::allowed)) << text.size();
  }
}

TEST_F(Replaceable, IsNoFileOfAnother) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may give a file away";
  save_token(path_, event_token());
  ASSERT_EQ(0, ::chown(path_.c_str(), 12345, 12345));
  EXPECT_EQ(kFileUnusable, check("alice", Damaged::allowed));
}

TEST_F(Replaceable, IsNothingButAPlainFile) {
  ASSERT_EQ(0, ::mkfifo(path_.c_str(), 0600));
  EXPECT_EQ(kFileUnusable, check("alice", Damaged::allowed));
  ASSERT_EQ(0, ::unlink(path_.c_str()));
  ASSERT_EQ(0, ::mkdir(path_.c_str(), 0700));
  EXPECT_EQ(kFileUnusable, check("alice", Damaged::allowed));
  path_ = folder_ / "new" / "";
  EXPECT_EQ(kFileUnusable, check("alice", Damaged::allowed));
  path_ = folder_ / "target";
  std::filesystem::create_symlink("nowhere", path_);
  EXPECT_EQ(kFileUnusable, check("alice", Damaged::allowed));
}

TEST_F(TokenFile, StaysWholeWhenTheNewOneCannotBeWritten) {
  SoftToken token = event_token();
  save_token(path_, token);
  token.next = 99;
  rlimit before{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &before));
  rlimit small = before;
  small.rlim_cur = 100;  // the file gets its first bytes, then no more
  (void)::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &small));
  const ExitCode failure = failure_of([&] { save_token(path_, token); });
  ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &before));
  (void)::signal(SIGXFSZ, SIG_DFL);
  EXPECT_EQ(kFileUnusable, failure);
  EXPECT_EQ(1U, load_token(path_).next);
  EXPECT_THAT(names(), ElementsAre("alice.json"));
}

TEST_F(TokenFile, CannotBeMadeInAFolderThatIsMissing) {
  EXPECT_EQ(kFileUnusable, failure_of([&] { save_token(folder_ / "no" / "x.json", event_token()); }));
}

TEST_F(TokenFile, IsAlwaysWholeForAReader) {
  save_token(path_, event_token());
  std::thread writer([&] {
    for (int i = 0; i < 200; ++i) save_token(path_, event_token());
  });
  ExitCode worst = kOk;
  for (int i = 0; i < 200; ++i) worst = std::max(worst, load_failure());
  writer.join();
  EXPECT_EQ(kOk, worst);
}

TEST_F(TokenFile, GoesWithItsLockFile) {
  save_token(path_, event_token());
  remove_token(path_, "alice", Damaged::refused);
  EXPECT_TRUE(names().empty());
}

TEST_F(TokenFile, MakesItsFolderForItsOwnerOnly) {
  const mode_t before = ::umask(0);
  make_folder_for(folder_ / "a" / "b" / "x.json");
  (void)::umask(before);
  EXPECT_EQ(0700U, mode_of(folder_ / "a"));
  EXPECT_EQ(0700U, mode_of(folder_ / "a" / "b"));
}

TEST_F(TokenFile, CannotLieBelowAFile) {
  std::ofstream(folder_ / "a") << "";
  EXPECT_EQ(kFileUnusable, failure_of([&] { make_folder_for(folder_ / "a" / "b" / "x.json"); }));
}

TEST_F(TokenFile, ListsTokensOnly) {
  for (const char* const name : {"b.json", "a.json", "a.json.lock", ".a.json.Xyz123", "notes.txt"}) {
    std::ofstream(folder_ / name) << "";
  }
  EXPECT_THAT(token_files(folder_), ElementsAre(folder_ / "a.json", folder_ / "b.json"));
  EXPECT_TRUE(token_files(folder_ / "missing").empty());
}

TEST(TokenFolder, FollowsTheEnvironment) {
  const Variable home("HOME", "/home/alice");
  {
    const Variable data("XDG_DATA_HOME", "/data");
    EXPECT_EQ("/data/zelvan-token", token_folder());
  }
  for (const char* const unusable : {"", "relative"}) {
    const Variable data("XDG_DATA_HOME", unusable);
    EXPECT_EQ("/home/alice/.local/share/zelvan-token", token_folder());
  }
}

TEST(TokenFolder, IsInTheHomeOfTheAccountWithoutAnEnvironment) {
  const Variable home("HOME", nullptr);
  const Variable data("XDG_DATA_HOME", nullptr);
  EXPECT_TRUE(token_folder().is_absolute());
}

class Locked : public test::Folder {
 protected:
  // How many descriptors of this process are the lock file.
  [[nodiscard]] int open_locks() const {
    int count = 0;
    std::error_code gone;  // the descriptor of the listing itself
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      if (std::filesystem::read_symlink(entry.path(), gone) == path_.string() + ".lock") ++count;
    }
    return count;
  }
};

TEST_F(Locked, KeepsOthersOut) {
  const FileLock lock(path_);
  EXPECT_EQ(kFileUnusable, failure_of([&] { const FileLock second(path_, 0); }));
}

TEST_F(Locked, OpensAtTheEndOfItsScope) {
  { const FileLock lock(path_); }
  EXPECT_EQ(kOk, failure_of([&] { const FileLock second(path_, 0); }));
}

TEST_F(Locked, HoldsBackWhoeverWaitsForARemovedLockFile) {
  auto first = std::make_unique<FileLock>(path_);
  std::atomic<bool> got = false;
  std::thread waiter([&] {
    FileLock second(path_);
    got = true;
    EXPECT_TRUE(std::filesystem::exists(path_.string() + ".lock"));
    EXPECT_EQ(kFileUnusable, failure_of([&] { const FileLock third(path_, 0); }));
  });
  while (open_locks() < 2) ::usleep(1000);
  EXPECT_FALSE(got);
  first.reset();  // there is no token, so the lock file goes
  waiter.join();
  EXPECT_TRUE(got);
}

TEST_F(Locked, LeavesNoLockFileWithoutAToken) {
  { const FileLock lock(path_); }
  EXPECT_TRUE(names().empty());
}

TEST_F(Locked, KeepsTheLockFileOfAToken) {
  save_token(path_, event_token());
  { const FileLock lock(path_); }
  EXPECT_THAT(names(), ElementsAre("alice.json", "alice.json.lock"));
}

TEST_F(Locked, KeepsALockFileThatHoldsSomethingOrIsNoFile) {
  std::ofstream(path_.string() + ".lock") << "mine";
  { const FileLock lock(path_); }
  EXPECT_THAT(names(), ElementsAre("alice.json.lock"));
  std::filesystem::remove(path_.string() + ".lock");
  ASSERT_EQ(0, ::mkfifo((path_.string() + ".lock").c_str(), 0600));
  { const FileLock lock(path_); }
  EXPECT_THAT(names(), ElementsAre("alice.json.lock"));
}

TEST_F(Locked, HoldsBackSignalsUntilTheEndOfItsScope) {
  sigset_t pending{};
  sigset_t blocked{};
  {
    const FileLock lock(path_);
    ASSERT_EQ(0, ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked));
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP}) EXPECT_EQ(1, sigismember(&blocked, number));
  }
  ASSERT_EQ(0, ::pthread_sigmask(SIG_BLOCK, nullptr, &pending));
  EXPECT_EQ(0, sigismember(&pending, SIGTERM));
}

TEST_F(Locked, DoesNotFollowASymbolicLink) {
  std::filesystem::create_symlink(folder_ / "elsewhere", path_.string() + ".lock");
  EXPECT_EQ(kFileUnusable, failure_of([&] { const FileLock lock(path_, 0); }));
  EXPECT_FALSE(std::filesystem::exists(folder_ / "elsewhere"));
}

}  // namespace
}  // namespace zelvan::token
