// The road from main to the receive loop.
#pragma once

#include <string_view>

namespace zelvan {

// Exit status of the process.  Nobody sees it after the fork; the start-up log is the only report.
enum exit_status : int { EXIT_NO_DIRECTORY = -1, EXIT_DONE = 0 };

// Runs the server from the first line of the start-up log to the last: daemonises, loads the settings, connects to the
// database and serves until it is told to stop.  Returns an exit_status.
[[nodiscard]] int run();

// Runs the server in the process as it is: everything of run() behind finding the executable's folder.
//   directory  the folder that holds config/otp_conf.con, with its trailing slash
// Returns an exit_status.
[[nodiscard]] int serve(std::string_view directory);

}  // namespace zelvan
