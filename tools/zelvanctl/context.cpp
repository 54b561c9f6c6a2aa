#include "zelvanctl/context.h"

#include <fmt/core.h>
#include <unistd.h>

#include <fstream>

#include "zelvanctl/terminal.h"

namespace zelvan::ctl {
namespace {

// The first line of a file; a login that needs no password has an empty one.
Secret first_line_of(const std::string& name) {
  std::ifstream file(name);
  std::string line;
  if (!std::getline(file, line) && !file.eof()) {
    throw Failure(kUsage, fmt::format("cannot read the password file {}", name));
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  Secret password(line);
  explicit_bzero(line.data(), line.size());
  return password;
}

Secret read_login_password(const Context& context) {
  if (!context.password_file.empty()) return first_line_of(context.password_file);
  return read_secret_once("Password of " + printable(context.login) + " at the database").value_or(Secret{});
}

}  // namespace

const SettingsFile& Context::settings() {
  if (!settings_) {
    settings_ = std::make_unique<SettingsFile>(settings_path.empty() ? settings_beside_executable()
                                                                     : std::filesystem::path(settings_path));
  }
  return *settings_;
}

Database& Context::database() {
  if (login.empty()) return server_database();
  if (!database_) {
    DatabaseLogin server;
    settings().database_login(server);
    const Secret password = read_login_password(*this);
    database_ = std::make_unique<Database>(server.dsn.data(), login.c_str(), password.reveal().c_str());
  }
  return *database_;
}

Database& Context::server_database() {
  if (!server_database_) {
    DatabaseLogin server;
    settings().database_login(server);
    server_database_ = std::make_unique<Database>(server.dsn.data(), server.uid.data(), server.pwd.data());
  }
  return *server_database_;
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

void Context::hold(const User& user) {
  const auto present = records().hold_user(user.name);
  if (present && present->serial == user.serial) return;
  throw Failure(kRefused, fmt::format("user {} was {} by someone else meanwhile; nothing changed", printable(user.name),
                                      present ? "given another token" : "removed"));
}

void Context::hold_spare(const std::string& serial) {
  if (!records().hold_token(serial)) {
    throw Failure(kRefused,
                  fmt::format("token {} was removed by someone else meanwhile; nothing changed", printable(serial)));
  }
  if (const auto owner = records().find_owner(serial)) {
    throw Failure(kRefused, fmt::format("token {} belongs to user {}", printable(serial), printable(owner->name)));
  }
}

void Context::confirm(const std::string& question) const {
  if (assume_yes) return;
  if (!is_terminal(STDIN_FILENO)) throw Failure(kRefused, printable(question) + " Confirm with --yes.");
  if (!ask_yes_no(printable(question))) throw Failure(kRefused, "nothing changed");
}

}  // namespace zelvan::ctl
