#include "zelvanctl/finding.h"

#include <algorithm>

namespace zelvan::ctl {

void error(Findings& findings, std::string where, std::string text) {
  findings.push_back({Finding::Level::error, std::move(where), std::move(text)});
}

void warning(Findings& findings, std::string where, std::string text) {
  findings.push_back({Finding::Level::warning, std::move(where), std::move(text)});
}

std::string level_word(Finding::Level level) { return level == Finding::Level::error ? "error" : "warning"; }

bool has_errors(const Findings& findings) {
  return std::ranges::any_of(findings, [](const Finding& each) { return each.level == Finding::Level::error; });
}

Json findings_json(const Findings& findings) {
  Json list = Json::array();
  for (const Finding& each : findings) {
    list.push_back({{"level", level_word(each.level)}, {"where", each.where}, {"what", each.text}});
  }
  return list;
}

Table findings_table(const Findings& findings) {
  Table table({{"LEVEL"}, {"WHERE"}, {"WHAT"}});
  for (const Finding& each : findings) table.add({level_word(each.level), each.where, each.text});
  return table;
}

}  // namespace zelvan::ctl
