// The person at the keyboard: is there one, and what do they say?
#pragma once

#include <optional>
#include <string>

#include "zelvanctl/secret.h"

namespace zelvan::ctl {

// True when the descriptor is a terminal.
bool is_terminal(int descriptor);

// True when coloured text may be written to the descriptor: a terminal, no NO_COLOR in the environment (see
// no-color.org), and TERM is not "dumb".
bool colours_wanted(int descriptor);

// Reads a secret.  At a terminal it asks, without echo, and asks again to be sure; else it takes the first line of
// standard input.
//   what  names the secret, such as "PIN for alice"
// Throws Failure when there is no line, or the two answers differ.
Secret read_secret(const std::string& what);

// Reads a secret that a typing error does not spoil for good, such as a login: asks once, without echo, or takes the
// next line of standard input.  Returns nothing at the end of the input.
std::optional<Secret> read_secret_once(const std::string& what);

// Asks a question that "y" or "yes" answers; anything else, also the end of the input, is no.
bool ask_yes_no(const std::string& question);

}  // namespace zelvan::ctl
