// The running server.
#pragma once

#include <filesystem>
#include <optional>

namespace zelvan::ctl {

// Returns the working folder of the running server that uses this settings file, from which its relative paths count;
// nothing when none is found, or when this user may not look.
std::optional<std::filesystem::path> server_folder(const std::filesystem::path& settings);

}  // namespace zelvan::ctl
