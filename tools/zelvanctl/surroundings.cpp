#include "zelvanctl/surroundings.h"

#include <fmt/core.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>

#include "sync/sync_packet.h"
#include "zelvanctl/database.h"
#include "zelvanctl/server_process.h"

namespace zelvan::ctl {
namespace {

namespace fs = std::filesystem;
using Level = Finding::Level;

void check_writable(const fs::path& file, const std::string& where, Level level, const std::string& effect,
                    Findings& findings) {
  std::error_code error;
  const fs::path folder = file.parent_path();
  if (!fs::is_directory(folder, error)) {
    findings.push_back({level, where, fmt::format("there is no folder {}: {}", folder.string(), effect)});
  } else if (fs::is_directory(file, error)) {
    findings.push_back({level, where, fmt::format("{} is a folder: {}", file.string(), effect)});
  } else if (fs::exists(file, error) && access(file.c_str(), W_OK) != 0) {
    findings.push_back({level, where, fmt::format("{} cannot be written by this user: {}", file.string(), effect)});
  } else if (access(folder.c_str(), W_OK | X_OK) != 0) {
    findings.push_back(
        {level, where, fmt::format("the folder {} cannot be written by this user: {}", folder.string(), effect)});
  }
}

// ---- ports

// Returns 0 when the UDP port can be taken on all addresses, else errno.
int try_port(std::uint16_t port) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  if (fd < 0) return errno;
  sockaddr_in any{};
  any.sin_family = AF_INET;
  any.sin_port = htons(port);
  const int result = bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0 ? 0 : errno;
  (void)close(fd);
  return result;
}

// Returns the user who has an IPv4 UDP port, as the kernel's table tells.
std::optional<uid_t> owner_of_port(std::uint16_t port) {
  const std::string wanted = fmt::format(":{:04X}", port);
  std::ifstream table("/proc/net/udp");
  std::string line;
  std::getline(table, line);
  while (std::getline(table, line)) {
    std::istringstream words(line);
    std::string slot;
    std::string local;
    std::string skipped;
    uid_t owner = 0;
    words >> slot >> local;
    for (int i = 0; i < 5; ++i) words >> skipped;
    if (words >> owner && local.ends_with(wanted)) return owner;
  }
  return {};
}

// A server of another user may be invisible, so that its own port looks like somebody else's.
bool may_be_server(std::uint16_t port) {
  const auto owner = owner_of_port(port);
  return geteuid() != 0 && owner && *owner != geteuid();
}

void check_port(int port, const std::string& where, Level level, const std::string& effect, Findings& findings) {
  const auto short_port = static_cast<std::uint16_t>(port);
  const int problem = try_port(short_port);
  if (problem == EACCES) {
    findings.push_back(
        {Level::warning, where, "this user may not take so low a port; start the server as one who may"});
  } else if (problem == EADDRINUSE && may_be_server(short_port)) {
    findings.push_back({Level::warning, where,
                        fmt::format("UDP port {} is taken by another user: the server itself, or "
                                    "{}; root can tell",
                                    short_port, effect)});
  } else if (problem == EADDRINUSE) {
    findings.push_back({level, where, fmt::format("UDP port {} is taken by another program: {}", short_port, effect)});
  }
}

// ---- the data source

// Connects and writes why it failed, if so; the process then ends.
[[noreturn]] void connect_and_tell(const DatabaseLogin& login, int out) {
  std::string reason;
  try {
    const Database database(login.dsn.data(), login.uid.data(), login.pwd.data());
  } catch (const std::exception& failure) {
    reason = failure.what();
  }
  (void)!write(out, reason.data(), std::min<std::size_t>(reason.size(), PIPE_BUF));
  _exit(0);
}

// Reads what the process writes until it ends; nothing when it has not ended in time.
std::optional<std::string> read_until_end(int in, int seconds) {
  std::array<char, 4096> buffer{};
  std::string text;
  pollfd wait{in, POLLIN, 0};
  while (poll(&wait, 1, seconds * 1000) > 0) {
    const ssize_t got = read(in, buffer.data(), buffer.size());
    if (got <= 0) return text;
    text.append(buffer.data(), static_cast<std::size_t>(got));
  }
  return {};
}

std::optional<std::string> try_to_connect(const DatabaseLogin& login, int seconds) {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) return "cannot make a pipe";
  const pid_t child = fork();
  if (child < 0) return "cannot make a process";
  if (child == 0) connect_and_tell(login, ends[1]);
  (void)close(ends[1]);
  auto reason = read_until_end(ends[0], seconds);
  (void)close(ends[0]);
  if (!reason) (void)kill(child, SIGKILL);
  int status = 0;
  (void)waitpid(child, &status, 0);
  if (reason && WIFSIGNALED(status)) return fmt::format("the driver crashed with signal {}", WTERMSIG(status));
  return reason;
}

}  // namespace

std::string WorkingFolder::words() const {
  if (server_runs) return "the folder of the running server";
  return certain ? "the folder given"
                 : "the present folder, since no running server was found; --directory names the server's";
}

WorkingFolder working_folder(const SettingsFile& settings, const std::string& given) {
  if (const auto folder = server_folder(settings.path())) return {*folder, true, true};
  if (!given.empty()) return {given, true, false};
  std::error_code error;
  return {fs::current_path(error), false, false};
}

Findings check_file_mode(const fs::path& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return {};
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return {{Level::error, path.string(),
             fmt::format("other users may change it (mode {:03o}); chmod 600 closes it", status.st_mode & 0777U)}};
  }
  if ((status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
    return {{Level::warning, path.string(),
             fmt::format("other users may read its secrets (mode {:03o}); chmod 600 "
                         "closes it",
                         status.st_mode & 0777U)}};
  }
  return {};
}

Findings check_logs(const SettingsFile& settings, const WorkingFolder& folder) {
  Findings findings;
  const Level level = folder.certain ? Level::error : Level::warning;
  LogSettings log;
  if (settings.number("otp_logmode") == 1 && load_log_settings(settings.file(), log)) {
    const fs::path path = log.path.data();
    const bool absolute = path.is_absolute();
    const std::string effect =
        absolute ? "nothing is logged" : fmt::format("nothing is logged. The path counts from {}", folder.words());
    check_writable(folder.path / path, fmt::format("log {}", path.string()), absolute ? Level::error : level, effect,
                   findings);
  }
  check_writable(folder.path / "srvlog.txt", "srvlog.txt", Level::warning,
                 fmt::format("starts and failures leave no word. It counts from {}", folder.words()), findings);
  return findings;
}

Findings check_ports(const SettingsFile& settings, bool server_runs) {
  Findings findings;
  if (server_runs) return findings;
  check_port(settings.number("radius_port"), "[Radius Server] radius_port", Level::error,
             "the server would end at its start, with \"Zelvan down...\" in srvlog.txt", findings);
  check_port(kSyncPort, fmt::format("port {}", kSyncPort), Level::warning,
             "the synchronisation service would be absent", findings);
  return findings;
}

Findings check_data_source(const SettingsFile& settings, int seconds) {
  DatabaseLogin login;
  if (!load_database_login(settings.file(), login)) return {};  // told with the settings
  const auto reason = try_to_connect(login, seconds);
  if (reason && reason->empty()) return {};
  return {{Level::error, fmt::format("data source {}", login.dsn.data()),
           reason ? *reason : fmt::format("gives no answer within {} seconds", seconds)}};
}

}  // namespace zelvan::ctl
