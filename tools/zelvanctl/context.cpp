#include "zelvanctl/context.h"

#include <fmt/core.h>
#include <unistd.h>

#include "zelvanctl/terminal.h"

namespace zelvan::ctl {

const SettingsFile& Context::settings() {
  if (!settings_) {
    settings_ = std::make_unique<SettingsFile>(settings_path.empty() ? settings_beside_executable()
                                                                     : std::filesystem::path(settings_path));
  }
  return *settings_;
}

Database& Context::database() {
  if (!database_) {
    DatabaseLogin login;
    settings().database_login(login);
    database_ = std::make_unique<Database>(login.dsn.data(), login.uid.data(), login.pwd.data());
  }
  return *database_;
}

const Engine& Context::engine() { return engine_of(database().dbms_name()); }

Records& Context::records() {
  if (!records_) records_ = std::make_unique<Records>(database(), engine());
  return *records_;
}

Rules Context::rules() { return {settings().number("otp_wnd"), settings().number("otp_max_accum")}; }

User Context::user(const std::string& name) {
  if (auto user = records().find_user(name)) return *user;
  throw Failure(kNotFound, fmt::format("there is no user {}", printable(name)));
}

Token Context::token_of(const User& user) {
  if (!user.serial) throw Failure(kNotFound, fmt::format("user {} has no token", printable(user.name)));
  return token(*user.serial);
}

Token Context::token(const std::string& serial) {
  if (auto token = records().find_token(serial)) return *token;
  throw Failure(kNotFound, fmt::format("there is no token {}", printable(serial)));
}

void Context::confirm(const std::string& question) const {
  if (assume_yes) return;
  if (!is_terminal(STDIN_FILENO)) throw Failure(kRefused, printable(question) + " Confirm with --yes.");
  if (!ask_yes_no(printable(question))) throw Failure(kRefused, "nothing changed");
}

}  // namespace zelvan::ctl
