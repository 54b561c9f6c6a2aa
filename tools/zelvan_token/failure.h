// How a command ends: exit codes, and the exception that carries one to main.
#pragma once

#include <stdexcept>
#include <string>

namespace zelvan::token {

// Exit codes of the program; docs/zelvan-token.md explains them to script writers.
enum ExitCode : int {
  kOk = 0,
  kFailed = 1,        // something else went wrong
  kUsage = 2,         // the command line is wrong; nothing was touched
  kNotFound = 3,      // no such token on this machine
  kRefused = 4,       // the server refused, or the confirmation is missing
  kNoAnswer = 5,      // no answer from the server, or no way to it
  kMalformed = 6,     // the answer makes no sense, or names a token that this program cannot compute
  kFileUnusable = 7,  // the token file cannot be read, written or trusted
  kTooSoon = 8        // no fresh code before the next time step
};

// Ends the command with a message for people and an exit code.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string& message) : std::runtime_error(message), code_(code) {}
  [[nodiscard]] ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

}  // namespace zelvan::token
