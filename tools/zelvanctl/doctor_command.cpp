#include "zelvanctl/doctor_command.h"

#include <fmt/core.h>
#include <sys/timex.h>

#include <algorithm>
#include <functional>

#include "base/clock.h"
#include "zelvanctl/config_command.h"
#include "zelvanctl/config_write.h"
#include "zelvanctl/key_maker.h"
#include "zelvanctl/radius_exchange.h"
#include "zelvanctl/schema_check.h"
#include "zelvanctl/server_log_text.h"
#include "zelvanctl/utc_time.h"

namespace zelvan::ctl {
namespace {

using Level = Finding::Level;

constexpr std::size_t kLogLines = 3;
constexpr int kProbePatience = 5;               // seconds
constexpr std::time_t kOldest = 1'767'225'600;  // 2026-01-01: no clock that is right shows less

struct DoctorOptions {
  std::string folder;
};

// One step of the examination.
struct Step {
  std::string name;
  Findings findings;
  std::string remark;  // what was seen, when nothing is wrong
  bool skipped = false;
};

// ---- the steps

Step look_at_database(Context& context, bool reachable) {
  if (!reachable) return {"database", {}, "the data source is out of reach", true};
  return {"database", check_schema(context), fmt::format("as the server needs it ({})", context.engine().label)};
}

Step look_at_journal(Context& context, bool reachable) {
  if (!reachable || context.engine().name != "sqlite") return {"journal", {}, "no SQLite in reach", true};
  const auto rows = context.database().query("pragma journal_mode");
  const std::string mode = rows.empty() ? "" : rows.front().text(0).value_or("");
  if (mode == "wal") return {"journal", {}, "WAL"};
  return {"journal",
          {{Level::warning, "data source",
            fmt::format("the journal mode is {}: the server and this tool block each other; write JournalMode=WAL into "
                        "odbc.ini",
                        mode)}},
          ""};
}

Step look_at_server(const WorkingFolder& folder, bool answers) {
  if (folder.server_runs) return {"server", {}, fmt::format("runs in {}", folder.path.string())};
  if (answers) {
    return {"server",
            {{Level::warning, "server",
              "answers, but its process is hidden from this user: run this as the server's "
              "user or as root"}},
            ""};
  }
  return {"server",
          {{Level::warning, "server", "no running server with these settings was found, or this user may not see it"}},
          ""};
}

Step look_at_server_log(const WorkingFolder& folder, bool server_runs) {
  Step step{"start-up log", {}, ""};
  const std::filesystem::path path = folder.path / "srvlog.txt";
  std::error_code missing;
  if (!std::filesystem::exists(path, missing)) {
    step.remark = fmt::format("there is none in {} ({})", folder.path.string(), folder.words());
    return step;
  }
  const auto lines = last_server_lines(read_bytes(path), kLogLines);
  if (auto finding = judge_server_log(lines, server_runs)) step.findings.push_back(*std::move(finding));
  for (const ServerLogLine& line : lines) {
    step.remark += fmt::format("{}{} {}{}", step.remark.empty() ? "" : "\n", line.time, line.text,
                               line.meaning.empty() ? "" : " (" + line.meaning + ")");
  }
  return step;
}

Step look_at_clock() {
  const std::time_t now = now_seconds();
  Step step{"clock", {}, fmt::format("{} UTC", time_text(now))};
  if (now < kOldest) {
    step.findings.push_back(
        {Level::error, "clock", fmt::format("shows {}: time-stepped tokens never log in", time_text(now))});
  }
  timex status{};
  const int state = adjtimex(&status);
  if (state == TIME_ERROR || (status.status & STA_UNSYNC) != 0) {
    step.findings.push_back({Level::warning, "clock",
                             "the system does not keep it with a time server: time-stepped tokens drift away from it"});
  }
  return step;
}

Findings findings_of_probe(const Exchange& exchange, const std::string& port) {
  if (exchange.end == Exchange::End::refused) {
    return {{Level::error, port, "nothing listens there: the server does not run"}};
  }
  if (exchange.end == Exchange::End::silence) {
    return {{Level::error, port, "no reply: another program has the port, or the server cannot work"}};
  }
  if (exchange.reply.signature == Signature::wrong) {
    return {{Level::error, port,
             "the reply has a wrong signature: the running server has read another secret; restart it"}};
  }
  if (!is_unknown_user(exchange.reply)) {
    return {{Level::error, port,
             "an unknown user was not answered with USER NOT EXIST: the server's database is out of "
             "its reach; see the database above and restart the server"}};
  }
  return {};
}

// A login of a user that does not exist, which leaves no trace: the server can ask its database and answers.
Step probe_loopback(Context& context) {
  const auto port = static_cast<std::uint16_t>(context.settings().number("radius_port"));
  const std::string where = fmt::format("127.0.0.1 port {}", port);
  const auto secret = client_secret(context.settings().file(), "127.0.0.1");
  if (!secret) {
    return {"probe",
            {{Level::warning, "probe",
              "not made: section [share] has no secret for 127.0.0.1. Set one with: zelvanctl "
              "config set 127.0.0.1"}},
            ""};
  }
  RadiusServer server({"127.0.0.1", port});
  const std::string nobody = "nobody-" + make_serial();
  const Exchange exchange = server.ask({nobody, Secret("000000"), false}, *secret, kProbePatience);
  return {"probe", findings_of_probe(exchange, where),
          fmt::format("{} answers within {:.1f} ms", where, exchange.milliseconds)};
}

// A step that fails is a finding, and the others are still taken.
Step guarded(const std::string& name, const std::function<Step()>& look) {
  try {
    return look();
  } catch (const Failure& failure) {
    return {name, {{Level::error, name, failure.what()}}, ""};
  }
}

// ---- showing

std::string state_words(const Context& context, const Step& step) {
  if (step.skipped) return context.out.coloured("not looked at", Colour::yellow);
  if (step.findings.empty()) return context.out.coloured("ok", Colour::green);
  if (has_errors(step.findings)) return context.out.coloured("ERROR", Colour::red);
  return context.out.coloured("warning", Colour::yellow);
}

void show(const Context& context, const Step& step) {
  std::string text = fmt::format("{}: {}", step.name, state_words(context, step));
  const auto add = [&text](const std::string& line) { text += "\n    " + printable(line); };
  for (std::size_t start = 0; start < step.remark.size();) {
    const std::size_t end = std::min(step.remark.find('\n', start), step.remark.size());
    if (step.findings.empty() || step.name == "start-up log") add(step.remark.substr(start, end - start));
    start = end + 1;
  }
  for (const Finding& each : step.findings) {
    add(fmt::format("{}: {}: {}", level_word(each.level), each.where, each.text));
  }
  context.out.say(text);
}

Json step_json(const Step& step) {
  return {{"name", step.name},
          {"ok", !step.skipped && !has_errors(step.findings)},
          {"remark", step.remark},
          {"findings", findings_json(step.findings)}};
}

std::string verdict(const std::vector<Step>& steps) {
  std::ptrdiff_t errors = 0;
  std::ptrdiff_t warnings = 0;
  for (const Step& step : steps) {
    const auto of_step = std::ranges::count(step.findings, Level::error, &Finding::level);
    errors += of_step;
    warnings += std::ssize(step.findings) - of_step;
  }
  const auto plural = [](std::ptrdiff_t count, std::string_view word) {
    return fmt::format("{} {}{}", count, word, count == 1 ? "" : "s");
  };
  if (errors > 0) return fmt::format("Not healthy: {}, {}.", plural(errors, "error"), plural(warnings, "warning"));
  if (warnings > 0) return fmt::format("It works, with {}.", plural(warnings, "warning"));
  return "Healthy.";
}

void doctor(Context& context, DoctorOptions& options) {
  const WorkingFolder folder = working_folder(context.settings(), options.folder);
  DatabaseLogin login;
  const bool reachable = load_database_login(context.settings().file(), login) &&
                         check_data_source(context.settings(), kProbePatience).empty();
  // First, since a server that answers runs, also when this user may not see its process.
  Step probe = guarded("probe", [&] { return probe_loopback(context); });
  const bool answers = probe.findings.empty();
  const std::vector<std::pair<std::string, std::function<Step()>>> looks{
      {"settings",
       [&] {
         return Step{"settings", check_configuration(context, folder), context.settings().path()};
       }},
      {"database", [&] { return look_at_database(context, reachable); }},
      {"journal", [&] { return look_at_journal(context, reachable); }},
      {"server", [&] { return look_at_server(folder, answers); }},
      {"start-up log", [&] { return look_at_server_log(folder, folder.server_runs || answers); }},
      {"clock", [&] { return look_at_clock(); }},
      {"probe", [&] { return probe; }},
  };
  std::vector<Step> steps;
  Json list = Json::array();
  for (const auto& [name, look] : looks) {
    steps.push_back(guarded(name, look));
    show(context, steps.back());
    list.push_back(step_json(steps.back()));
  }
  const bool healthy = std::ranges::none_of(steps, [](const Step& step) { return has_errors(step.findings); });
  context.out.result({{"healthy", healthy}, {"verdict", verdict(steps)}, {"steps", list}}, verdict(steps) + "\n");
  if (!healthy) context.exit_code = kFailed;
}

}  // namespace

void register_doctor_command(CLI::App& program, Context& context) {
  const auto options = std::make_shared<DoctorOptions>();
  CLI::App* command = program.add_subcommand("doctor", "Run every check and a login over loopback, and give a verdict");
  command->footer(
      "Looks at settings, database, server, start-up log and clock, and sends one login of a user that does not "
      "exist,\n"
      "which leaves no trace. The exit code is 0 when nothing is wrong or there are only warnings, else 1.\n"
      "\n"
      "Examples:\n"
      "  zelvanctl doctor\n"
      "  zelvanctl doctor --json | jq -r '.steps[].findings[] | \"\\(.level) \\(.where): \\(.what)\"'\n");
  command
      ->add_option("--directory", options->folder,
                   "The folder in which the server is started; by default that of the running server, else this one")
      ->type_name("FOLDER");
  command->callback([&context, options] { doctor(context, *options); });
}

}  // namespace zelvan::ctl
