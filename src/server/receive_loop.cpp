#include "server/receive_loop.h"

#include <netinet/in.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <span>

#include "auth/radius_packet.h"
#include "auth/work_item.h"
#include "base/exit_flag.h"
#include "base/sleep.h"
#include "config/ConfigFile.h"
#include "config/settings.h"
#include "log/OTPLog.h"
#include "mail/notifier.h"
#include "pool/threadpool.h"
#include "server/sender.h"
#include "server/worker.h"
#include "sync/synchronize.h"

int socksrv;

// The one receive buffer.  It is never cleared: what an earlier datagram left behind fills up the data area of a
// shorter one.
static unsigned char buf[512];

static pthread_t synchronise_thread;
static pthread_t datasend_thread;
static pthread_t sendmail_thread;

namespace {

constexpr unsigned long kSelectFailedPauseMs = 1;
constexpr unsigned long kShutdownPauseMs = 1000;
constexpr int kShutdownPauses = 60;
constexpr int kMailEnabled = 1;  // of ng_mail_need; other values queue mails that nobody sends
constexpr int kLogToFile = 1;    // of ng_logmode

// False when the log path is too long to be used.
bool open_operation_log() {
  if (ng_logmode != kLogToFile) return true;
  zelvan::LogSettings log;
  if (!zelvan::load_log_settings(configfile, log)) return false;
  // Megabytes to bytes in 32 bits; a size of 2 GB or more wraps.
  const auto bytes = static_cast<int>(static_cast<std::uint32_t>(log.megabytes) << 20U);
  g_plog = new COTPLog(log.path.data(), bytes);
  return true;
}

bool open_socket() {
  socksrv = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  // select cannot watch a descriptor beyond its set.
  if (socksrv < 0 || socksrv >= FD_SETSIZE) return false;
  sockaddr_in any{};
  any.sin_family = AF_INET;
  any.sin_port = htons(usg_radiusport);
  any.sin_addr.s_addr = htonl(INADDR_ANY);
  return bind(socksrv, reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0;
}

// Threads are detached and never joined; one that cannot be created is done without.
void start_thread(pthread_t& id, void* (*body)(void*), void* argument) {
  if (pthread_create(&id, nullptr, body, argument) == 0) (void)pthread_detach(id);
}

void start_threads() {
  start_thread(synchronise_thread, synsecretinfo, &nexit);
  start_thread(datasend_thread, senddata, nullptr);
  if (ng_mail_need == kMailEnabled) start_thread(sendmail_thread, otp_sendmail, nullptr);
}

// True when the socket has a datagram; after a second without one, or an error, false.
bool wait_for_datagram() {
  timeval timeout{1, 1};
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(socksrv, &readable);
  const int ready = select(socksrv + 1, &readable, nullptr, nullptr, &timeout);
  if (ready == 0 || ready == -1) {
    otp_sleep(kSelectFailedPauseMs);
    return false;
  }
  return FD_ISSET(socksrv, &readable);
}

// A packet is taken only when its Length field (RFC 2865 section 3) is exactly the datagram's size.
bool well_formed(std::span<const unsigned char> datagram) {
  return datagram.size() >= zelvan::kRadiusHeaderSize &&
         datagram.size() == static_cast<std::size_t>(datagram[2] << 8 | datagram[3]);
}

void receive_datagram(threadpool& pool) {
  sockaddr_in client{};
  socklen_t client_size = sizeof client;
  const ssize_t nret = recvfrom(socksrv, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&client), &client_size);
  if (nret <= 0) return;
  const auto size = static_cast<std::size_t>(nret);
  if (!well_formed(std::span(buf).first(size))) return;

  const auto* address = reinterpret_cast<const unsigned char*>(&client.sin_addr);
  zelvan::WorkItem item =
      zelvan::WorkItemView::make(ntohs(client.sin_port), std::span<const unsigned char, 4>(address, 4),
                                 std::span(buf).first(std::max(size, zelvan::kSmallestDataArea)));
  // The pool owns the item from here, also one that it refuses: such an item is neither freed nor answered.
  (void)pool.thrmgr_dispatch(item.release());
}

// Deliberate: a notifier that was never started never reports, so that with mail disabled this takes all 60 s.
void wait_for_pool_and_notifier() {
  for (int pause = 0; pause < kShutdownPauses; ++pause) {
    if (nmailthreadclose != 0 && nthreadpoolclose != 0) return;
    otp_sleep(kShutdownPauseMs);
  }
}

void shut_down(threadpool& pool) {
  // Whatever it says, the wait below ends.
  (void)pool.destory();
  wait_for_pool_and_notifier();
  (void)close(socksrv);
  delete g_plog;
}

}  // namespace

int sockinit() { return 1; }

void servicemain() {
  if (!open_operation_log()) return;

  const zelvan::PoolSettings settings = zelvan::load_pool_settings(configfile);
  threadpool pool(settings.max_threads, settings.idle_seconds, work_deal);
  if (sockinit() != 1 || !open_socket()) return;
  start_threads();

  while (nexit == 0) {
    if (wait_for_datagram()) receive_datagram(pool);
  }
  shut_down(pool);
}
