// What every command works with: the output, the settings, the database.  Settings and database are opened when a
// command first asks for them, so that commands that need neither work without.
#pragma once

#include <ctime>
#include <memory>
#include <string>

#include "zelvanctl/database.h"
#include "zelvanctl/engine.h"
#include "zelvanctl/next_attempt.h"
#include "zelvanctl/output.h"
#include "zelvanctl/records.h"
#include "zelvanctl/settings_file.h"

namespace zelvan::ctl {

class Context {
 public:
  // ---- set by the options of the command line
  std::string settings_path;  // --config; empty: beside the executable
  bool assume_yes = false;    // --yes
  bool show_secrets = false;  // --show-secrets
  std::string login;          // --login; empty: that of the settings file
  std::string password_file;  // --password-file; empty: ask, or read standard input

  // Set by a command that has shown its result and still does not end well.
  ExitCode exit_code = kOk;

  Output out;

  const SettingsFile& settings();
  // The data source with the login of the command line, else with that of the settings file.
  Database& database();
  // The data source with the login of the settings file, which is the server's.
  Database& server_database();
  const Engine& engine();
  Records& records();
  Rules rules();

  // Returns the user; throws Failure (kNotFound).
  User user(const std::string& name);
  // Returns the token of a user; throws Failure (kNotFound).
  Token token_of(const User& user);
  Token token(const std::string& serial);

  // Within a transaction: throws Failure (kRefused) unless the user is still there and has the same token, and keeps it
  // so until the transaction ends.
  void hold(const User& user);
  // Within a transaction: throws Failure (kRefused) unless the token is there and nobody has it, and keeps it.
  void hold_spare(const std::string& serial);

  // Asks before something is destroyed.  Goes on with --yes or when the person says yes; throws Failure (kRefused)
  // otherwise, also when there is nobody to ask.
  void confirm(const std::string& question) const;

 private:
  std::unique_ptr<SettingsFile> settings_;
  std::unique_ptr<Database> database_;  // null while it is the server's
  std::unique_ptr<Database> server_database_;
  std::unique_ptr<Records> records_;
};

}  // namespace zelvan::ctl
