#include "server/startup.h"

#include <unistd.h>

#include <cstdint>
#include <string>

#include "base/locks.h"
#include "base/sleep.h"
#include "config/ConfigFile.h"
#include "config/settings.h"
#include "db/OTPDatabase.h"
#include "log/server_log.h"
#include "mail/notifier.h"
#include "server/daemon.h"
#include "server/duplicate_filter.h"
#include "server/receive_loop.h"
#include "server/sender.h"
#include "sync/synchronize.h"

namespace zelvan {
namespace {

constexpr int kConnectRetries = 10;
constexpr unsigned long kConnectPauseMs = 5000;
constexpr int kSynchronisationPatience = 5;  // seconds

void initialise_mutexes() {
  // Default attributes: nothing to fail for.
  for (pthread_mutex_t* mutex : {&pack_mutex, &sendqueue_mutex, &sendmail_mutex, &dbrecon_mutex}) {
    (void)MyInitLock(*mutex);
  }
}

bool connect_once(const DatabaseLogin& login) {
  const auto text = [](const auto& field) { return reinterpret_cast<const unsigned char*>(field.data()); };
  const int result =
      otp_database.DBConnect(text(login.dsn), SQL_NTS, text(login.uid), SQL_NTS, text(login.pwd), SQL_NTS);
  return static_cast<std::uint16_t>(result) == 0;  // only the low 16 bits count
}

bool connect_with_retries(const DatabaseLogin& login) {
  for (int retry = 0; !connect_once(login); ++retry) {
    if (retry == kConnectRetries) return false;
    otp_sleep(kConnectPauseMs);
  }
  return true;
}

}  // namespace

int serve(std::string_view directory) {
  initialise_mutexes();
  const std::string settings_file = std::string(directory) + "./config/otp_conf.con";
  if (configfile.config_init(settings_file.c_str()) != 0) {
    srv_log("Zelvan server stop.Function CConfigFile::config_init failed.");
    return EXIT_DONE;
  }
  {
    DatabaseLogin login;
    if (!load_database_login(configfile, login)) {
      srv_log("Zelvan server stop.Get database connection params failed.");
      return EXIT_DONE;
    }
    load_duplicate_interval(configfile);
    if (!connect_with_retries(login)) {
      srv_log("Zelvan server stop.Can not connect to database.");
      return EXIT_DONE;
    }
  }
  if (!load_settings(configfile)) return EXIT_DONE;  // Deliberate: without a word.

  servicemain();
  srv_log("Zelvan down...");
  // What the end of main destroys must not be in use.  A statement that hangs is left behind without that.
  if (!stop_synchronisation(kSynchronisationPatience)) _exit(EXIT_DONE);
  return EXIT_DONE;
}

int run() {
  srv_log("server starting...");
  // Its result tells only of the SIGPIPE action, which cannot fail.
  (void)init_daemon();

  std::string directory;
  switch (executable_directory(directory)) {
    case DirectoryResult::link_unreadable:
      srv_log("Zelvan Server stop.Get module path failed.");
      return EXIT_NO_DIRECTORY;
    case DirectoryResult::no_slash:
      return EXIT_NO_DIRECTORY;
    case DirectoryResult::found:
      break;
  }
  return serve(directory);
}

}  // namespace zelvan
