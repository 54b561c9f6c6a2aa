// The start-up log in words.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zelvanctl/finding.h"

namespace zelvan::ctl {

struct ServerLogLine {
  std::string time;      // as written, UTC; empty when the line has another form
  std::string text;      // as written
  std::string meaning;   // empty when the text is none of the server's
  bool failure = false;  // the server ended because something was wrong
};

// Returns the last lines of a start-up log, oldest first.
std::vector<ServerLogLine> last_server_lines(std::string_view log, std::size_t count);

// Returns what the last line tells about a server that runs or does not.
std::optional<Finding> judge_server_log(const std::vector<ServerLogLine>& lines, bool server_runs);

}  // namespace zelvan::ctl
