// The server's settings file, as far as the tool needs it.
#pragma once

#include <array>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "config/ConfigFile.h"
#include "config/settings.h"

namespace zelvan::ctl {

// Returns where the server finds its settings: config/otp_conf.con in the folder of the executable, links followed.
std::filesystem::path settings_beside_executable();

class SettingsFile {
 public:
  // Reads the file.  Throws Failure (kUnreachable) when it is not there or cannot be read.
  explicit SettingsFile(const std::filesystem::path& path);

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  [[nodiscard]] const CConfigFile& file() const { return *file_; }

  // Returns a number as the server reads it, with the server's default.
  //   key  one of zelvan::kSettings
  [[nodiscard]] int number(std::string_view key) const;

  // Fills the login of the database.  Throws Failure (kUnreachable) with the key that is missing or too long.
  void database_login(DatabaseLogin& login) const;

  // Returns the path of the operation log as the server uses it: a relative one counts from the working folder of the
  // server.  Throws Failure when it is too long for the server.
  [[nodiscard]] std::string log_path() const;

 private:
  std::filesystem::path path_;
  std::unique_ptr<CConfigFile> file_;
};

}  // namespace zelvan::ctl
