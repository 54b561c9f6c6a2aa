// The values of the settings file, one by one.
#include <fmt/core.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>

#include "sync/sync_packet.h"
#include "zelvanctl/config_check.h"
#include "zelvanctl/config_keys.h"

namespace zelvan::ctl {
namespace {

using Level = Finding::Level;
using Problems = std::vector<ValueProblem>;

// The longest data source name that the driver manager takes (SQL_MAX_DSN_LENGTH).
constexpr std::size_t kDriverManagerDsnLimit = 32;
constexpr std::size_t kGoodSecretLength = 16;

// Numbers that the server takes, with an effect that surprises.
struct NumberRule {
  const char* key;
  int least;
  int most;
  Level level;
  const char* effect;
};

constexpr std::array kNumberRules{
    NumberRule{"otp_packetchecktime", INT_MIN, -1, Level::warning, "counts as 0: repeated requests are served again"},
    NumberRule{"otp_packetchecktime", 61, INT_MAX, Level::warning,
               "a client that uses port and Identifier again within that time gets no answer"},
    NumberRule{"radius_port", 0, 0, Level::error, "the system chooses a port that no client knows"},
    NumberRule{"radius_port", kSyncPort, kSyncPort, Level::warning,
               "is the port of the synchronisation service, which is absent then"},
    NumberRule{"otp_wnd", INT_MIN, 0, Level::error, "no code is tried: event and time-stepped tokens never log in"},
    NumberRule{"otp_wnd", 1001, INT_MAX, Level::warning, "so many codes are good at a time that one can be guessed"},
    NumberRule{"otp_logmode", INT_MIN, -1, Level::warning, "counts as 0: outcomes go to the table commonloginfo"},
    NumberRule{"otp_logmode", 2, INT_MAX, Level::warning, "counts as 0: outcomes go to the table commonloginfo"},
    NumberRule{"otp_logcond", INT_MIN, 0, Level::warning, "no outcome is recorded"},
    NumberRule{"otp_logcond", 4, INT_MAX, Level::warning, "no outcome is recorded"},
    NumberRule{"otp_dbtype", INT_MIN, 0, Level::warning, "counts as 1: dates are plain text"},
    NumberRule{"otp_dbtype", 5, INT_MAX, Level::warning, "counts as 1: dates are plain text"},
    NumberRule{"otp_max_accum", INT_MIN, 1, Level::warning, "the first wrong code locks the account"},
    NumberRule{"otp_max_accum", 101, INT_MAX, Level::error,
               "no account is ever locked: the server reads two digits of the failure count"},
    NumberRule{"otp_mail_need", INT_MIN, -1, Level::error,
               "mails are queued and never sent, and the mail settings are demanded all the same; use 0 or 1"},
    NumberRule{"otp_mail_need", 2, INT_MAX, Level::error,
               "mails are queued and never sent, and the mail settings are demanded all the same; use 0 or 1"},
    NumberRule{"smtp_auth_need", INT_MIN, -1, Level::warning, "counts as 1: the server logs in to the mail server"},
    NumberRule{"smtp_auth_need", 2, INT_MAX, Level::warning, "counts as 1: the server logs in to the mail server"},
    NumberRule{"otp_smtp_port", INT_MIN, 0, Level::error, "is no port: no mail goes out"},
    NumberRule{"otp_smtp_port", 65536, INT_MAX, Level::error, "is no port: only its low 16 bits count"},
    NumberRule{"otp_logsize", INT_MIN, 0, Level::warning, "the log is moved aside at every write"},
    NumberRule{"otp_logsize", 2048, INT_MAX, Level::warning,
               "the size wraps at 2 GB: the log is moved aside earlier, perhaps at every write"},
    NumberRule{"otp_maxthread", INT_MIN, 0, Level::warning, "counts as 1"},
    NumberRule{"otp_maxthread", 1001, INT_MAX, Level::warning, "the system may refuse so many threads"},
    NumberRule{"otp_maxidletime", INT_MIN, 0, Level::warning, "a worker ends as soon as it has nothing to do"},
};

// Keys that the server reads and nothing consults.
constexpr std::array<std::string_view, 4> kUnused{"otp_keylen", "otp_qent100", "otp_qent200", "otp_qent300"};

void check_form(const std::string& value, Problems& problems) {
  errno = 0;
  char* end = nullptr;
  const long number = std::strtol(value.c_str(), &end, 10);
  if (end == value.c_str()) {
    problems.push_back({Level::error, "is no number and reads as 0, not as the default"});
  } else if (errno == ERANGE || number > INT_MAX || number < INT_MIN) {
    problems.push_back({Level::error, fmt::format("is out of range and reads as {}", static_cast<int>(number))});
  } else if (!trimmed(end).empty()) {
    problems.push_back({Level::warning, fmt::format("has text behind the number and reads as {}", number)});
  }
}

void check_number(const Setting& setting, const std::string& value, Problems& problems) {
  check_form(value, problems);
  const std::string_view key = setting.key;
  int number = server_number(value);
  if (key == "radius_port" && (number < 0 || number > UINT16_MAX)) {
    number = static_cast<std::uint16_t>(number);
    problems.push_back({Level::error, fmt::format("is cut to 16 bits: the server takes port {}", number)});
  }
  for (const NumberRule& rule : kNumberRules) {
    if (key == rule.key && number >= rule.least && number <= rule.most) {
      problems.push_back({rule.level, fmt::format("{}: {}", number, rule.effect)});
    }
  }
  for (const std::string_view unused : kUnused) {
    if (key == unused && number != setting.number) {
      problems.push_back({Level::warning, "is read and not used: key and code length come from the token"});
    }
  }
}

std::string effect_of_too_long(const Setting& setting) {
  switch (setting.group) {
    case SettingGroup::kDatabaseLogin:
      return "the server ends at its start, with \"Get database connection params failed.\" in srvlog.txt";
    case SettingGroup::kLog:
      return "the server ends at its start, with \"Zelvan down...\" in srvlog.txt";
    case SettingGroup::kShare:
      return "the secret counts as missing, so that 0.0.0.0 serves the client, or nothing does";
    default:
      return "the server ends at its start without a word";
  }
}

void check_secret(const std::string& value, Problems& problems) {
  if (value.empty()) {
    problems.push_back({Level::error, "is empty: anyone can forge requests and replies"});
  } else if (value.size() < kGoodSecretLength) {
    problems.push_back({Level::warning, fmt::format("has {} characters: a recorded request can be searched for it; use "
                                                    "{} or more, random ones",
                                                    value.size(), kGoodSecretLength)});
  } else if (value.size() > static_cast<std::size_t>(kShareSyncLimit)) {
    problems.push_back({Level::warning, fmt::format("is longer than {} characters: for the synchronisation service it "
                                                    "counts as missing, and without a shorter one for 0.0.0.0 it "
                                                    "refuses the client",
                                                    kShareSyncLimit)});
  }
}

void check_decoration(const std::string& value, Problems& problems) {
  if (value.empty()) return;
  if (trimmed(value).size() != value.size()) {
    problems.push_back({Level::warning, "begins or ends with a blank or tab, which belongs to the value"});
  }
  const char first = value.front();
  if (value.size() > 1 && (first == '"' || first == '\'') && value.back() == first) {
    problems.push_back({Level::warning, "stands in quotes, which belong to the value"});
  }
  if (value.find(" ;") != std::string::npos) {
    problems.push_back({Level::warning, "holds a \";\", which begins no comment there and belongs to the value"});
  }
}

void check_meaning(const Setting& setting, const std::string& value, Problems& problems) {
  const std::string_view key = setting.key;
  if (key == "otp_dsn" && value.empty()) problems.push_back({Level::error, "is empty: there is no data source"});
  if (key == "otp_dsn" && value.size() > kDriverManagerDsnLimit) {
    problems.push_back({Level::error, fmt::format("is longer than {} characters: the driver manager refuses it, and "
                                                  "the server ends after 50 seconds",
                                                  kDriverManagerDsnLimit)});
  }
  if ((key == "otp_smtp_server" || key == "mail_from") && value.empty()) {
    problems.push_back({Level::error, "is empty: no mail goes out"});
  } else if (key == "mail_from" && (value.find('@') == std::string::npos || value.find('<') != std::string::npos)) {
    problems.push_back({Level::warning, "is no bare address such as otp@example.org"});
  } else if (key == "otp_smtp_server" && value.find_first_of(": /") != std::string::npos) {
    problems.push_back({Level::warning, "is no host name and no IPv4 address; a port belongs into otp_smtp_port"});
  }
}

}  // namespace

int server_number(const std::string& value) { return static_cast<int>(std::strtol(value.c_str(), nullptr, 10)); }

std::vector<ValueProblem> value_problems(const Setting& setting, const std::string& value) {
  Problems problems;
  if (setting.kind == SettingKind::kNumber) {
    check_number(setting, value, problems);
    return problems;
  }
  if (value.size() > static_cast<std::size_t>(setting.limit)) {
    problems.push_back({Level::error, fmt::format("has {} characters, the limit is {}: {}", value.size(), setting.limit,
                                                  effect_of_too_long(setting))});
    return problems;
  }
  if (setting.group == SettingGroup::kShare) check_secret(value, problems);
  check_decoration(value, problems);
  check_meaning(setting, value, problems);
  return problems;
}

}  // namespace zelvan::ctl
