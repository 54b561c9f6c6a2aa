#include "server/sender.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>

#include "auth/work_item.h"
#include "base/exit_flag.h"
#include "base/locks.h"
#include "base/sleep.h"
#include "server/receive_loop.h"

queue_t send_queue;
pthread_mutex_t sendqueue_mutex;

namespace {

constexpr int kSendRetries = 3;
constexpr unsigned long kRetryPauseMs = 100;
constexpr unsigned long kEmptyPauseMs = 1;

zelvan::WorkItem next_reply() {
  const zelvan::ScopedLock lock(sendqueue_mutex);
  return zelvan::WorkItem(static_cast<unsigned char*>(send_queue.queue_pop()));
}

void send_reply(const zelvan::WorkItemView& item) {
  sockaddr_in client{};
  client.sin_family = AF_INET;
  client.sin_port = htons(item.port());
  std::ranges::copy(item.address(), reinterpret_cast<unsigned char*>(&client.sin_addr));

  for (int retry = 0; sendto(socksrv, item.packet(), item.packet_length(), 0,
                             reinterpret_cast<const sockaddr*>(&client), sizeof client) == -1;
       ++retry) {
    if (retry == kSendRetries) return;
    otp_sleep(kRetryPauseMs);
  }
}

}  // namespace

void* senddata(void* /*unused*/) {
  while (nexit == 0) {
    const zelvan::WorkItem item = next_reply();
    if (item == nullptr) {
      otp_sleep(kEmptyPauseMs);
      continue;
    }
    send_reply(zelvan::WorkItemView(item.get()));
  }
  return nullptr;
}
