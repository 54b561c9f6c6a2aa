// What in a settings file would make the server end, or behave otherwise than the file seems to say.
//
// Threads  Pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "config/settings.h"
#include "zelvanctl/config_lines.h"
#include "zelvanctl/finding.h"

namespace zelvan::ctl {

// Returns everything odd in the file.  No finding shows a value that may be secret.
Findings check_settings(const ConfigLines& lines);

// A value that the server takes in another way than it is meant.
struct ValueProblem {
  Finding::Level level;
  std::string text;
};

// Returns what is wrong with a value of a key; nothing when it is as it should be.
std::vector<ValueProblem> value_problems(const Setting& setting, const std::string& value);

// Returns a number as the server reads it: text that is none is 0, what follows the digits is ignored.
int server_number(const std::string& value);

// Returns the number that counts for the server: that of the file, else the default.
int server_number(const ConfigLines& lines, std::string_view key);

// True when the server reads the key with these settings; the mail settings, for example, only when mail is wanted.
bool is_read(const ConfigLines& lines, const Setting& setting);

// True when the server does not start, or ends at once, without the key.
bool is_demanded(const Setting& setting);

}  // namespace zelvan::ctl
