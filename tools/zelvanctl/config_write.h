// Writing the settings file so that a failure leaves it as it was.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "config/ConfigFile.h"

namespace zelvan::ctl {

// Returns the bytes of a file.  Throws Failure (kUnreachable).
std::string read_bytes(const std::filesystem::path& path);

// Edits a settings file: a copy beside it is edited, written to the disk, and put in its place, with its mode and
// owner; links are followed to the file that they mean.
//   before  the bytes that the caller has looked at; when the file holds others by now, nothing is changed
//   edit    changes the settings in memory
// Edits of the files of one folder wait for each other.  Throws Failure: kRefused when the file has changed, is no
// regular file or its owner cannot be kept, kUnreachable when it cannot be written.
void edit_settings(const std::filesystem::path& path, const std::string& before,
                   const std::function<void(CConfigFile&)>& edit);

}  // namespace zelvan::ctl
