// The process-wide settings, and the one table of all keys of the settings file.
//
// Threads  Written by start-up before any other thread exists, read without locks from then on.
// Memory   Plain globals; all are zero or empty before they are loaded.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <variant>

#include "config/ConfigFile.h"

// ---- read by load_duplicate_interval and load_settings; the ranges are those that make sense, any int is taken

extern int ng_packetchecktime;   // seconds in which a repeated request is dropped; 0 = none is
extern uint16_t usg_radiusport;  // UDP port of the RADIUS service, host order; 0 = the system chooses
extern int ng_pwdlen[3];         // digits of a code by token class, 1 to 10; kept, but nothing consults them
extern int ng_wnd;               // codes tried ahead of the stored counter, 0 and up
extern int ng_otpkeylen;         // length of a token's key in bytes, 1 and up
extern int ng_logmode;           // 1 = operation log file; any other value = rows of the table commonloginfo
extern int ng_logcond;           // outcomes recorded: 1 all, 2 failures, 3 successes, any other value none
extern int ng_dbtype;            // SQL dialect: 4 function, 3 convert, any other plain
extern int ng_maxaccum;          // failures in a row that lock an account, 1 and up
extern int ng_mail_need;         // 1 = warn by mail; 0 = no mail; any other value = mail settings demanded, none sent
extern int ng_Authneed;          // not 0 = log in to the mail server
extern int ng_smtp_port;         // TCP port of the mail server, 1 to 65535
extern char g_smtp_server[128];  // name or dotted address of the mail server, up to 127 characters
extern char g_mail_from[56];     // sender address of the warning mails, up to 55 characters
extern char g_mail_subject[56];  // subject of the warning mails, up to 55 characters
extern char g_smtp_user[56];     // login name at the mail server, up to 55 characters
extern char g_smtp_pass[56];     // password at the mail server, up to 55 characters; secret

// Directory text before the default path of the operation log, up to 260 characters, with its closing slash.
// Deliberate: start-up never fills it, so that path is relative to the working directory.
extern char szabsolute[261];

// The service's name, "OTP_RadSrv"; nothing reads it.
extern char SERVICE_NAME[11];

namespace zelvan {

inline constexpr int kDatabaseLoginLimit = 36;  // characters of the data source name, user and password, each
inline constexpr int kLogPathLimit = 128;       // characters of a configured log path

// The shared secrets: one key for each client's dotted IPv4 address, and one for all others.
inline constexpr const char* kShareSection = "share";
inline constexpr const char* kShareCatchAllKey = "0.0.0.0";
inline constexpr int kShareLimit = 56;      // characters, for the RADIUS service: the buffer needs 57 bytes
inline constexpr int kShareSyncLimit = 24;  // characters, for the synchronisation service: 25 bytes

// ---- the table of keys

enum class SettingKind { kNumber, kText };

// The step of start-up that reads a key.
enum class SettingGroup {
  kDatabaseLogin,   // load_database_login
  kDuplicateCheck,  // load_duplicate_interval
  kServer,          // load_settings, always
  kMail,            // load_settings, when ng_mail_need is not 0
  kMailLogin,       // load_settings, when ng_Authneed is not 0 besides
  kLog,             // load_log_settings
  kPool,            // load_pool_settings
  kShare,           // looked up for every request
};

// Where a value goes: a global number, a global number of 16 bits (cut to its low 16 bits), a global text of limit + 1
// bytes, or a variable of the caller.
using SettingTarget = std::variant<std::monostate, int*, uint16_t*, std::span<char>>;

struct Setting {
  const char* section;
  const char* key;
  SettingKind kind;
  SettingGroup group;
  int number;        // default of a number; 0 for a text
  const char* text;  // default of a text; null = the key is demanded; null for a number
  int limit;         // longest text in characters, NUL not counted; 0 for a number
  SettingTarget target;
};

constexpr Setting number_setting(const char* section, const char* key, SettingGroup group, int fallback,
                                 SettingTarget target = {}) {
  return {section, key, SettingKind::kNumber, group, fallback, nullptr, 0, target};
}

// A text for the caller.
constexpr Setting text_setting(const char* section, const char* key, SettingGroup group, const char* fallback,
                               int limit) {
  return {section, key, SettingKind::kText, group, 0, fallback, limit, {}};
}

// A text into a global, as long as the global takes it with its NUL.
template <std::size_t kSize>
constexpr Setting text_setting(const char* section, const char* key, SettingGroup group, const char* fallback,
                               char (&target)[kSize]) {
  return {section, key, SettingKind::kText, group, 0, fallback, static_cast<int>(kSize - 1), std::span<char>(target)};
}

// Every key the server reads, in the order of reading.
inline constexpr std::array<Setting, 27> kSettings{{
    text_setting("DataBase", "otp_dsn", SettingGroup::kDatabaseLogin, nullptr, kDatabaseLoginLimit),
    text_setting("DataBase", "otp_uid", SettingGroup::kDatabaseLogin, nullptr, kDatabaseLoginLimit),
    text_setting("DataBase", "otp_pwd", SettingGroup::kDatabaseLogin, nullptr, kDatabaseLoginLimit),
    number_setting("Radius Server", "otp_packetchecktime", SettingGroup::kDuplicateCheck, 0, &ng_packetchecktime),
    number_setting("Radius Server", "radius_port", SettingGroup::kServer, 1812, &usg_radiusport),
    number_setting("options", "otp_qent100", SettingGroup::kServer, 6, &ng_pwdlen[0]),
    number_setting("options", "otp_qent200", SettingGroup::kServer, 6, &ng_pwdlen[1]),
    number_setting("options", "otp_qent300", SettingGroup::kServer, 6, &ng_pwdlen[2]),
    number_setting("options", "otp_wnd", SettingGroup::kServer, 30, &ng_wnd),
    number_setting("options", "otp_keylen", SettingGroup::kServer, 20, &ng_otpkeylen),
    number_setting("options", "otp_logmode", SettingGroup::kServer, 1, &ng_logmode),
    number_setting("options", "otp_logcond", SettingGroup::kServer, 1, &ng_logcond),
    number_setting("DataBase", "otp_dbtype", SettingGroup::kServer, 1, &ng_dbtype),
    number_setting("options", "otp_max_accum", SettingGroup::kServer, 5, &ng_maxaccum),
    number_setting("mail", "otp_mail_need", SettingGroup::kServer, 1, &ng_mail_need),
    number_setting("mail", "smtp_auth_need", SettingGroup::kMail, 0, &ng_Authneed),
    text_setting("mail", "otp_smtp_server", SettingGroup::kMail, nullptr, g_smtp_server),
    text_setting("mail", "mail_from", SettingGroup::kMail, nullptr, g_mail_from),
    text_setting("mail", "mail_subject", SettingGroup::kMail, "Notice", g_mail_subject),
    number_setting("mail", "otp_smtp_port", SettingGroup::kMail, 25, &ng_smtp_port),
    text_setting("mail", "smtp_auth_user", SettingGroup::kMailLogin, nullptr, g_smtp_user),
    text_setting("mail", "smtp_auth_pwd", SettingGroup::kMailLogin, nullptr, g_smtp_pass),
    text_setting("options", "otp_logpath", SettingGroup::kLog, "log/otplog.log", kLogPathLimit),
    number_setting("options", "otp_logsize", SettingGroup::kLog, 1),
    number_setting("Radius Server", "otp_maxthread", SettingGroup::kPool, 10),
    number_setting("Radius Server", "otp_maxidletime", SettingGroup::kPool, 60),
    text_setting(kShareSection, kShareCatchAllKey, SettingGroup::kShare, nullptr, kShareLimit),
}};

// ---- the steps of reading

// What it takes to connect to the database; wiped when it goes out of scope.
struct DatabaseLogin {
  DatabaseLogin() = default;
  ~DatabaseLogin();
  DatabaseLogin(const DatabaseLogin&) = delete;
  DatabaseLogin& operator=(const DatabaseLogin&) = delete;

  std::array<char, kDatabaseLoginLimit + 1> dsn{};  // data source name, NUL-terminated
  std::array<char, kDatabaseLoginLimit + 1> uid{};  // user, NUL-terminated
  std::array<char, kDatabaseLoginLimit + 1> pwd{};  // password, NUL-terminated; secret
};

struct LogSettings {
  std::array<char, 261> path{};  // of the operation log, NUL-terminated
  int megabytes = 0;             // size at which the log is moved aside
};

struct PoolSettings {
  int max_threads = 0;   // workers at most
  int idle_seconds = 0;  // a worker ends after so long without work
};

// Reads the data source name, user and password.  Returns false at the first that is absent or longer than 36.
[[nodiscard]] bool load_database_login(const CConfigFile& file, DatabaseLogin& login);

// Fills ng_packetchecktime.
void load_duplicate_interval(const CConfigFile& file);

// Fills usg_radiusport and every setting that follows it above, in the order of the table; the mail settings only when
// ng_mail_need is not 0, name and password for the mail server only when ng_Authneed is not 0 as well.
// Returns false at the first text that is demanded and absent or longer than its limit; what was read before it stays.
[[nodiscard]] bool load_settings(const CConfigFile& file);

// Reads where the operation log lies and how large it grows.  An absent or empty path becomes szabsolute followed by
// "log/otplog.log".
// Returns false, with an empty path, when the path is longer than 128 characters or the default longer than 260.
[[nodiscard]] bool load_log_settings(const CConfigFile& file, LogSettings& log);

// Reads the size and patience of the worker pool.
[[nodiscard]] PoolSettings load_pool_settings(const CConfigFile& file);

}  // namespace zelvan
