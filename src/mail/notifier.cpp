#include "mail/notifier.h"

#include <array>
#include <cstring>
#include <memory>

#include "base/exit_flag.h"
#include "base/locks.h"
#include "base/sleep.h"
#include "base/text.h"
#include "config/settings.h"
#include "db/time_text.h"
#include "mail/OTP_SMTP.h"
#include "mail/time_limits.h"

std::vector<char*>& sendmaillist = *new std::vector<char*>;
pthread_mutex_t sendmail_mutex;
std::atomic<int> nmailthreadclose{0};

namespace {

using Address = std::unique_ptr<char[]>;

constexpr unsigned long kIdlePause = 1000;  // ms between two looks at an empty queue
constexpr std::size_t kBodySize = 128;      // the warning and the 19 characters of the time

// Takes the oldest entry, which may be null, off the queue.  sendmail_mutex is held and the queue is not empty.
Address take_first() {
  Address first(sendmaillist.front());
  sendmaillist.erase(sendmaillist.begin());
  return first;
}

// Returns the oldest address; null when the queue is empty or its oldest entry, which is then gone, was null.
Address next_address() {
  const zelvan::ScopedLock lock(sendmail_mutex);
  return sendmaillist.empty() ? nullptr : take_first();
}

// Tries to send the warning once.  The time in it is that of sending, not that of the lock.
void send_warning(const char* address) {
  std::array<char, zelvan::kTimeTextSize> now{};
  (void)otp_getcurdate(now.data());  // without a time the warning still tells what happened
  std::array<char, kBodySize> body{};
  (void)zelvan::format_text(body, "Your account may be in dangerous.Continuous loggon failed at:%s", now.data());

  OTP_SMTP client(g_smtp_server, g_smtp_user, g_smtp_pass, ng_Authneed, ng_smtp_port);
  // Deliberate: a mail that could not be delivered is dropped after this one attempt, without a retry or a log line.
  (void)client.sendmail(address, g_mail_from, g_mail_subject, body.data(), SMTP_CONTENT_PLAIN);
}

void send_until_exit() {
  while (nexit == 0) {
    if (const Address address = next_address()) {
      send_warning(address.get());
    } else {
      otp_sleep(kIdlePause);
    }
  }
}

// Deliberate: the mutex stays locked over the remaining dialogues, so a late producer waits for the end of the drain
// and its address is never sent.
void drain() {
  const zelvan::ScopedLock lock(sendmail_mutex);
  while (!sendmaillist.empty()) {
    const Address address = take_first();
    const bool in_time = zelvan::closing_time_left() > std::chrono::milliseconds::zero();
    if (address != nullptr && in_time) send_warning(address.get());
  }
  nmailthreadclose = 1;
}

}  // namespace

void sendmail_push(const char* address) {
  if (address == nullptr) return;
  const std::size_t size = std::strlen(address) + 1;
  auto copy = std::make_unique<char[]>(size);
  std::memcpy(copy.get(), address, size);

  const zelvan::ScopedLock lock(sendmail_mutex);
  if (sendmaillist.size() < zelvan::kMailQueueLimit) sendmaillist.push_back(copy.release());
}

void* otp_sendmail(void* /*argument*/) {
  send_until_exit();
  drain();
  return nullptr;
}
