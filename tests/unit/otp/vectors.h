// Published vectors: the lines of tests/vectors/<file>, fields separated by "|", comment lines starting with "#".
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace vectors {

using Bytes = std::vector<unsigned char>;
using Row = std::vector<std::string>;

// The columns that every file begins with.
enum Column : std::size_t { kName = 0, kSource = 1, kFirst = 2 };

inline Row split(std::string_view line) {
  Row fields;
  for (;;) {
    const std::size_t end = line.find('|');
    fields.emplace_back(line.substr(0, end));
    if (end == std::string_view::npos) return fields;
    line.remove_prefix(end + 1);
  }
}

// The rows of `file`.  A file that gives other than `rows` rows of `columns` columns fails the test.
inline std::vector<Row> read(const std::string& file, std::size_t rows, std::size_t columns) {
  std::ifstream stream(std::string(ZELVAN_SOURCE_DIR "/tests/vectors/") + file);
  std::vector<Row> result;
  for (std::string line; std::getline(stream, line);) {
    if (line.empty() || line[0] == '#') continue;
    result.push_back(split(line));
    EXPECT_EQ(result.back().size(), columns) << file << ": " << line;
    result.back().resize(columns);
  }
  EXPECT_EQ(result.size(), rows) << file;
  return result;
}

inline Bytes from_hex(const std::string& text) {
  Bytes bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

inline Bytes bytes_of(std::string_view text) { return {text.begin(), text.end()}; }

}  // namespace vectors
