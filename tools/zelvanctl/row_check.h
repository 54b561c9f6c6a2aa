// What in a row the server would stumble over.
//
// Threads  No state: pure functions.
#pragma once

#include <string>
#include <vector>

#include "zelvanctl/records.h"

namespace zelvan::ctl {

struct Problem {
  std::string text;
  bool fatal;  // true: every attempt of the user is refused; false: something works otherwise than it seems
};

std::vector<Problem> user_problems(const User& user);
std::vector<Problem> token_problems(const Token& token);

}  // namespace zelvan::ctl
