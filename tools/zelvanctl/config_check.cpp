#include "zelvanctl/config_check.h"

#include <fmt/core.h>

#include <algorithm>
#include <map>

#include "zelvanctl/config_keys.h"

namespace zelvan::ctl {
namespace {

using Level = Finding::Level;
using Kind = ConfigLine::Kind;

std::string where_of(const ConfigLine& line, std::string_view name = {}) {
  return name.empty() ? fmt::format("line {}", line.number) : fmt::format("line {}, {}", line.number, name);
}

// Goes through the file once from top to bottom.
class LineCheck {
 public:
  explicit LineCheck(const ConfigLines& lines) : lines_(lines) {}

  Findings take() {
    if (lines_.byte_order_mark()) {
      add(Level::error, "line 1", "begins with a byte order mark, so that its first line is no section: save without");
    }
    for (const ConfigLine& line : lines_.all()) look_at(line);
    return std::move(findings_);
  }

 private:
  void add(Level level, std::string where, std::string text) {
    findings_.push_back({level, std::move(where), std::move(text)});
  }

  void look_at(const ConfigLine& line) {
    if (line.has_nul) add(Level::warning, where_of(line), "holds a NUL byte, at which the line ends for the server");
    if (line.continues) {
      // What is left of a cut line may be the rest of a secret: nothing of it is shown.
      if (line.number != last_cut_) {
        add(Level::error, where_of(line),
            fmt::format("is longer than {} bytes: the rest counts as a line of its own", kConfigLineLimit));
      }
      last_cut_ = line.number;
      return;
    }
    if (line.kind == Kind::section) look_at_section(line);
    if (line.kind == Kind::item) look_at_item(line);
  }

  void look_at_section(const ConfigLine& line) {
    const std::string where = where_of(line, "[" + line.section + "]");
    if (!line.in_section) {
      add(Level::warning, where, "has no name: its settings are not read");
      return;
    }
    if (!line.closed) add(Level::warning, where, "has no closing ]");
    const auto [first, is_first] = sections_.emplace(line.section, line.number);
    if (!is_first) {
      add(Level::warning, where,
          fmt::format("is there since line {}: of a key in both the one in the first counts", first->second));
    } else if (!is_section(line.section)) {
      const std::string meant = nearest_section(line.section);
      add(Level::warning, where,
          meant.empty() ? "is no section of the server: nothing in it is read"
                        : fmt::format("is no section of the server; nothing in it is read. Did you mean [{}]? Blanks "
                                      "and letter case count",
                                      meant));
    }
  }

  void look_at_item(const ConfigLine& line) {
    if (line.key.starts_with('#')) {
      add(Level::warning, where_of(line), "begins with #, which is no comment here; use ; in the first column");
      return;
    }
    if (!line.has_equals) {
      // A secret whose = was forgotten would stand in the key.
      add(Level::warning, where_of(line), "has no =: it sets nothing");
      return;
    }
    if (!line.in_section) {
      add(Level::warning, where_of(line, line.key), "stands before the first section and is not read");
    } else if (line.indented) {
      add(line.section == kShareSection ? Level::error : Level::warning, where_of(line, line.key),
          "is indented and never found: move it to the first column");
    } else if (const Setting* setting = find_setting(line.section, line.key)) {
      look_at_known(line, *setting);
    } else {
      look_at_unknown(line);
    }
  }

  void look_at_known(const ConfigLine& line, const Setting& setting) {
    const ConfigLine* first = lines_.find(line.section, line.key);
    if (first != &line) {
      add(Level::warning, where_of(line, line.key),
          fmt::format("is there since line {}: that one counts, this one does not", first->number));
      return;
    }
    if (setting.group == SettingGroup::kShare && !is_client_address(line.key)) {
      look_at_client_name(line);
      return;
    }
    const bool read = is_read(lines_, setting);
    for (const ValueProblem& problem : value_problems(setting, line.value)) {
      add(read ? problem.level : Level::warning, where_of(line, line.key),
          read ? problem.text : problem.text + " (not read with the other settings as they are)");
    }
  }

  void look_at_client_name(const ConfigLine& line) {
    if (const Setting* setting = find_key(trimmed(line.key))) {
      add(Level::warning, where_of(line, line.key), belongs_elsewhere(*setting));
    } else if (is_client_address(trimmed(line.key))) {
      add(Level::error, where_of(line, line.key), "has a blank at an end of its key and is never found");
    } else {
      add(Level::error, where_of(line, line.key),
          "is no IPv4 address in dotted form, such as 192.0.2.10: no client has it");
    }
  }

  static std::string belongs_elsewhere(const Setting& setting) {
    return fmt::format("belongs into section [{}]; here it is not read", setting.section);
  }

  void look_at_unknown(const ConfigLine& line) {
    const std::string where = where_of(line, line.key);
    const bool section_told = !is_section(line.section) && !nearest_section(line.section).empty();
    if (find_setting(line.section, trimmed(line.key)) != nullptr) {
      add(Level::warning, where, "has a blank or tab at an end of its key and is never found");
    } else if (const Setting* setting = find_key(line.key)) {
      if (!section_told) add(Level::warning, where, belongs_elsewhere(*setting));
    } else if (is_client_address(line.key)) {
      add(Level::error, where, fmt::format("belongs into section [{}]; here it is not read", kShareSection));
    } else if (const Setting* near = nearest_key(line.key)) {
      add(Level::warning, where,
          fmt::format("is no key of the server. Did you mean {} in section [{}]?", near->key, near->section));
    } else if (is_section(line.section)) {
      add(Level::warning, where, "is no key of the server");
    }
  }

  const ConfigLines& lines_;
  Findings findings_;
  std::map<std::string, std::size_t> sections_;  // name and line of its first header
  std::size_t last_cut_ = 0;
};

std::string effect_of_missing(const Setting& setting) {
  if (setting.group == SettingGroup::kDatabaseLogin) {
    return "is missing: the server ends at its start, with \"Get database connection params failed.\" in srvlog.txt";
  }
  return setting.group == SettingGroup::kMail
             ? "is missing: the server ends at its start without a word; set it, or set otp_mail_need to 0"
             : "is missing: the server ends at its start without a word; set it, or set smtp_auth_need to 0";
}

void check_missing(const ConfigLines& lines, Findings& findings) {
  for (const Setting& setting : kSettings) {
    if (!is_demanded(setting) || !is_read(lines, setting) || lines.find(setting.section, setting.key) != nullptr) {
      continue;
    }
    findings.push_back(
        {Level::error, fmt::format("[{}] {}", setting.section, setting.key), effect_of_missing(setting)});
  }
  if (server_number(lines, "otp_mail_need") == 1 && lines.find("mail", "otp_mail_need") == nullptr) {
    findings.push_back(
        {Level::warning, "[mail] otp_mail_need",
         "is missing and counts as 1: mail is wanted, and the mail settings are demanded; write 0 or 1"});
  }
}

// What holds for the secrets as a whole.
void check_clients(const ConfigLines& lines, Findings& findings) {
  bool any = false;
  for (const ConfigLine& line : lines.all()) {
    any = any || (lines.find(kShareSection, line.key) == &line && is_client_address(line.key) &&
                  line.value.size() <= static_cast<std::size_t>(kShareLimit));
  }
  if (!any) {
    findings.push_back({Level::error, fmt::format("[{}]", kShareSection),
                        "holds no secret that can be used: no client gets an answer"});
  }
  if (const ConfigLine* line = lines.find(kShareSection, kShareCatchAllKey)) {
    findings.push_back({Level::warning, where_of(*line, line->key),
                        "serves every address that has no line of its own; give each client its own line if you can"});
  }
}

}  // namespace

int server_number(const ConfigLines& lines, std::string_view key) {
  const Setting* setting = find_key(key);
  if (setting == nullptr) return 0;
  const ConfigLine* line = lines.find(setting->section, key);
  return line != nullptr ? server_number(line->value) : setting->number;
}

bool is_read(const ConfigLines& lines, const Setting& setting) {
  const auto mail = [&] { return server_number(lines, "otp_mail_need") != 0; };
  switch (setting.group) {
    case SettingGroup::kMail:
      return mail();
    case SettingGroup::kMailLogin:
      return mail() && server_number(lines, "smtp_auth_need") != 0;
    case SettingGroup::kLog:
      return server_number(lines, "otp_logmode") == 1;
    default:
      return true;
  }
}

bool is_demanded(const Setting& setting) {
  return setting.kind == SettingKind::kText && setting.text == nullptr && setting.group != SettingGroup::kShare;
}

Findings check_settings(const ConfigLines& lines) {
  Findings findings = LineCheck(lines).take();
  check_missing(lines, findings);
  check_clients(lines, findings);
  return findings;
}

}  // namespace zelvan::ctl
