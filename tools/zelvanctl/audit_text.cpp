#include "zelvanctl/audit_text.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <utility>

#include "zelvanctl/utc_time.h"

namespace zelvan::ctl {
namespace {

constexpr std::string_view kSucceeded = " auth succeeded.";
constexpr std::string_view kRefusedText = " auth failed.Request from:";
constexpr std::string_view kUpdateFailed = "Update userinfo failed.";
constexpr std::string_view kNamed = "Username:";

// Takes the three messages of the server apart; any other text stays as it is.
void read_message(std::string_view text, AuditEvent& event) {
  // From the end: a user name may hold the words of a message.
  if (text.ends_with(kSucceeded)) {
    event.outcome = Outcome::success;
    event.user = text.substr(0, text.size() - kSucceeded.size());
  } else if (const auto at = text.rfind(kRefusedText); at != text.npos) {
    event.outcome = Outcome::failure;
    event.user = text.substr(0, at);
    event.client = text.substr(at + kRefusedText.size());
  } else if (text.starts_with(kUpdateFailed)) {
    event.outcome = Outcome::update_failed;
    std::string_view rest = text.substr(kUpdateFailed.size());
    if (!rest.starts_with(kNamed)) return;
    rest.remove_prefix(kNamed.size());
    if (rest.ends_with('.')) rest.remove_suffix(1);
    event.user = rest;
  }
}

// The stamp in the name of a file that was moved aside, or nothing.
std::optional<std::int64_t> stamp_of(std::string_view name, std::string_view log_name) {
  constexpr std::string_view kEnding = ".bak.log";
  if (!name.starts_with(log_name) || !name.ends_with(kEnding)) return {};
  if (name.size() <= log_name.size() + kEnding.size()) return {};
  const std::string_view digits = name.substr(log_name.size(), name.size() - log_name.size() - kEnding.size());
  std::int64_t stamp = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), stamp);
  if (error != std::errc{} || end != digits.data() + digits.size()) return {};
  return stamp;
}

}  // namespace

bool AuditFilter::wants(const AuditEvent& event) const {
  if (!user.empty() && event.user != user) return false;
  if (failed_only && event.outcome == Outcome::success) return false;
  if (!since) return true;
  const auto time = parse_time(event.time);
  return time && *time >= *since;
}

std::string_view outcome_word(Outcome outcome) {
  switch (outcome) {
    case Outcome::success:
      return "accepted";
    case Outcome::failure:
      return "refused";
    case Outcome::update_failed:
      return "not recorded";
    case Outcome::other:
      break;
  }
  return "other";
}

AuditEvent parse_log_line(std::string_view line) {
  AuditEvent event;
  std::string_view text = line;
  if (const auto tab = line.find('\t'); tab != line.npos && parse_time(line.substr(0, tab))) {
    event.time = line.substr(0, tab);
    text = line.substr(tab + 1);
  }
  event.text = text;
  read_message(text, event);
  return event;
}

AuditEvent audit_row(std::string_view time, std::string_view user, std::string_view remark, std::string_view client) {
  AuditEvent event;
  event.time = time;
  event.user = user;
  event.client = client;
  event.text = remark;
  if (remark == "auth succeed") event.outcome = Outcome::success;
  if (remark == "auth failed.") event.outcome = Outcome::failure;
  if (remark == "Update userinfo failed.") event.outcome = Outcome::update_failed;
  return event;
}

std::vector<std::filesystem::path> log_files(const std::filesystem::path& path) {
  const auto folder = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
  std::vector<std::pair<std::int64_t, std::filesystem::path>> stamped;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    if (const auto stamp = stamp_of(entry->path().filename().string(), path.filename().string())) {
      stamped.emplace_back(*stamp, entry->path());
    }
  }
  std::ranges::sort(stamped);
  std::vector<std::filesystem::path> files;
  files.reserve(stamped.size() + 1);
  for (auto& [stamp, file] : stamped) files.push_back(std::move(file));
  if (std::filesystem::exists(path, error)) files.push_back(path);
  return files;
}

}  // namespace zelvan::ctl
