// The lines of the operation log, and the files that hold them.
#pragma once

#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zelvan::ctl {

enum class Outcome { success, failure, update_failed, other };

// One thing that happened, from a log line or an audit row.
struct AuditEvent {
  std::string time;  // as written, UTC
  std::string user;  // empty when the text names none
  Outcome outcome = Outcome::other;
  std::string client;  // address; empty when unknown
  std::string text;    // as written
};

// What of the trail is wanted.
struct AuditFilter {
  std::string user;                  // empty: every user
  std::optional<std::time_t> since;  // nothing: from the beginning
  bool failed_only = false;

  [[nodiscard]] bool wants(const AuditEvent& event) const;
};

std::string_view outcome_word(Outcome outcome);

// Takes a log line (time, TAB, text) apart; a line of another form becomes an event without time.
AuditEvent parse_log_line(std::string_view line);

// Returns the event of an audit row.
AuditEvent audit_row(std::string_view time, std::string_view user, std::string_view remark, std::string_view client);

// Returns the files of an operation log, oldest first: "<path><seconds>.bak.log" in the order of the seconds, then the
// path itself.  Only files that exist.
std::vector<std::filesystem::path> log_files(const std::filesystem::path& path);

}  // namespace zelvan::ctl
