// The person at the keyboard, or the script behind standard input.
#pragma once

#include <string>

#include "zelvan_token/secret.h"

namespace zelvan::token {

// Reads a secret.  At a terminal it asks with `prompt`, without echo; else it takes one line of standard input, and no
// byte beyond it.
// Throws Failure (kUsage) when there is no line, (kRefused) when the user breaks off.
Secret read_secret(const std::string& prompt);

// Asks a question that "y" or "yes" answers; anything else, also the end of the input, is no.
// Throws Failure (kRefused) when standard input is no terminal.
bool confirm(const std::string& question);

// Writes a line for people to standard error.
void say(const std::string& text);

}  // namespace zelvan::token
