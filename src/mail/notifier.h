// The queue of warning mails and the thread that sends them.
//
// A worker that locks an account only copies the user's address into the queue; the slow SMTP dialogue belongs to the
// notifier thread.  A mail is tried once: what cannot be delivered is dropped without a word.
//
// Threads  Any thread may push; one thread runs otp_sendmail.
// Memory   The queue owns its texts (array new); the notifier frees each of them after use.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <vector>

// Addresses that wait for their mail, oldest first: NUL-terminated texts from array new, at most
// zelvan::kMailQueueLimit of them.  Null entries are allowed and skipped.  Guarded by sendmail_mutex.
// Never destroyed: a detached thread may still use it while the process ends.
extern std::vector<char*>& sendmaillist;

// Guards sendmaillist.  Start-up initialises it with MyInitLock before any other thread exists.
extern pthread_mutex_t sendmail_mutex;

// 0 until the notifier has ended, then 1; the receive loop waits for it at shutdown.
extern std::atomic<int> nmailthreadclose;

// Queues one warning mail.
//   address  NUL-terminated mail address of any length; the queue takes a copy.  Null is ignored.
// Returns nothing: when zelvan::kMailQueueLimit addresses wait already, this one is dropped.
// Any thread may call it.  It never waits for a mail dialogue, except while the notifier drains the queue at shutdown.
void sendmail_push(const char* address);

// The notifier thread: sends the queued mails one by one until nexit is set, then what is left in the queue, then sets
// nmailthreadclose and ends.  The end comes at most zelvan::MailLimits::closing after it saw nexit, however many mails
// wait and however the mail server behaves; what could not be sent by then is dropped.  Only a host name look-up that
// is under way is not cut short: it takes as long as resolv.conf(5) says.
//   argument  not used
// Returns null.
void* otp_sendmail(void* argument);

namespace zelvan {

// The most addresses that wait in sendmaillist.
inline constexpr std::size_t kMailQueueLimit = 10'000;

}  // namespace zelvan
