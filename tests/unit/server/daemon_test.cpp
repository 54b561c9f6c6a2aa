#include "server/daemon.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "base/exit_flag.h"
#include "server/startup.h"
#include "unit/server/temporary_folder.h"

namespace {

std::optional<std::string> link_text;  // what readlink finds in place of the truth; empty: it fails

}  // namespace

extern "C" {
ssize_t __real_readlink(const char* path, char* target, std::size_t capacity);
ssize_t __wrap_readlink(const char* path, char* target, std::size_t capacity) {
  if (!link_text) return __real_readlink(path, target, capacity);
  EXPECT_EQ(path, "/proc/" + std::to_string(getpid()) + "/exe");
  if (link_text->empty()) return -1;
  return static_cast<ssize_t>(link_text->copy(target, capacity));
}
}

namespace {

using testing::ElementsAre;

// Makes a descriptor that the daemon keeps: 256 or above.
int keep(int descriptor) {
  const int kept = fcntl(descriptor, F_DUPFD, 300);
  EXPECT_GE(kept, 300);
  (void)close(descriptor);
  return kept;
}

// Runs `life` in a process that becomes a daemon in it, and returns what it reports.  The test waits for the launcher,
// which must end with status 0 and say nothing, and then for the end of the report.
std::string report_of(const std::function<std::string()>& life) {
  int report[2];
  EXPECT_EQ(pipe(report), 0);
  const int writing = keep(report[1]);
  const pid_t launcher = fork();
  if (launcher == 0) {
    const std::string text = life();
    (void)!write(writing, text.data(), text.size());
    _exit(3);
  }
  (void)close(writing);
  int status = -1;
  EXPECT_EQ(waitpid(launcher, &status, 0), launcher);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);

  std::string text(256, '\0');
  std::size_t length = 0;
  for (ssize_t count = 1; count > 0; length += static_cast<std::size_t>(std::max<ssize_t>(count, 0))) {
    count = read(report[0], text.data() + length, text.size() - length);
  }
  (void)close(report[0]);
  text.resize(length);
  return text;
}

// What the daemon finds, as "yes" or "no".
std::string daemon_says(const std::function<bool()>& question) {
  return report_of([&] {
    const int result = init_daemon();
    return result == 0 && question() ? "yes" : "no";
  });
}

bool is_open(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

}  // namespace

TEST(Daemon, LivesInASessionThatItDoesNotLead) {
  const pid_t test_session = getsid(0);
  const pid_t test = getpid();
  EXPECT_EQ(daemon_says([&] {
              return getsid(0) != test_session && getsid(0) != getpid() && getpgrp() == getsid(0) && getppid() != test;
            }),
            "yes");
}

TEST(Daemon, ClosesTheDescriptors0To255AndNoOther) {
  for (const int descriptor : {200, 255, 256}) ASSERT_EQ(dup2(STDERR_FILENO, descriptor), descriptor);
  EXPECT_EQ(daemon_says([] {
              for (int descriptor = 0; descriptor <= 255; ++descriptor) {
                if (is_open(descriptor)) return false;
              }
              return is_open(256);
            }),
            "yes");
  for (const int descriptor : {200, 255, 256}) (void)close(descriptor);
}

TEST(Daemon, ClearsTheFileModeMask) {
  EXPECT_EQ(daemon_says([] { return umask(0) == 0; }), "yes");
}

TEST(Daemon, IgnoresBrokenPipes) {
  EXPECT_EQ(daemon_says([] {
              struct sigaction action {};
              return sigaction(SIGPIPE, nullptr, &action) == 0 && action.sa_handler == SIG_IGN && raise(SIGPIPE) == 0;
            }),
            "yes");
}

TEST(Daemon, TerminationAndInterruptSetTheExitFlag) {
  for (const int signal : {SIGTERM, SIGINT}) {
    EXPECT_EQ(daemon_says([signal] { return nexit == 0 && raise(signal) == 0 && nexit == 1; }), "yes");
  }
}

TEST(Daemon, LeavesOtherSignalsAlone) {
  EXPECT_EQ(daemon_says([] {
              return std::ranges::all_of(std::array{SIGHUP, SIGUSR1, SIGUSR2, SIGQUIT, SIGALRM}, [](int signal) {
                struct sigaction action {};
                return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_DFL;
              });
            }),
            "yes");
}

TEST(Daemon, KeepsTheWorkingDirectory) {
  const zelvan::test::TemporaryFolder folder;
  const std::string before = std::filesystem::current_path();
  EXPECT_EQ(daemon_says([&] { return std::filesystem::current_path() == before; }), "yes");
}

TEST(ExecutableDirectory, IsTheFolderOfThisProgramWithItsSlash) {
  link_text.reset();
  std::string directory;
  ASSERT_EQ(zelvan::executable_directory(directory), zelvan::DirectoryResult::found);
  EXPECT_EQ(directory, std::filesystem::read_symlink("/proc/self/exe").parent_path().string() + "/");
}

TEST(ExecutableDirectory, LinkThatCannotBeReadIsReported) {
  link_text = "";
  std::string directory = "before";
  EXPECT_EQ(zelvan::executable_directory(directory), zelvan::DirectoryResult::link_unreadable);
  EXPECT_EQ(directory, "before");
}

TEST(ExecutableDirectory, LinkWithoutSlashIsReported) {
  link_text = "zelvan";
  std::string directory = "before";
  EXPECT_EQ(zelvan::executable_directory(directory), zelvan::DirectoryResult::no_slash);
  EXPECT_EQ(directory, "before");
}

TEST(ExecutableDirectory, EndsBehindTheLastSlash) {
  std::string directory;
  link_text = "/opt/otp/bin/zelvan";
  ASSERT_EQ(zelvan::executable_directory(directory), zelvan::DirectoryResult::found);
  EXPECT_EQ(directory, "/opt/otp/bin/");
  link_text = "/zelvan";
  ASSERT_EQ(zelvan::executable_directory(directory), zelvan::DirectoryResult::found);
  EXPECT_EQ(directory, "/");
}

TEST(ExecutableDirectory, LongLinkIsReadUpTo260Characters) {
  std::string directory;
  link_text = "/" + std::string(258, 'd') + "/zelvan";
  ASSERT_EQ(zelvan::executable_directory(directory), zelvan::DirectoryResult::found);
  EXPECT_EQ(directory, "/" + std::string(258, 'd') + "/");
  link_text = "/" + std::string(259, 'd') + "/zelvan";
  ASSERT_EQ(zelvan::executable_directory(directory), zelvan::DirectoryResult::found);
  EXPECT_EQ(directory, "/");
}

namespace {

// Runs the whole start-up; there is no settings file beside this program.
std::string run_daemon(std::optional<std::string> link) {
  link_text = std::move(link);
  return report_of([] { return std::to_string(zelvan::run()); });
}

}  // namespace

TEST(Run, WritesTheFirstLineWhereItWasLaunchedAndGoesOnInTheDaemon) {
  const zelvan::test::TemporaryFolder folder;
  EXPECT_EQ(run_daemon(std::nullopt), "0");
  EXPECT_THAT(zelvan::test::startup_log(folder),
              ElementsAre("server starting...", "Zelvan server stop.Function CConfigFile::config_init failed."));
}

TEST(Run, SaysThatItsOwnLinkCannotBeRead) {
  const zelvan::test::TemporaryFolder folder;
  EXPECT_EQ(run_daemon(""), "-1");
  EXPECT_THAT(zelvan::test::startup_log(folder),
              ElementsAre("server starting...", "Zelvan Server stop.Get module path failed."));
}

TEST(Run, EndsSilentlyWhenItsLinkHasNoFolder) {
  const zelvan::test::TemporaryFolder folder;
  EXPECT_EQ(run_daemon("zelvan"), "-1");
  EXPECT_THAT(zelvan::test::startup_log(folder), ElementsAre("server starting..."));
}

TEST(Run, LooksForTheSettingsUnderTheFolderOfItsExecutable) {
  const zelvan::test::TemporaryFolder folder;
  folder.write("bin/config/otp_conf.con", "");
  EXPECT_EQ(run_daemon(folder.path() + "bin/zelvan"), "0");
  EXPECT_THAT(zelvan::test::startup_log(folder),
              ElementsAre("server starting...", "Zelvan server stop.Get database connection params failed."));
}
