#include "mail/notifier.h"

#include <cstring>
#include <memory>

#include "base/locks.h"

std::vector<char*> sendmaillist;
pthread_mutex_t sendmail_mutex;
std::atomic<int> nmailthreadclose{0};

void sendmail_push(const char* address) {
  if (address == nullptr) return;
  const std::size_t size = std::strlen(address) + 1;
  auto copy = std::make_unique<char[]>(size);
  std::memcpy(copy.get(), address, size);

  const zelvan::ScopedLock lock(sendmail_mutex);
  if (sendmaillist.size() < zelvan::kMailQueueLimit) sendmaillist.push_back(copy.release());
}
