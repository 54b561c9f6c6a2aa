// A settings file that lives as long as the test that wrote it.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <string_view>

namespace zelvan::test {

class TemporaryFile {
 public:
  explicit TemporaryFile(std::string_view text) {
    const int file = mkstemp(path_.data());
    EXPECT_GE(file, 0);
    EXPECT_EQ(write(file, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(file);
  }
  ~TemporaryFile() { unlink(path_.c_str()); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  const char* path() const { return path_.c_str(); }

 private:
  std::string path_ = "/tmp/zelvan_config_XXXXXX";
};

}  // namespace zelvan::test
