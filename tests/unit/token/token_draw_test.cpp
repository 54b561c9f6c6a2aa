#include "zelvan_token/draw.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <set>

#include "token_fixture.h"
#include "zelvan_token/token_file.h"

namespace zelvan::token {
namespace {

using test::failure_of;
using test::kServerClock;
using testing::ElementsAre;

constexpr int kProcesses = 4;
constexpr int kDrawsEach = 25;

class DrawFromFile : public test::Folder {
 protected:
  // Draws in a process of its own, which writes the counters to a file; returns its id.
  [[nodiscard]] pid_t draw_in_a_process(int number) const {
    const pid_t process = ::fork();
    if (process != 0) return process;
    std::ofstream out(folder_ / ("drawn" + std::to_string(number)));
    for (int i = 0; i < kDrawsEach; ++i) out << draw_from_file(path_, 0).draw.counter << "\n";
    out.close();
    ::_exit(out ? 0 : 1);
  }

  [[nodiscard]] std::multiset<std::uint64_t> drawn() const {
    std::multiset<std::uint64_t> counters;
    for (int i = 0; i < kProcesses; ++i) {
      std::ifstream in(folder_ / ("drawn" + std::to_string(i)));
      for (std::uint64_t counter = 0; in >> counter;) counters.insert(counter);
    }
    return counters;
  }
};

TEST_F(DrawFromFile, NeedsAToken) {
  EXPECT_EQ(kNotFound, failure_of([&] { (void)draw_from_file(path_, 0); }));
  EXPECT_TRUE(names().empty());
}

TEST_F(DrawFromFile, StoresTheNextCounterFirst) {
  save_token(path_, test::event_token());
  EXPECT_EQ(1U, draw_from_file(path_, 0).draw.counter);
  EXPECT_EQ(2U, load_token(path_).next);
  EXPECT_EQ(2U, draw_from_file(path_, 0).draw.counter);
}

TEST_F(DrawFromFile, LeavesTheFileAloneWhenItSaysWait) {
  SoftToken token = test::timed_token();
  token.next += 2;
  save_token(path_, token);
  const auto before = std::filesystem::last_write_time(path_);
  EXPECT_EQ(60, draw_from_file(path_, kServerClock).draw.wait);
  EXPECT_EQ(before, std::filesystem::last_write_time(path_));
}

TEST_F(DrawFromFile, GivesNoCounterWhileAnotherKeepsTheLock) {
  save_token(path_, test::event_token());
  const pid_t other = ::fork();
  if (other == 0) {
    const FileLock lock(path_);
    std::ofstream(folder_ / "locked") << "";
    ::pause();
    ::_exit(0);
  }
  while (!std::filesystem::exists(folder_ / "locked")) ::usleep(1000);
  EXPECT_EQ(kFileUnusable, failure_of([&] { const FileLock lock(path_, 0); }));
  ::kill(other, SIGKILL);
  ASSERT_EQ(other, ::waitpid(other, nullptr, 0));
  EXPECT_EQ(1U, draw_from_file(path_, 0).draw.counter);
}

TEST_F(DrawFromFile, GivesEachCounterToOneProcess) {
  save_token(path_, test::event_token());
  std::vector<pid_t> processes;
  for (int i = 0; i < kProcesses; ++i) processes.push_back(draw_in_a_process(i));
  for (const pid_t process : processes) {
    int status = -1;
    ASSERT_EQ(process, ::waitpid(process, &status, 0));
    EXPECT_EQ(0, status);
  }
  std::multiset<std::uint64_t> expected;
  for (std::uint64_t counter = 1; counter <= kProcesses * kDrawsEach; ++counter) expected.insert(counter);
  EXPECT_EQ(expected, drawn());
}

}  // namespace
}  // namespace zelvan::token
