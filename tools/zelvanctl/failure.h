// How a command ends: exit codes, and the exception that carries one to main.
#pragma once

#include <stdexcept>
#include <string>

namespace zelvan::ctl {

// Exit codes of the program; docs/zelvanctl.md explains them to script writers.
enum ExitCode : int {
  kOk = 0,
  kFailed = 1,       // something went wrong, or a check found problems
  kUsage = 2,        // the command line or an input value is wrong; nothing was touched
  kNotFound = 3,     // no such user or token
  kRefused = 4,      // exists already, not in the right state, or the confirmation is missing
  kUnreachable = 5,  // the settings file or the database cannot be used
};

// Ends the command with a message for people and an exit code.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string& message) : std::runtime_error(message), code_(code) {}
  [[nodiscard]] ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

}  // namespace zelvan::ctl
