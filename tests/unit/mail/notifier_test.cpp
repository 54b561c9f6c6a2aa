#include "mail/notifier.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "base/exit_flag.h"
#include "base/locks.h"
#include "base/text.h"
#include "config/settings.h"
#include "mail/time_limits.h"
#include "smtp_fixture.h"
#include "support/fake_clock.h"
#include "support/fake_sleep.h"
#include "support/scripted_smtp.h"

using namespace zelvan::test;
using std::chrono::milliseconds;

namespace {

// An entry as sendmail_push makes it.
char* entry(const char* address) {
  char* copy = new char[std::strlen(address) + 1];
  std::strcpy(copy, address);
  return copy;
}

std::size_t queued() {
  const zelvan::ScopedLock lock(sendmail_mutex);
  return sendmaillist.size();
}

bool queue_is_locked() {
  if (pthread_mutex_trylock(&sendmail_mutex) != 0) return true;
  (void)MyULock(sendmail_mutex);
  return false;
}

// Ends the notifier at its n-th pause, so that it can run in the test's own thread.
void exit_at_pause(int nth) {
  on_sleep([nth](unsigned long) {
    if (sleeps().size() >= static_cast<std::size_t>(nth)) nexit = 1;
  });
}

SmtpScript held_greeting() {
  SmtpScript script = smtp_dialogue();
  script[kGreeting].hold = true;
  return script;
}

class Notifier : public testing::Test {
 protected:
  Notifier() {
    nexit = 0;
    nmailthreadclose = 0;
    (void)MyInitLock(sendmail_mutex);
    clear_sleeps();
    set_clock(1'700'000'000);
    ng_Authneed = 0;
    (void)zelvan::copy_text(g_smtp_server, "127.0.0.1");
    (void)zelvan::copy_text(g_smtp_user, "u");
    (void)zelvan::copy_text(g_smtp_pass, "secret");
    (void)zelvan::copy_text(g_mail_from, "otp@zelvan.test");
    (void)zelvan::copy_text(g_mail_subject, "Notice");
  }
  ~Notifier() override {
    nexit = 0;
    clear_sleeps();
    zelvan::set_mail_limits({});
    for (const char* left : sendmaillist) delete[] left;
    sendmaillist.clear();
    (void)MyUInitLock(sendmail_mutex);
  }
};

std::string recipient_of(const std::string& session) {
  const std::string before = "RCPT TO: ";
  const auto found = session.find(before);
  if (found == std::string::npos) return "none";
  const auto start = found + before.size();
  return session.substr(start, session.find("\r\n", start) - start);
}

std::vector<std::string> recipients(ScriptedSmtp& server) {
  std::vector<std::string> found;
  for (const std::string& session : server.sessions()) found.push_back(recipient_of(session));
  return found;
}

using Texts = std::vector<std::string>;
using Pauses = std::vector<unsigned long>;

}  // namespace

// ---- the queue

TEST_F(Notifier, NullAddressIsIgnored) {
  sendmail_push(nullptr);
  EXPECT_EQ(queued(), 0U);
}

TEST_F(Notifier, PushAppendsACopy) {
  std::array<char, 8> address{"a@b.c"};
  sendmail_push(address.data());
  address[0] = 'X';
  sendmail_push(std::string(55, 'y').c_str());
  sendmail_push("");
  ASSERT_EQ(queued(), 3U);
  EXPECT_STREQ(sendmaillist[0], "a@b.c");
  EXPECT_EQ(sendmaillist[1], std::string(55, 'y'));
  EXPECT_STREQ(sendmaillist[2], "");
}

TEST_F(Notifier, QueueTakesTenThousandAddressesAndDropsFurtherOnes) {
  for (int i = 0; i < 9'999; ++i) sendmail_push("waits@zelvan.test");
  EXPECT_EQ(queued(), 9'999U);
  sendmail_push("last@zelvan.test");
  EXPECT_EQ(queued(), 10'000U);
  sendmail_push("dropped@zelvan.test");
  EXPECT_EQ(queued(), 10'000U);
  EXPECT_STREQ(sendmaillist.back(), "last@zelvan.test");
}

TEST_F(Notifier, ManyThreadsMayPushAtOnce) {
  std::vector<std::thread> producers;
  for (int t = 0; t < 4; ++t) {
    producers.emplace_back([] {
      for (int i = 0; i < 500; ++i) sendmail_push("a@zelvan.test");
    });
  }
  for (auto& producer : producers) producer.join();
  EXPECT_EQ(queued(), 2'000U);
}

// ---- the main phase

TEST_F(Notifier, EmptyQueueCostsOneSecondAPass) {
  exit_at_pause(3);
  EXPECT_EQ(otp_sendmail(nullptr), nullptr);
  EXPECT_EQ(sleeps(), (Pauses{1000, 1000, 1000}));
  EXPECT_EQ(nmailthreadclose, 1);
}

TEST_F(Notifier, WarningIsTheseBytes) {
  ScriptedSmtp server(smtp_dialogue());
  ng_smtp_port = server.port();
  sendmail_push("user@zelvan.test");
  set_clock(1'700'000'009);  // the time in the mail is that of sending
  exit_at_pause(1);
  (void)otp_sendmail(nullptr);
  ASSERT_TRUE(server.wait_ended(1));
  EXPECT_EQ(server.sessions(), Texts{"HELO " + host_name() +
                                     "\r\nMAIL From: otp@zelvan.test\r\nRCPT TO: user@zelvan.test\r\nDATA\r\n"
                                     "From: <otp@zelvan.test>\r\nTo: <user@zelvan.test>\r\n"
                                     "Date: 2023-11-14 22:13:29\r\nSubject: Notice\r\nMIME-Version: 1.0\r\n"
                                     "Content-Type: text/plain\r\nContent-Transfer-Encoding: 7Bit\r\n\r\n\r\n"
                                     "Your account may be in dangerous.Continuous loggon failed at:"
                                     "2023-11-14 22:13:29\r\n.\r\nquit\r\n"});
}

TEST_F(Notifier, LoginIsUsedWhenAskedFor) {
  ScriptedSmtp server(smtp_login_dialogue());
  ng_smtp_port = server.port();
  ng_Authneed = 1;
  sendmail_push("user@zelvan.test");
  exit_at_pause(1);
  (void)otp_sendmail(nullptr);
  ASSERT_TRUE(server.wait_ended(1));
  EXPECT_NE(server.sessions().at(0).find("AUTH LOGIN\r\ndQ==\r\nc2VjcmV0\r\nMAIL"), std::string::npos);
}

TEST_F(Notifier, BurstLeavesInOrderWithDuplicatesAndWithoutPauses) {
  ScriptedSmtp server(smtp_dialogue());
  ng_smtp_port = server.port();
  for (const char* address : {"b", "a", "b", "c"}) sendmail_push(address);
  exit_at_pause(1);
  (void)otp_sendmail(nullptr);
  ASSERT_TRUE(server.wait_ended(4));
  EXPECT_EQ(recipients(server), (Texts{"b", "a", "b", "c"}));
  EXPECT_EQ(sleeps(), Pauses{1000}) << "the one pause is that of the empty queue";
}

TEST_F(Notifier, NullEntryIsDroppedAndFollowedByAPause) {
  ScriptedSmtp server(smtp_dialogue());
  ng_smtp_port = server.port();
  sendmaillist = {nullptr, entry("a")};
  exit_at_pause(2);
  (void)otp_sendmail(nullptr);
  ASSERT_TRUE(server.wait_ended(1));
  EXPECT_EQ(recipients(server), Texts{"a"});
  EXPECT_EQ(sleeps(), (Pauses{1000, 1000}));
}

TEST_F(Notifier, UnreachableServerStillEmptiesTheQueue) {
  const ClosedPort closed;
  ng_smtp_port = closed.port();
  for (int i = 0; i < 5; ++i) sendmail_push("a@zelvan.test");
  const auto before = open_descriptors();
  exit_at_pause(1);
  (void)otp_sendmail(nullptr);
  EXPECT_EQ(queued(), 0U);
  EXPECT_EQ(sleeps(), Pauses{1000});
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Notifier, RefusedMailIsNotTriedAgain) {
  SmtpScript script = smtp_dialogue();
  script.resize(kRcpt);
  script.push_back({"550 no\r\n"});
  script.push_back({"221 bye\r\n"});
  ScriptedSmtp server(script);
  ng_smtp_port = server.port();
  sendmail_push("a");
  sendmail_push("b");
  exit_at_pause(1);
  (void)otp_sendmail(nullptr);
  ASSERT_TRUE(server.wait_ended(2));
  EXPECT_EQ(recipients(server), (Texts{"a", "b"}));
}

TEST_F(Notifier, PushDoesNotWaitForADialogue) {
  ScriptedSmtp server(held_greeting());
  ng_smtp_port = server.port();
  sendmail_push("first");
  std::thread notifier(otp_sendmail, nullptr);
  ASSERT_TRUE(server.wait_accepted(1));
  sendmail_push("second");
  EXPECT_EQ(queued(), 1U) << "the first dialogue still waits for its greeting";
  EXPECT_EQ(server.sessions(), Texts{""});

  server.release();
  EXPECT_TRUE(server.wait_ended(2));
  nexit = 1;
  notifier.join();
  EXPECT_EQ(recipients(server), (Texts{"first", "second"}));
}

// ---- the drain

TEST_F(Notifier, DrainSendsWhatWaitsWithoutPausesAndSkipsNullEntries) {
  ScriptedSmtp server(smtp_dialogue());
  ng_smtp_port = server.port();
  sendmaillist = {entry("a"), nullptr, entry("b")};
  nexit = 1;
  EXPECT_EQ(otp_sendmail(nullptr), nullptr);
  ASSERT_TRUE(server.wait_ended(2));
  EXPECT_EQ(recipients(server), (Texts{"a", "b"}));
  EXPECT_EQ(sleeps(), Pauses{});
  EXPECT_EQ(queued(), 0U);
  EXPECT_EQ(nmailthreadclose, 1);
}

TEST_F(Notifier, ClosedFlagIsSetOnlyAfterTheLastDialogue) {
  ScriptedSmtp server(held_greeting());
  ng_smtp_port = server.port();
  sendmail_push("a");
  nexit = 1;
  std::thread notifier(otp_sendmail, nullptr);
  ASSERT_TRUE(server.wait_accepted(1));
  EXPECT_EQ(nmailthreadclose, 0);
  server.release();
  notifier.join();
  EXPECT_EQ(nmailthreadclose, 1);
}

TEST_F(Notifier, ProducerWaitsForTheDrainAndItsAddressIsNeverSent) {
  ScriptedSmtp server(held_greeting());
  ng_smtp_port = server.port();
  sendmail_push("in time");
  nexit = 1;
  std::thread notifier(otp_sendmail, nullptr);
  ASSERT_TRUE(server.wait_accepted(1));
  EXPECT_TRUE(queue_is_locked());

  int closed_after_push = 0;
  std::thread producer([&] {
    sendmail_push("late");
    closed_after_push = nmailthreadclose;
  });
  server.release();
  notifier.join();
  producer.join();
  EXPECT_EQ(closed_after_push, 1);
  EXPECT_EQ(recipients(server), Texts{"in time"});
  ASSERT_EQ(queued(), 1U);
  EXPECT_STREQ(sendmaillist[0], "late");
}

TEST_F(Notifier, DrainGivesUpInTimeAlthoughOneDialogueHangs) {
  zelvan::set_mail_limits({.closing = milliseconds(150)});  // a call alone might take 30 s
  ScriptedSmtp server(held_greeting());
  ng_smtp_port = server.port();
  for (int i = 0; i < 3; ++i) sendmail_push("a@zelvan.test");
  nexit = 1;
  const auto start = std::chrono::steady_clock::now();
  (void)otp_sendmail(nullptr);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(nmailthreadclose, 1);
  EXPECT_EQ(queued(), 0U) << "what could not be sent is dropped";
  ASSERT_TRUE(server.wait_ended(1));
  EXPECT_EQ(server.sessions(), Texts{""});
}

TEST_F(Notifier, DrainGivesUpInTimeAlthoughEveryDialogueIsSlow) {
  zelvan::set_mail_limits({.call = milliseconds(100), .closing = milliseconds(250)});
  ScriptedSmtp server(held_greeting());
  ng_smtp_port = server.port();
  for (int i = 0; i < 100; ++i) sendmail_push("a@zelvan.test");
  nexit = 1;
  (void)otp_sendmail(nullptr);
  EXPECT_EQ(queued(), 0U);
  EXPECT_EQ(nmailthreadclose, 1);
  EXPECT_LE(server.sessions().size(), 4U) << "about one dialogue in 100 ms";
}

TEST_F(Notifier, DialogueThatHangsWhenTheExitComesIsGivenUpInTime) {
  zelvan::set_mail_limits({.closing = milliseconds(150)});
  ScriptedSmtp server(held_greeting());
  ng_smtp_port = server.port();
  sendmail_push("a@zelvan.test");
  std::thread notifier(otp_sendmail, nullptr);
  ASSERT_TRUE(server.wait_accepted(1));
  const auto start = std::chrono::steady_clock::now();
  nexit = 1;
  notifier.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(nmailthreadclose, 1);
}
