#include "sync/synchronize.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <mutex>
#include <optional>

#include "base/sleep.h"
#include "db/OTPDatabase.h"
#include "db/QENTDatabase.h"
#include "sync/Synpkg.h"
#include "sync/exchange.h"
#include "sync/sync_packet.h"

namespace {

constexpr unsigned long kPassPauseMs = 500;
constexpr unsigned long kResendPauseMs = 10;
constexpr time_t kSelectSeconds = 2;
constexpr int kNoSocket = -1;
constexpr unsigned long kRestPauseMs = 10;
constexpr int kRestPausesASecond = 100;

// Held by the service while it uses what it shares with the rest of the process, and from stop_synchronisation on for
// ever.
std::mutex serving_mutex;

// Returns the descriptor, or kNoSocket.
int open_socket() {
  const int fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (fd < 0) return kNoSocket;
  sockaddr_in any{};
  any.sin_family = AF_INET;
  any.sin_port = htons(zelvan::kSyncPort);
  any.sin_addr.s_addr = htonl(INADDR_ANY);
  // select cannot watch a descriptor beyond its set.
  if (fd < FD_SETSIZE && bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0) return fd;
  closesock(static_cast<unsigned int>(fd));
  return kNoSocket;
}

bool wait_for_datagram(int fd) {
  timeval timeout{kSelectSeconds, 0};
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(fd, &readable);
  return select(fd + 1, &readable, nullptr, nullptr, &timeout) > 0 && FD_ISSET(fd, &readable);
}

void send_reply(int fd, const CSynpkg& reply, const sockaddr_in& client) {
  const zelvan::Bytes bytes = zelvan::packet_bytes(reply);
  const auto send = [&] {
    return sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&client), sizeof client);
  };
  if (send() > 0) return;
  otp_sleep(kResendPauseMs);
  (void)send();  // a reply that cannot be sent twice is given up
}

void serve_datagram(int fd, CQENTDatabase& database) {
  std::array<unsigned char, zelvan::kSyncDatagramSize> buffer{};
  sockaddr_in client{};
  socklen_t client_size = sizeof client;
  const ssize_t received =
      recvfrom(fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&client), &client_size);
  if (received <= 0) return;

  std::array<char, INET_ADDRSTRLEN> address{};
  if (inet_ntop(AF_INET, &client.sin_addr, address.data(), address.size()) == nullptr) return;
  CSynpkg reply;
  const auto datagram = std::span(buffer).first(static_cast<std::size_t>(received));
  if (zelvan::answer_datagram(database, address.data(), datagram, reply)) send_reply(fd, reply, client);
  explicit_bzero(buffer.data(), datagram.size());  // the code and the PIN
}

void serve(int fd, const std::atomic<int>& stop, CQENTDatabase& database) {
  while (stop == 0) {
    otp_sleep(kPassPauseMs);
    if (!wait_for_datagram(fd)) continue;
    const std::scoped_lock serving(serving_mutex);
    serve_datagram(fd, database);
  }
}

}  // namespace

void* synsecretinfo(void* exit_flag) {
  const auto& stop = *static_cast<const std::atomic<int>*>(exit_flag);
  std::optional<CQENTDatabase> database(std::in_place, &otp_database);
  if (!initnetenv()) return nullptr;

  const int fd = open_socket();
  if (fd != kNoSocket) {
    serve(fd, stop, *database);
    closesock(static_cast<unsigned int>(fd));
  }
  (void)cleannetenv();
  const std::scoped_lock serving(serving_mutex);
  database.reset();
  return nullptr;
}

bool zelvan::stop_synchronisation(int patience_s) {
  static const bool stopped = [patience_s] {
    for (int pauses = patience_s * kRestPausesASecond; !serving_mutex.try_lock(); --pauses) {
      if (pauses == 0) return false;
      otp_sleep(kRestPauseMs);
    }
    // Never released: from here on the thread waits until the process has ended.
    return true;
  }();
  return stopped;
}

bool initnetenv() { return true; }

bool cleannetenv() { return true; }

void closesock(unsigned int fd) {
  if (fd != 0) (void)close(static_cast<int>(fd));
}
