#include "config/settings.h"

#include <cstring>
#include <string_view>

#include "base/text.h"

int ng_packetchecktime;
uint16_t usg_radiusport;
int ng_pwdlen[3];
int ng_wnd;
int ng_otpkeylen;
int ng_logmode;
int ng_logcond;
int ng_dbtype;
int ng_maxaccum;
int ng_mail_need;
int ng_Authneed;
int ng_smtp_port;
char g_smtp_server[128];
char g_mail_from[56];
char g_mail_subject[56];
char g_smtp_user[56];
char g_smtp_pass[56];
char szabsolute[261];
char SERVICE_NAME[11] = "OTP_RadSrv";

namespace zelvan {
namespace {

// The row of a key.  A key that is not in the table does not compile.
consteval const Setting& row(std::string_view key) {
  std::size_t index = 0;
  while (key != kSettings[index].key) ++index;
  return kSettings[index];
}

int read_number(const CConfigFile& file, const Setting& setting) {
  return file.getvalInt(setting.section, setting.key, setting.number);
}

// `out` holds setting.limit + 1 bytes.
bool read_text(const CConfigFile& file, const Setting& setting, std::span<char> out) {
  return file.getvalstr(setting.section, setting.key, out.data(), setting.limit, setting.text) == GETVAL_OK;
}

bool load(const CConfigFile& file, const Setting& setting) {
  if (int* const* number = std::get_if<int*>(&setting.target)) {
    **number = read_number(file, setting);
  } else if (uint16_t* const* short_number = std::get_if<uint16_t*>(&setting.target)) {
    // Deliberate: a number beyond 16 bits is cut to its low 16 bits, not refused: 70000 is 4464.
    **short_number = static_cast<uint16_t>(read_number(file, setting));
  } else if (const auto* text = std::get_if<std::span<char>>(&setting.target)) {
    return read_text(file, setting, *text);
  }
  return true;
}

bool load_group(const CConfigFile& file, SettingGroup group) {
  for (const Setting& setting : kSettings) {
    if (setting.group == group && !load(file, setting)) return false;
  }
  return true;
}

}  // namespace

DatabaseLogin::~DatabaseLogin() {
  explicit_bzero(dsn.data(), dsn.size());
  explicit_bzero(uid.data(), uid.size());
  explicit_bzero(pwd.data(), pwd.size());
}

bool load_database_login(const CConfigFile& file, DatabaseLogin& login) {
  return read_text(file, row("otp_dsn"), login.dsn) && read_text(file, row("otp_uid"), login.uid) &&
         read_text(file, row("otp_pwd"), login.pwd);
}

void load_duplicate_interval(const CConfigFile& file) { (void)load(file, row("otp_packetchecktime")); }

bool load_settings(const CConfigFile& file) {
  if (!load_group(file, SettingGroup::kServer)) return false;
  // Deliberate: any number but 0 demands the mail settings, although only 1 sends mail.
  if (ng_mail_need == 0) return true;
  if (!load_group(file, SettingGroup::kMail)) return false;
  return ng_Authneed == 0 || load_group(file, SettingGroup::kMailLogin);
}

bool load_log_settings(const CConfigFile& file, LogSettings& log) {
  const Setting& path = row("otp_logpath");
  log.path[0] = '\0';
  if (file.getvalstr(path.section, path.key, log.path.data(), path.limit, "") != GETVAL_OK) return false;
  log.megabytes = read_number(file, row("otp_logsize"));
  if (log.path[0] != '\0') return true;
  return format_text(log.path, "%s%s", szabsolute, path.text);
}

PoolSettings load_pool_settings(const CConfigFile& file) {
  return {read_number(file, row("otp_maxthread")), read_number(file, row("otp_maxidletime"))};
}

}  // namespace zelvan
