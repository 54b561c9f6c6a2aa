// A folder of its own for each test, which is the working directory while the test runs.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace zelvan::test {

class TempFolder : public testing::Test {
 protected:
  TempFolder() : before_(std::filesystem::current_path()) {
    std::string name = (std::filesystem::temp_directory_path() / "zelvan-log-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) std::abort();
    folder_ = name;
    std::filesystem::current_path(folder_);
  }
  ~TempFolder() override {
    std::filesystem::current_path(before_);
    std::filesystem::remove_all(folder_);
  }

  [[nodiscard]] std::string file(const std::string& name) const { return (folder_ / name).string(); }

  static std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  static void write(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

  [[nodiscard]] int files() const {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator(folder_), {}));
  }

  [[nodiscard]] const std::filesystem::path& folder() const { return folder_; }

 private:
  std::filesystem::path before_;
  std::filesystem::path folder_;
};

}  // namespace zelvan::test
