#include "zelvanctl/audit_command.h"

#include <fmt/core.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>

#include "base/clock.h"
#include "base/sleep.h"
#include "zelvanctl/audit_text.h"
#include "zelvanctl/catalogue.h"
#include "zelvanctl/server_process.h"
#include "zelvanctl/utc_time.h"

namespace zelvan::ctl {
namespace {

namespace fs = std::filesystem;

constexpr unsigned long kPollMilliseconds = 300;

struct AuditOptions {
  std::string user;
  std::string since;
  bool failed = false;
  bool follow = false;
  std::string folder;
};

using Sink = std::function<void(const AuditEvent&)>;

// ---- where events come from

// One view over what happened; read() hands on what is new since the last call.
class Source {
 public:
  virtual ~Source() = default;
  virtual void read(const Sink& sink) = 0;
};

// The operation log.  The file is kept open, so that nothing is missed when the server moves it aside.
class LogSource : public Source {
 public:
  explicit LogSource(fs::path path) : path_(std::move(path)) {}

  void read(const Sink& sink) override {
    if (!file_) open_log();
    if (first_) {
      first_ = false;
      for (const fs::path& file : log_files(path_)) {
        if (!is_open_file(file)) read_whole(file, sink);
      }
    }
    read_on(sink);
    while (file_ && !is_open_file(path_) && fs::exists(path_)) {
      file_.reset();
      open_log();
      read_on(sink);
    }
  }

 private:
  struct Close {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
  };

  void open_log() {
    file_.reset(std::fopen(path_.c_str(), "re"));
    if (!file_ && errno != ENOENT) {
      throw Failure(kUnreachable, fmt::format("cannot read {}: {}", path_.string(), std::strerror(errno)));
    }
    rest_.clear();
  }

  [[nodiscard]] bool is_open_file(const fs::path& path) const {
    struct stat open_status {};
    struct stat status {};
    return file_ && fstat(fileno(file_.get()), &open_status) == 0 && stat(path.c_str(), &status) == 0 &&
           open_status.st_ino == status.st_ino && open_status.st_dev == status.st_dev;
  }

  static void read_whole(const fs::path& path, const Sink& sink) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) sink(parse_log_line(line));
  }

  // Reads the whole lines that have come; the beginning of one that is still being written waits in rest_.
  void read_on(const Sink& sink) {
    if (!file_) return;
    std::clearerr(file_.get());
    for (int c = 0; (c = std::getc(file_.get())) != EOF;) {
      if (c != '\n') {
        rest_ += static_cast<char>(c);
        continue;
      }
      sink(parse_log_line(rest_));
      rest_.clear();
    }
  }

  fs::path path_;
  std::unique_ptr<std::FILE, Close> file_;
  std::string rest_;
  bool first_ = true;
};

// The rows of commonloginfo.
class TableSource : public Source {
 public:
  TableSource(Database& database, const Engine& engine, std::optional<std::time_t> since)
      : database_(database),
        engine_(engine),
        order_(row_order(database, engine)),
        last_(since ? time_text(*since) : "0001-01-01 00:00:00") {}

  void read(const Sink& sink) override {
    const auto rows = database_.query(
        fmt::format("select {}, operator, remark, remoteip from commonloginfo where optime >= {} order by optime{}",
                    date_text(engine_, "optime"), engine_.date_value, order_),
        {last_});
    // Rows of the last second seen come again.
    std::size_t skip = shown_;
    for (const Row& row : rows) {
      const std::string time = row.text(0).value_or("");
      if (time == last_ && skip > 0) {
        --skip;
        continue;
      }
      shown_ = time == last_ ? shown_ + 1 : 1;
      last_ = time;
      sink(audit_row(time, row.text(1).value_or(""), row.text(2).value_or(""), row.text(3).value_or("")));
    }
  }

 private:
  // The rest of "order by optime": what numbers the rows of one second, if anything does.
  static std::string row_order(Database& database, const Engine& engine) {
    if (engine.name == "sqlite") return ", rowid";
    for (const ColumnDescription& column : table_columns(database, engine, "commonloginfo")) {
      if (column.name == "id") return ", id";
    }
    return {};
  }

  Database& database_;
  const Engine& engine_;
  std::string order_;
  std::string last_;       // time of the last row shown
  std::size_t shown_ = 0;  // rows of that time shown
};

// The path of the log: a relative one counts from the working folder of the server.
fs::path log_path(Context& context, const AuditOptions& options) {
  fs::path path = context.settings().log_path();
  if (path.is_absolute()) return path;
  if (!options.folder.empty()) return options.folder / path;
  if (const auto folder = server_folder(context.settings().path())) return *folder / path;
  return path;
}

std::unique_ptr<Source> open_source(Context& context, const AuditOptions& options, std::optional<std::time_t> since) {
  if (context.settings().number("otp_logmode") != 1) {
    return std::make_unique<TableSource>(context.database(), context.engine(), since);
  }
  const fs::path path = log_path(context, options);
  if (!options.follow && log_files(path).empty()) {
    throw Failure(kUnreachable, fmt::format("there is no log {}; its path counts from the folder in which the server "
                                            "was started: name that with --directory",
                                            path.string()));
  }
  if (log_files(path).empty()) {
    context.out.warn(
        fmt::format("there is no log {} yet; its path counts from the folder in which the server was "
                    "started: name that with --directory",
                    path.string()));
  }
  return std::make_unique<LogSource>(path);
}

// ---- showing

Colour colour_of(Outcome outcome) {
  switch (outcome) {
    case Outcome::success:
      return Colour::green;
    case Outcome::failure:
      return Colour::red;
    case Outcome::update_failed:
      return Colour::yellow;
    case Outcome::other:
      break;
  }
  return Colour::none;
}

std::string event_line(const Output& out, const AuditEvent& event) {
  // Padded before it is coloured, since colour codes take no room.
  const std::string outcome =
      out.coloured(fmt::format("{:<12}", outcome_word(event.outcome)), colour_of(event.outcome));
  const std::string rest = event.outcome == Outcome::other ? event.text : event.client;
  std::string line =
      fmt::format("{:<19}  {}  {:<19}  {}", printable(event.time), outcome, printable(event.user), printable(rest));
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

Json event_json(const AuditEvent& event) {
  return {{"time", event.time},
          {"outcome", outcome_word(event.outcome)},
          {"user", event.user},
          {"client", event.client},
          {"text", event.text}};
}

[[noreturn]] void follow(Context& context, Source& source, const AuditFilter& filter) {
  while (true) {
    source.read([&](const AuditEvent& event) {
      if (!filter.wants(event)) return;
      if (context.out.json()) {
        context.out.json_line(event_json(event));
      } else {
        context.out.say(event_line(context.out, event));
      }
    });
    otp_sleep(kPollMilliseconds);
  }
}

void audit(Context& context, AuditOptions& options) {
  AuditFilter filter{options.user, {}, options.failed};
  if (!options.since.empty()) {
    filter.since = parse_moment(options.since, now_seconds());
    if (!filter.since) throw Failure(kUsage, fmt::format("--since {} is no time", options.since));
  }
  const auto source = open_source(context, options, filter.since);
  if (options.follow) follow(context, *source, filter);
  Json list = Json::array();
  std::string text;
  source->read([&](const AuditEvent& event) {
    if (!filter.wants(event)) return;
    if (context.out.json()) {
      list.push_back(event_json(event));
    } else {
      text += event_line(context.out, event) + "\n";
    }
  });
  context.out.result(list, text.empty() ? "Nothing happened.\n" : text);
}

}  // namespace

void register_audit_command(CLI::App& program, Context& context) {
  const auto options = std::make_shared<AuditOptions>();
  CLI::App* audit_command = program.add_subcommand("audit", "Show who logged in and who was refused");
  audit_command->footer(
      "Reads the operation log with the files that were moved aside (otp_logmode 1), or the table commonloginfo.\n"
      "The server holds its newest log line back until the next one comes. All times are UTC.\n"
      "\n"
      "Examples:\n"
      "  zelvanctl audit --user alice --since 2h\n"
      "  zelvanctl audit --failed --since '2026-01-31 08:00:00' --json\n"
      "  zelvanctl audit --follow\n");
  audit_command->add_option("--user", options->user, "Only this user");
  audit_command
      ->add_option("--since", options->since, "Only from then on: 90s, 15m, 2h, 7d, 2w, or YYYY-MM-DD[ HH:MM:SS]")
      ->type_name("TIME");
  audit_command->add_flag("--failed", options->failed, "Leave out what was accepted");
  audit_command->add_flag("--follow", options->follow, "Go on showing what comes, until interrupted");
  audit_command
      ->add_option("--directory", options->folder,
                   "The folder in which the server was started; by default that of the running server, else this one")
      ->type_name("FOLDER");
  audit_command->callback([&context, options] { audit(context, *options); });
}

}  // namespace zelvan::ctl
