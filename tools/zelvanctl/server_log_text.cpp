#include "zelvanctl/server_log_text.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>

#include "zelvanctl/utc_time.h"

namespace zelvan::ctl {
namespace {

constexpr std::size_t kTimeLength = 19;
constexpr std::string_view kStarting = "server starting...";
constexpr std::string_view kDown = "Zelvan down...";

struct KnownLine {
  std::string_view text;
  std::string_view meaning;
  bool failure;
};

constexpr std::array kKnownLines{
    KnownLine{kStarting, "the server was started", false},
    KnownLine{"Zelvan Server stop.Get module path failed.", "/proc is not mounted, so it did not find its settings",
              true},
    KnownLine{"Zelvan server stop.Function CConfigFile::config_init failed.",
              "config/otp_conf.con beside the executable could not be opened", true},
    KnownLine{"Zelvan server stop.Get database connection params failed.",
              "otp_dsn, otp_uid or otp_pwd is missing or longer than 36 characters", true},
    KnownLine{"Zelvan server stop.Can not connect to database.",
              "the data source gave no connection in 11 attempts, 5 seconds apart", true},
    KnownLine{kDown, "the server ended: it was stopped, or its port was taken, or otp_logpath is too long", false},
};

ServerLogLine parse(std::string_view line) {
  ServerLogLine parsed;
  if (line.size() > kTimeLength && line[kTimeLength] == ' ' && parse_time(line.substr(0, kTimeLength))) {
    parsed.time = line.substr(0, kTimeLength);
    line.remove_prefix(kTimeLength + 1);
  }
  parsed.text = line;
  const auto known = std::ranges::find(kKnownLines, line, &KnownLine::text);
  if (known != kKnownLines.end()) {
    parsed.meaning = known->meaning;
    parsed.failure = known->failure;
  }
  return parsed;
}

}  // namespace

std::vector<ServerLogLine> last_server_lines(std::string_view log, std::size_t count) {
  std::vector<ServerLogLine> lines;
  while (!log.empty() && lines.size() < count) {
    if (log.ends_with('\n')) log.remove_suffix(1);
    const std::size_t feed = log.rfind('\n');
    const std::size_t start = feed == std::string_view::npos ? 0 : feed + 1;
    lines.insert(lines.begin(), parse(log.substr(start)));
    log = log.substr(0, start);
  }
  return lines;
}

std::optional<Finding> judge_server_log(const std::vector<ServerLogLine>& lines, bool server_runs) {
  if (lines.empty() || server_runs) return {};
  const ServerLogLine& last = lines.back();
  if (last.failure) return Finding{Finding::Level::error, "srvlog.txt", fmt::format("{}: {}", last.time, last.meaning)};
  if (last.text != kStarting) return {};
  return Finding{Finding::Level::error, "srvlog.txt",
                 fmt::format("{}: the server was started and has ended without a word: a mail setting that is demanded "
                             "is missing or too long (otp_mail_need is 1 unless set to 0), or it was killed",
                             last.time)};
}

}  // namespace zelvan::ctl
