#include "zelvanctl/config_command.h"

#include <fmt/core.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "zelvanctl/config_check.h"
#include "zelvanctl/config_keys.h"
#include "zelvanctl/config_write.h"
#include "zelvanctl/terminal.h"

namespace zelvan::ctl {
namespace {

constexpr int kDataSourcePatience = 10;  // seconds
constexpr const char* kHidden = "***";

struct CheckOptions {
  std::string folder;
};

struct NoOptions {};

struct KeyOptions {
  std::string key;
  std::string section;  // empty: the section in which the server looks for the key
  std::optional<std::string> value;
};

// The settings file as lines; the bytes are wiped, since some are secrets.
class FileText {
 public:
  explicit FileText(const std::filesystem::path& path) : bytes_(read_bytes(path)), lines_(bytes_) {}
  ~FileText() { explicit_bzero(bytes_.data(), bytes_.size()); }
  FileText(const FileText&) = delete;
  FileText& operator=(const FileText&) = delete;

  [[nodiscard]] const std::string& bytes() const { return bytes_; }
  [[nodiscard]] const ConfigLines& lines() const { return lines_; }

 private:
  std::string bytes_;
  ConfigLines lines_;
};

// ---- check

void check(Context& context, CheckOptions& options) {
  const Findings findings = check_configuration(context, working_folder(context.settings(), options.folder));
  const bool errors = has_errors(findings);
  const std::string file = context.settings().path().string();
  context.out.result({{"file", file}, {"ok", !errors}, {"findings", findings_json(findings)}}, findings_table(findings),
                     fmt::format("The settings are in order ({}).", printable(file)));
  if (errors) context.exit_code = kFailed;
}

// ---- list and get

// One setting as the server sees it.
struct View {
  std::string section;
  std::string key;
  std::optional<std::string> value;  // nothing: the server finds none
  std::string source;                // where the value comes from
  bool secret = false;
};

bool within_limit(const Setting& setting, const std::string& value) {
  return setting.kind == SettingKind::kNumber || value.size() <= static_cast<std::size_t>(setting.limit);
}

// The value of a line; nothing when it is too long for the server.
View view_of_line(const ConfigLine& line, const Setting& setting) {
  View view{line.section, line.key, {}, fmt::format("line {}", line.number), is_secret(setting)};
  if (within_limit(setting, line.value)) {
    view.value = setting.kind == SettingKind::kNumber ? fmt::format("{}", server_number(line.value)) : line.value;
  } else {
    view.source += ", too long";
  }
  return view;
}

View view_of(const ConfigLines& lines, const Setting& setting) {
  View view{setting.section, setting.key, {}, "missing", is_secret(setting)};
  if (const ConfigLine* line = lines.find(setting.section, setting.key)) {
    view = view_of_line(*line, setting);
  } else if (!is_demanded(setting)) {
    view.value = setting.kind == SettingKind::kNumber ? fmt::format("{}", setting.number) : setting.text;
    view.source = "default";
  }
  if (!is_read(lines, setting)) view.source += ", not read";
  return view;
}

View view_of_client(const ConfigLines& lines, const std::string& address) {
  const ConfigLine* line = lines.find(kShareSection, address);
  if (line == nullptr) return {kShareSection, address, {}, "missing", true};
  return view_of_line(*line, *find_setting(kShareSection, address));
}

std::vector<View> all_views(const ConfigLines& lines) {
  std::vector<View> views;
  for (const Setting& setting : kSettings) {
    if (setting.group != SettingGroup::kShare) views.push_back(view_of(lines, setting));
  }
  // In the order of the sections in the table of keys.
  std::ranges::stable_sort(views, {}, [](const View& view) {
    return std::ranges::find(kSettings, view.section, &Setting::section) - kSettings.begin();
  });
  for (const ConfigLine& line : lines.all()) {
    if (line.section != kShareSection || lines.find(kShareSection, line.key) != &line) continue;
    if (is_client_address(line.key)) views.push_back(view_of_line(line, *find_setting(kShareSection, line.key)));
  }
  return views;
}

std::string shown_value(const View& view, bool secrets) {
  if (!view.value) return "";
  return view.secret && !secrets ? kHidden : *view.value;
}

Json view_json(const View& view, bool secrets) {
  const Json value = view.value ? Json(shown_value(view, secrets)) : Json();
  return {{"section", view.section}, {"key", view.key}, {"value", value}, {"source", view.source}};
}

void list(Context& context, NoOptions&) {
  const FileText file(context.settings().path());
  Json values = Json::array();
  Table table({{"SECTION"}, {"KEY"}, {"VALUE"}, {"FROM"}});
  for (const View& view : all_views(file.lines())) {
    values.push_back(view_json(view, context.show_secrets));
    table.add({view.section, view.key, shown_value(view, context.show_secrets), view.source});
  }
  context.out.result(values, table, "");
}

// Returns the row that a person means; throws Failure (kUsage) with the nearest one.
const Setting& meant_setting(const KeyOptions& options) {
  if (is_client_address(options.key)) {
    if (options.section.empty() || options.section == kShareSection) return *find_setting(kShareSection, options.key);
  } else if (const Setting* setting = find_key(options.key)) {
    if (options.section.empty() || options.section == setting->section) return *setting;
    throw Failure(kUsage, fmt::format("{} belongs into section [{}]", setting->key, setting->section));
  }
  const Setting* near = nearest_key(options.key);
  throw Failure(kUsage, fmt::format("the server knows no key {}{}", printable(options.key),
                                    near != nullptr ? fmt::format("; did you mean {}?", near->key)
                                                    : "; a client is named by its IPv4 address"));
}

void get(Context& context, KeyOptions& options) {
  const Setting& setting = meant_setting(options);
  const FileText file(context.settings().path());
  const View view = setting.group == SettingGroup::kShare ? view_of_client(file.lines(), options.key)
                                                          : view_of(file.lines(), setting);
  if (!view.value) {
    throw Failure(kNotFound, fmt::format("{} in section [{}] is {}", options.key, setting.section,
                                         view.source == "missing" ? "missing" : "too long: the server finds none"));
  }
  context.out.result(view_json(view, context.show_secrets), context.show_secrets && view.secret
                                                                ? *view.value + "\n"
                                                                : printable(shown_value(view, false)) + "\n");
}

// ---- set and unset

void require_editable(const ConfigLines& lines) {
  const std::string obstacle = edit_obstacle(lines);
  if (!obstacle.empty()) throw Failure(kRefused, obstacle + "; nothing changed");
}

// Tells what the edit would take along, and asks.
void confirm_losses(const Context& context, const ConfigLines& lines) {
  const auto losses = edit_losses(lines);
  if (losses.empty()) return;
  for (const std::string& each : losses) context.out.warn(each);
  context.confirm("Writing the file changes more than the setting, see above. Go on?");
}

// Tells what is wrong after the edit and was not before.
void warn_of_new_findings(const Context& context, const ConfigLines& before, const ConfigLines& after) {
  // Line numbers move, so the texts alone are compared.
  const Findings old = check_settings(before);
  for (const Finding& each : check_settings(after)) {
    if (std::ranges::find(old, each.text, &Finding::text) != old.end()) continue;
    context.out.warn(fmt::format("{}: {}", each.where, each.text));
  }
}

void report_edit(Context& context, const FileText& before, const std::string& section, const std::string& key,
                 const std::string& done) {
  const FileText after(context.settings().path());
  warn_of_new_findings(context, before.lines(), after.lines());
  context.out.result({{"section", section}, {"key", key}, {"done", done}},
                     fmt::format("{} in section [{}] is {}. The server reads it at its next start.\n", key, section,
                                 done == "set" ? "set" : "removed"));
}

void require_number(const Setting& setting, const std::string& value) {
  char* end = nullptr;
  errno = 0;
  const long number = std::strtol(value.c_str(), &end, 10);
  const bool whole = !value.empty() && std::strchr(" \t\n\v\f\r+", value.front()) == nullptr && *end == '\0' &&
                     end != value.c_str() && errno == 0 && number >= INT_MIN && number <= INT_MAX;
  if (!whole) throw Failure(kUsage, fmt::format("{} takes a whole number", setting.key));
}

// Refuses what the server could not use or what would tear the file apart.
void require_value(const Setting& setting, const std::string& value) {
  if (value.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
    throw Failure(kUsage, "the value holds a line end or a NUL byte");
  }
  if (setting.kind == SettingKind::kNumber) require_number(setting, value);
  for (const ValueProblem& problem : value_problems(setting, value)) {
    if (problem.level == Finding::Level::error) throw Failure(kUsage, fmt::format("the value {}", problem.text));
  }
}

Secret wanted_value(const KeyOptions& options, const Setting& setting) {
  if (!is_secret(setting)) {
    if (options.value) return Secret(*options.value);
    throw Failure(kUsage, fmt::format("give a value: zelvanctl config set {} VALUE", options.key));
  }
  if (options.value) {
    throw Failure(kUsage, fmt::format("{} is a secret, and other users can see the command line: leave the value out; "
                                      "it is asked for, or read from standard input",
                                      options.key));
  }
  return read_secret(setting.group == SettingGroup::kShare ? "Shared secret of " + options.key : options.key);
}

void set(Context& context, KeyOptions& options) {
  const Setting& setting = meant_setting(options);
  const FileText before(context.settings().path());
  require_editable(before.lines());
  const Secret value = wanted_value(options, setting);
  require_value(setting, value.reveal());
  confirm_losses(context, before.lines());
  const char* key = options.key.c_str();
  edit_settings(context.settings().path(), before.bytes(), [&](CConfigFile& file) {
    // The item that lookups find may stand in a later section of that name.
    if (file.setnewvalue(setting.section, key, value.reveal().c_str()) != CONFIG_EDIT_OK) {
      (void)file.additem(setting.section, key, value.reveal().c_str());
    }
  });
  report_edit(context, before, setting.section, options.key, "set");
}

// The section from which a key is to go: with --section any one, so that stray keys can be removed.
std::string section_of(const KeyOptions& options) {
  if (options.section.empty()) return meant_setting(options).section;
  if (options.section.find_first_of("]\r\n") != std::string::npos) {
    throw Failure(kUsage, "a section name holds no ] and no line end");
  }
  return options.section;
}

bool is_secret_key(const std::string& section, const std::string& key) {
  const Setting* setting = find_setting(section, key);
  return setting != nullptr && is_secret(*setting);
}

void unset(Context& context, KeyOptions& options) {
  const std::string section = section_of(options);
  if (options.key == kCommentKey || options.key.empty()) {
    throw Failure(kUsage, "comments and indented lines are not removed by a key");
  }
  const FileText before(context.settings().path());
  if (before.lines().find(section, options.key) == nullptr) {
    throw Failure(kNotFound, fmt::format("{} is not in section [{}]", printable(options.key), printable(section)));
  }
  require_editable(before.lines());
  confirm_losses(context, before.lines());
  if (is_secret_key(section, options.key)) {
    context.confirm(fmt::format("Remove the secret {} from section [{}]?", options.key, section));
  }
  edit_settings(context.settings().path(), before.bytes(),
                [&](CConfigFile& file) { file.removeitem(section.c_str(), options.key.c_str()); });
  report_edit(context, before, section, options.key, "unset");
}

// ---- command line

void declare_key(CLI::App& verb, KeyOptions& options) {
  verb.add_option("key", options.key, "A key of the server, or a client's IPv4 address for its shared secret")
      ->required()
      ->type_name("KEY");
  verb.add_option("--section", options.section, "The section; by default the one in which the server looks for the key")
      ->type_name("NAME");
}

void register_reading(CLI::App& noun, Context& context) {
  add_verb<CheckOptions>(
      noun, context,
      {"check", "Tell what would make the server end silently or behave unexpectedly; changes nothing",
       "  zelvanctl config check\n"
       "  zelvanctl --config /opt/zelvan/config/otp_conf.con config check --directory /var/lib/zelvan --json\n"},
      [](CLI::App& verb, CheckOptions& options) {
        verb.add_option(
                "--directory", options.folder,
                "The folder in which the server is started; by default that of the running server, else this one")
            ->type_name("FOLDER");
      },
      check);
  add_verb<NoOptions>(
      noun, context,
      {"list", "Show every setting as the server sees it, defaults included",
       "  zelvanctl config list\n"
       "  zelvanctl config list --json | jq '.[] | select(.source == \"missing\")'\n"},
      [](CLI::App&, NoOptions&) {}, list);
  add_verb<KeyOptions>(noun, context,
                       {"get", "Show one setting as the server sees it",
                        "  zelvanctl config get radius_port\n"
                        "  zelvanctl config get 192.0.2.10 --show-secrets\n"},
                       declare_key, get);
}

void register_editing(CLI::App& noun, Context& context) {
  add_verb<KeyOptions>(
      noun, context,
      {"set", "Set a value; a password or shared secret is asked for, or read from standard input",
       "  zelvanctl config set otp_max_accum 3\n"
       "  zelvanctl config set 192.0.2.10\n"
       "  pwgen -s 24 1 | zelvanctl config set 192.0.2.10 --yes\n"},
      [](CLI::App& verb, KeyOptions& options) {
        declare_key(verb, options);
        verb.add_option("value", options.value, "The value; not for secrets")->type_name("VALUE");
      },
      set);
  add_verb<KeyOptions>(noun, context,
                       {"unset", "Remove a key, so that its default counts",
                        "  zelvanctl config unset otp_logpath\n"
                        "  zelvanctl config unset otp_dns --section DataBase\n"},
                       declare_key, unset);
}

}  // namespace

Findings check_configuration(Context& context, const WorkingFolder& folder) {
  const SettingsFile& settings = context.settings();
  const FileText file(settings.path());
  Findings findings = check_settings(file.lines());
  const auto append = [&findings](const Findings& more) { findings.insert(findings.end(), more.begin(), more.end()); };
  append(check_file_mode(settings.path()));
  append(check_logs(settings, folder));
  append(check_ports(settings, folder.server_runs));
  append(check_data_source(settings, kDataSourcePatience));
  return findings;
}

void register_config_command(CLI::App& program, Context& context) {
  CLI::App& noun = add_noun(program, {"config", "Check, show and edit the server's settings file",
                                      "  zelvanctl config check\n"
                                      "  zelvanctl config set radius_port 1645\n"});
  register_reading(noun, context);
  register_editing(noun, context);
}

}  // namespace zelvan::ctl
