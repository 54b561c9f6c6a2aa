// A working directory that lives as long as the test: the server's files are relative to where it runs.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace zelvan::test {

class TemporaryFolder {
 public:
  TemporaryFolder() {
    EXPECT_NE(mkdtemp(path_.data()), nullptr);
    std::filesystem::current_path(path_);
  }
  ~TemporaryFolder() {
    std::filesystem::current_path(before_);
    std::filesystem::remove_all(path_);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  // With a trailing slash.
  [[nodiscard]] std::string path() const { return path_ + "/"; }

  // Writes a file of that name in the folder, with the folders on the way to it.
  void write(const std::filesystem::path& name, std::string_view text) const {
    const std::filesystem::path file = std::filesystem::path(path_) / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << text;
  }

  // Returns the lines of a file in the folder; none when there is no such file.
  [[nodiscard]] std::vector<std::string> lines(const std::filesystem::path& name) const {
    std::vector<std::string> all;
    std::ifstream file(std::filesystem::path(path_) / name);
    for (std::string line; std::getline(file, line);) all.push_back(line);
    return all;
  }

 private:
  std::filesystem::path before_ = std::filesystem::current_path();
  std::string path_ = "/tmp/zelvan_server_XXXXXX";
};

// Returns the start-up log of the folder without the times.
inline std::vector<std::string> startup_log(const TemporaryFolder& folder) {
  constexpr std::size_t kTimeAndSpace = 20;
  std::vector<std::string> messages;
  for (const std::string& line : folder.lines("srvlog.txt")) messages.push_back(line.substr(kTimeAndSpace));
  return messages;
}

}  // namespace zelvan::test
