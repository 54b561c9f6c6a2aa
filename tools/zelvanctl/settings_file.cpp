#include "zelvanctl/settings_file.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "zelvanctl/failure.h"

namespace zelvan::ctl {
namespace {

const Setting& row(std::string_view key) {
  const auto found =
      std::ranges::find(kSettings, key, [](const Setting& setting) { return std::string_view(setting.key); });
  if (found == kSettings.end()) throw Failure(kFailed, fmt::format("{} is no setting of the server", key));
  return *found;
}

}  // namespace

std::filesystem::path settings_beside_executable() {
  std::error_code error;
  const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) throw Failure(kUnreachable, "cannot find my own executable: " + error.message());
  return executable.parent_path() / "config" / "otp_conf.con";
}

SettingsFile::SettingsFile(const std::filesystem::path& path) : path_(path), file_(std::make_unique<CConfigFile>()) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  const std::string advice = "; name the server's settings file with --config FILE";
  if (!std::filesystem::exists(status)) {
    throw Failure(kUnreachable, fmt::format("there is no settings file {}{}", path.string(), advice));
  }
  if (std::filesystem::is_directory(status)) {
    throw Failure(kUnreachable, fmt::format("{} is a folder, not a settings file{}", path.string(), advice));
  }
  if (file_->config_init(path.c_str()) != CONFIG_INIT_OK) {
    throw Failure(kUnreachable, fmt::format("the settings file {} cannot be read", path.string()));
  }
}

int SettingsFile::number(std::string_view key) const {
  const Setting& setting = row(key);
  return file_->getvalInt(setting.section, setting.key, setting.number);
}

void SettingsFile::database_login(DatabaseLogin& login) const {
  if (load_database_login(*file_, login)) return;
  std::array<char, kDatabaseLoginLimit + 1> value{};
  for (const char* key : {"otp_dsn", "otp_uid", "otp_pwd"}) {
    const Setting& setting = row(key);
    const int result = file_->getvalstr(setting.section, key, value.data(), setting.limit, nullptr);
    if (result == GETVAL_OK) continue;
    const std::string why = result == GETVAL_TOO_LONG ? fmt::format("is longer than {} characters", setting.limit)
                                                      : "is missing (a key must begin in the first column)";
    throw Failure(kUnreachable, fmt::format("{} in section [{}] of {} {}", key, setting.section, path_.string(), why));
  }
  explicit_bzero(value.data(), value.size());
}

std::string SettingsFile::log_path() const {
  LogSettings log;
  if (load_log_settings(*file_, log)) return log.path.data();
  throw Failure(kUnreachable, fmt::format("otp_logpath in {} is longer than {} characters: the server does not start",
                                          path_.string(), kLogPathLimit));
}

}  // namespace zelvan::ctl
