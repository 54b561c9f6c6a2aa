// What a check found.
#pragma once

#include <string>
#include <vector>

#include "zelvanctl/output.h"

namespace zelvan::ctl {

struct Finding {
  enum class Level { error, warning };  // error: the server cannot work, or not for some user
  Level level;
  std::string where;  // table, table.column, line, key, or what else it is about
  std::string text;
};

using Findings = std::vector<Finding>;

// Add a finding.
void error(Findings& findings, std::string where, std::string text);
void warning(Findings& findings, std::string where, std::string text);

// Returns "error" or "warning".
std::string level_word(Finding::Level level);

// True when one of the findings is an error.
bool has_errors(const Findings& findings);

Json findings_json(const Findings& findings);
Table findings_table(const Findings& findings);

}  // namespace zelvan::ctl
