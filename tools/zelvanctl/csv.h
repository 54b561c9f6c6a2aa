// Comma-separated values.
//
// Source   RFC 4180; LF and CR LF end a line, and a byte order mark at the beginning is skipped.
// Threads  No state.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zelvan::ctl {

struct CsvLine {
  std::size_t number = 0;  // of the line in the text where the record begins, from 1
  std::vector<std::string> fields;
  std::string problem;  // why the record cannot be read; empty when it can
};

// Takes the text apart.  Empty lines are skipped.
std::vector<CsvLine> parse_csv(std::string_view text);

// Returns the field as it stands in a file: quoted when it needs to be.
std::string csv_field(std::string_view text);

// Returns the fields as one line, with its end.
std::string csv_line(const std::vector<std::string>& fields);

}  // namespace zelvan::ctl
