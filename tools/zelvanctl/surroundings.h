// What around the settings file the server would stumble over: file mode, log folder, ports, data source.
#pragma once

#include <filesystem>
#include <string>

#include "zelvanctl/finding.h"
#include "zelvanctl/settings_file.h"

namespace zelvan::ctl {

// The folder from which the server's relative paths count.
struct WorkingFolder {
  std::filesystem::path path;
  bool certain = false;                     // false: nothing tells, and the present folder was taken
  bool server_runs = false;                 // a server with these settings was found
  [[nodiscard]] std::string words() const;  // how the folder was found
};

// Returns the folder of the running server, else `given`, else the present folder.
WorkingFolder working_folder(const SettingsFile& settings, const std::string& given);

// Looks at owner and mode of the settings file, which holds secrets.
Findings check_file_mode(const std::filesystem::path& path);

// Looks whether the operation log and the start-up log can be written.
Findings check_logs(const SettingsFile& settings, const WorkingFolder& folder);

// Looks whether the server's ports are free, or taken by the server itself.
Findings check_ports(const SettingsFile& settings, bool server_runs);

// Tries to connect to the data source, in a process of its own: some drivers wait without end.
Findings check_data_source(const SettingsFile& settings, int seconds);

}  // namespace zelvan::ctl
