// Turning the process into a daemon, and finding where its executable lies.
#pragma once

#include <string>

// Leaves the launcher: forks twice around setsid, closes the descriptors 0 to 255 (the standard streams are not
// reopened), clears the file mode mask, ignores SIGPIPE, and has SIGTERM and SIGINT set nexit for an orderly stop.
// The launcher's process ends with status 0, also when a fork failed.
// Returns the result of installing the SIGPIPE action: 0, or -1.  The working directory stays.
int init_daemon();

namespace zelvan {

// Result of executable_directory.
enum class DirectoryResult { found, link_unreadable, no_slash };

// Finds the folder of the running executable through /proc.
//   directory  out: the folder with its trailing slash, only when it was found
[[nodiscard]] DirectoryResult executable_directory(std::string& directory);

}  // namespace zelvan
