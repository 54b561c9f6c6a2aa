#include "mail/OTP_SMTP.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <tuple>
#include <vector>

#include "failing_send.h"
#include "mail/time_limits.h"
#include "smtp_fixture.h"
#include "support/fake_clock.h"
#include "support/scripted_smtp.h"

using namespace zelvan::test;
using std::chrono::milliseconds;

namespace {

class OtpSmtp : public testing::Test {
 protected:
  OtpSmtp() { set_clock(1'700'000'000); }
  ~OtpSmtp() override {
    fail_send(0);
    zelvan::set_mail_limits({});
  }
};

int send_mail(OTP_SMTP& client, const char* body = "body", int type = SMTP_CONTENT_PLAIN) {
  return client.sendmail("to@zelvan.test", "from@zelvan.test", "subject", body, type);
}

// The result of sendmail against a server with this script.
int result_of(const SmtpScript& script, int authneed = 0) {
  ScriptedSmtp server(script);
  OTP_SMTP client("127.0.0.1", "u", "secret", authneed, server.port());
  return send_mail(client);
}

SmtpScript with_reply(SmtpScript script, std::size_t step, SmtpReply reply) {
  script[step] = std::move(reply);
  return script;
}

std::string headers(const std::string& content_type) {
  return "From: <from@zelvan.test>\r\nTo: <to@zelvan.test>\r\nDate: 2023-11-14 22:13:20\r\nSubject: subject\r\n"
         "MIME-Version: 1.0\r\n" +
         content_type + "Content-Transfer-Encoding: 7Bit\r\n\r\n\r\n";
}

std::string envelope() { return "MAIL From: from@zelvan.test\r\nRCPT TO: to@zelvan.test\r\nDATA\r\n"; }

std::string dialogue(const std::string& login, const std::string& content) {
  return "HELO " + host_name() + "\r\n" + login + envelope() + content + "\r\n.\r\nquit\r\n";
}

constexpr const char* kPlain = "Content-Type: text/plain\r\n";

// What the server was told in a dialogue without a login.
std::string told_with(const char* body, int type) {
  ScriptedSmtp server(smtp_dialogue());
  OTP_SMTP client("127.0.0.1", nullptr, nullptr, 0, server.port());
  EXPECT_EQ(send_mail(client, body, type), SENDMAIL_OK);
  EXPECT_TRUE(server.wait_ended(1));
  return server.sessions().at(0);
}

}  // namespace

// ---- bad arguments

TEST_F(OtpSmtp, MissingRecipientIsRefusedWithoutAConnection) {
  ScriptedSmtp server(smtp_dialogue());
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  EXPECT_EQ(client.sendmail(nullptr, "from@zelvan.test", "s", "b", 1), SENDMAIL_NO_RECIPIENT);
  EXPECT_EQ(client.sendmail(nullptr, nullptr, "s", "b", 1), SENDMAIL_NO_RECIPIENT);
  EXPECT_TRUE(server.sessions().empty());
}

TEST_F(OtpSmtp, MissingSenderIsRefusedWithoutAConnection) {
  ScriptedSmtp server(smtp_dialogue());
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  EXPECT_EQ(client.sendmail("to@zelvan.test", nullptr, "s", "b", 1), SENDMAIL_NO_SENDER);
  EXPECT_TRUE(server.sessions().empty());
}

TEST_F(OtpSmtp, MissingSubjectAndBodyReadAsEmpty) {
  ScriptedSmtp server(smtp_dialogue());
  OTP_SMTP client("127.0.0.1", nullptr, nullptr, 0, server.port());
  EXPECT_EQ(client.sendmail("t", "f", nullptr, nullptr, 0), SENDMAIL_OK);
  ASSERT_TRUE(server.wait_ended(1));
  EXPECT_NE(server.sessions().at(0).find("Subject: \r\nMIME-Version: 1.0\r\n"), std::string::npos);
}

TEST_F(OtpSmtp, ResultCodesAreThoseThatCallersKnow) {
  EXPECT_EQ(SENDMAIL_OK, 1);
  EXPECT_EQ(SENDMAIL_NO_RECIPIENT, -1);
  EXPECT_EQ(SENDMAIL_NO_SENDER, -2);
  EXPECT_EQ(SENDMAIL_NOT_RESOLVED, -3);
  EXPECT_EQ(SENDMAIL_CONNECT_FAILED, -4);
  EXPECT_EQ(SENDMAIL_DISCONNECT_FAILED, -5);
}

// ---- the server's address

TEST_F(OtpSmtp, IsIpTakesDigitsAndFullStopsOnly) {
  for (const char* text : {"192.168.1.10", "300.1", ".", "0", ""}) {
    EXPECT_TRUE(OTP_SMTP::isIP(text)) << text;
    EXPECT_TRUE(OTP_SMTP::isIP(std::string(text))) << text;
  }
  for (const char* text : {"mail.zelvan.test", "1.2.3.4 ", "::1", "-1", "1,2", "\xb2"}) {
    EXPECT_FALSE(OTP_SMTP::isIP(text)) << text;
    EXPECT_FALSE(OTP_SMTP::isIP(std::string(text))) << text;
  }
  EXPECT_FALSE(OTP_SMTP::isIP(nullptr));
}

TEST_F(OtpSmtp, NameThatResolvesIsConnectedTo) {
  ScriptedSmtp server(smtp_dialogue());
  OTP_SMTP client("localhost", "u", "p", 0, server.port());
  EXPECT_EQ(send_mail(client), SENDMAIL_OK);
}

TEST_F(OtpSmtp, NameThatDoesNotResolveOpensNoSocket) {
  ScriptedSmtp server(smtp_dialogue());
  OTP_SMTP client("mail.zelvan.invalid", "u", "p", 0, server.port());  // RFC 6761 section 6.4
  const auto before = open_descriptors();
  EXPECT_EQ(send_mail(client), SENDMAIL_NOT_RESOLVED);
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_TRUE(server.sessions().empty());
}

TEST_F(OtpSmtp, DigitsThatAreNoAddressAndTheEmptyNameFailToConnect) {
  for (const char* name : {"300.1", ""}) {
    OTP_SMTP client(name, "u", "p", 0, 25);
    EXPECT_EQ(send_mail(client), SENDMAIL_CONNECT_FAILED) << name;
    EXPECT_EQ(client.smtp_connect(), SMTP_CONNECT_REFUSED) << name;
  }
  OTP_SMTP client(nullptr, nullptr, nullptr, 0, 25);
  EXPECT_EQ(send_mail(client), SENDMAIL_CONNECT_FAILED);
}

TEST_F(OtpSmtp, PortIsCutTo16Bits) {
  ScriptedSmtp server(smtp_dialogue());
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port() + 65536);
  EXPECT_EQ(send_mail(client), SENDMAIL_OK);
}

// ---- whole dialogues

TEST_F(OtpSmtp, DialogueWithoutLoginIsTheseBytes) {
  EXPECT_EQ(told_with("body", SMTP_CONTENT_PLAIN), dialogue("", headers(kPlain) + "body"));
}

TEST_F(OtpSmtp, DialogueWithLoginIsTheseBytes) {
  ScriptedSmtp server(smtp_login_dialogue());
  OTP_SMTP client("127.0.0.1", "u", "secret", 1, server.port());
  EXPECT_EQ(send_mail(client), SENDMAIL_OK);
  ASSERT_TRUE(server.wait_ended(1));
  EXPECT_EQ(server.sessions().at(0), dialogue("AUTH LOGIN\r\ndQ==\r\nc2VjcmV0\r\n", headers(kPlain) + "body"));
}

TEST_F(OtpSmtp, AnyNumberButZeroAsksForALogin) { EXPECT_EQ(result_of(smtp_login_dialogue(), -7), SENDMAIL_OK); }

TEST_F(OtpSmtp, EmptyUserAndPasswordAreEmptyLines) {
  ScriptedSmtp server(smtp_login_dialogue());
  OTP_SMTP client("127.0.0.1", nullptr, nullptr, 1, server.port());
  EXPECT_EQ(send_mail(client), SENDMAIL_OK);
  ASSERT_TRUE(server.wait_ended(1));
  EXPECT_NE(server.sessions().at(0).find("AUTH LOGIN\r\n\r\n\r\nMAIL"), std::string::npos);
}

TEST_F(OtpSmtp, LongestConfiguredUserAndPasswordFit) {
  const std::string user(55, 'u');
  const std::string password(55, '\xff');
  ScriptedSmtp server(smtp_login_dialogue());
  OTP_SMTP client("127.0.0.1", user.c_str(), password.c_str(), 1, server.port());
  EXPECT_EQ(send_mail(client), SENDMAIL_OK);
  ASSERT_TRUE(server.wait_ended(1));
  std::string encoded;
  for (int group = 0; group < 18; ++group) encoded += "dXV1";
  EXPECT_NE(server.sessions().at(0).find("\r\n" + encoded + "dQ==\r\n" + std::string(72, '/') + "/w==\r\nMAIL"),
            std::string::npos);
}

TEST_F(OtpSmtp, HtmlHasItsContentType) {
  EXPECT_EQ(told_with("<p>", SMTP_CONTENT_HTML), dialogue("", headers("Content-Type: text/html\r\n") + "<p>"));
}

TEST_F(OtpSmtp, OtherContentTypesHaveNoHeader) {
  for (const int type : {0, 3, -1}) EXPECT_EQ(told_with("body", type), dialogue("", headers("") + "body")) << type;
}

TEST_F(OtpSmtp, DateIsThatOfTheConstructor) {
  ScriptedSmtp server(smtp_dialogue());
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  advance_clock(3600);
  EXPECT_EQ(send_mail(client), SENDMAIL_OK);
  ASSERT_TRUE(server.wait_ended(1));
  EXPECT_NE(server.sessions().at(0).find("Date: 2023-11-14 22:13:20\r\n"), std::string::npos);
}

TEST_F(OtpSmtp, SubjectAndAddressesGoOutRaw) {
  ScriptedSmtp server(smtp_dialogue());
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  EXPECT_EQ(client.sendmail("<t>", "J\xc3\xb6rg f", "\xe4%s", "", 0), SENDMAIL_OK);
  ASSERT_TRUE(server.wait_ended(1));
  const std::string told = server.sessions().at(0);
  EXPECT_NE(told.find("MAIL From: J\xc3\xb6rg f\r\nRCPT TO: <t>\r\n"), std::string::npos);
  EXPECT_NE(told.find("From: <J\xc3\xb6rg f>\r\nTo: <<t>>\r\n"), std::string::npos);
  EXPECT_NE(told.find("Subject: \xe4%s\r\n"), std::string::npos);
}

TEST_F(OtpSmtp, SecondMailOverOneObjectHasABodyOfItsOwn) {
  ScriptedSmtp server(smtp_dialogue());
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  EXPECT_EQ(send_mail(client, "one"), SENDMAIL_OK);
  EXPECT_EQ(send_mail(client, "two"), SENDMAIL_OK);
  ASSERT_TRUE(server.wait_ended(2));
  EXPECT_EQ(server.sessions().at(1), dialogue("", headers(kPlain) + "two"));
}

// ---- replies

TEST_F(OtpSmtp, ReplyCodeIsTheFirstThreeCharacters) {
  EXPECT_EQ(zelvan::reply_code("220 ready"), 220);
  EXPECT_EQ(zelvan::reply_code("\r\n220 ready"), 220);
  EXPECT_EQ(zelvan::reply_code("250"), 250);
  EXPECT_EQ(zelvan::reply_code("\n220"), ('\n' - '0') * 100 + 22);
}

TEST_F(OtpSmtp, ReplyCodeTakesSignedCharactersWithoutACheck) {
  EXPECT_EQ(zelvan::reply_code(""), -5328);
  EXPECT_EQ(zelvan::reply_code("\r\n"), -5328);
  EXPECT_EQ(zelvan::reply_code("2"), 200 - 48 * 11);
  EXPECT_EQ(zelvan::reply_code("abc"), 97 * 100 + 98 * 10 + 99 - 5328);
  EXPECT_EQ(zelvan::reply_code("\xff\xff\xff"), -111 - 5328);
  EXPECT_EQ(zelvan::reply_code("1:0"), 200) << "a colon follows nine: 1 * 100 + 10 * 10";
}

TEST_F(OtpSmtp, GreetingAfterALineEndIsAccepted) {
  EXPECT_EQ(result_of(with_reply(smtp_dialogue(), kGreeting, {"\r\n220 ready\r\n"})), SENDMAIL_OK);
}

TEST_F(OtpSmtp, MultiLineReplyIsAcceptedByItsFirstLine) {
  EXPECT_EQ(result_of(with_reply(smtp_dialogue(), kHelo, {"250-hello\r\n250-SIZE\r\n500 not looked at\r\n"})),
            SENDMAIL_OK);
}

TEST_F(OtpSmtp, ReplySplitAfterItsCodeLeavesTheRestToTheNextStep) {
  SmtpReply split{"250 he"};
  split.tail = "llo\r\n";  // read as the reply to MAIL: the mail is not sent, and the quit meets a later reply
  ScriptedSmtp server(with_reply(smtp_dialogue(), kHelo, split));
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  EXPECT_EQ(send_mail(client), SENDMAIL_DISCONNECT_FAILED);
  ASSERT_TRUE(server.wait_ended(1));
  EXPECT_EQ(server.sessions().at(0), "HELO " + host_name() + "\r\nMAIL From: from@zelvan.test\r\nquit\r\n");
}

TEST_F(OtpSmtp, ReplySplitInsideItsCodeIsNotTheCode) {
  SmtpReply split{"25"};
  split.tail = "0 hello\r\n";
  EXPECT_EQ(result_of(with_reply(smtp_dialogue(), kHelo, split)), SENDMAIL_CONNECT_FAILED);
}

TEST_F(OtpSmtp, OneReceiveTakes128Bytes) {
  // The rest of the 128 + n bytes is the next reply: "250" at its head lets the dialogue go on, one reply ahead.
  SmtpScript script = smtp_dialogue();
  script[kHelo] = {"250" + std::string(125, 'x') + "250 read as the reply to MAIL\r\n"};
  ScriptedSmtp server(script);
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  ASSERT_EQ(client.smtp_connect(), SMTP_CONNECT_OK);
  EXPECT_EQ(client.check_response(250), CHECK_RESPONSE_MATCH);
}

TEST_F(OtpSmtp, LateReplyWithinTheLimitIsWaitedFor) {
  SmtpReply late{"220 ready\r\n"};
  late.delay = milliseconds(50);
  EXPECT_EQ(result_of(with_reply(smtp_dialogue(), kGreeting, late)), SENDMAIL_OK);
}

TEST_F(OtpSmtp, CheckResponseTellsMatchOtherCodeAndFailure) {
  SmtpScript script{{"220 a\r\n"}, {"250 b\r\n"}};
  ScriptedSmtp server(script);
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  ASSERT_EQ(client.smtp_connect(), SMTP_CONNECT_OK);
  zelvan::set_mail_limits({.call = milliseconds(20)});
  EXPECT_EQ(client.check_response(250), CHECK_RESPONSE_NOT_RECEIVED);
  EXPECT_EQ(CHECK_RESPONSE_NOT_RECEIVED, -4);
}

TEST_F(OtpSmtp, CheckResponseReadsAClosedConnectionAsAnotherCode) {
  SmtpReply last{"250 b\r\n"};
  last.close = true;
  ScriptedSmtp server({{"220 a\r\n"}, last});
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  ASSERT_EQ(client.smtp_connect(), SMTP_CONNECT_OK);
  EXPECT_EQ(client.check_response(250), CHECK_RESPONSE_OTHER_CODE);
}

// ---- connecting fails

TEST_F(OtpSmtp, ConnectWithoutADescriptorLeftIsMinusOne) {
  OTP_SMTP client("127.0.0.1", "u", "p", 0, 25);
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  rlimit none = limit;
  none.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const int step = client.smtp_connect();
  const int whole = send_mail(client);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(step, SMTP_CONNECT_NO_SOCKET);
  EXPECT_EQ(step, -1);
  EXPECT_EQ(whole, SENDMAIL_CONNECT_FAILED);
}

TEST_F(OtpSmtp, ConnectToAClosedPortIsMinusTwo) {
  const ClosedPort closed;
  OTP_SMTP client("127.0.0.1", "u", "p", 0, closed.port());
  EXPECT_EQ(client.smtp_connect(), SMTP_CONNECT_REFUSED);
  EXPECT_EQ(SMTP_CONNECT_REFUSED, -2);
  EXPECT_EQ(send_mail(client), SENDMAIL_CONNECT_FAILED);
}

TEST_F(OtpSmtp, ConnectThatNobodyAnswersIsGivenUp) {
  const ClosedPort full;
  full.listen_only();
  std::vector<int> waiting;  // fill the queue of unaccepted connections: further ones stay unanswered
  for (int i = 0; i < 4; ++i) {
    const int filler = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(full.port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    (void)connect(filler, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    waiting.push_back(filler);
  }
  zelvan::set_mail_limits({.call = milliseconds(50)});
  OTP_SMTP client("127.0.0.1", "u", "p", 0, full.port());
  const auto before = open_descriptors();
  EXPECT_EQ(client.smtp_connect(), SMTP_CONNECT_REFUSED);
  EXPECT_EQ(open_descriptors(), before);
  for (const int filler : waiting) (void)close(filler);
}

struct ConnectFailure {
  const char* name;
  std::size_t step;     // of smtp_login_dialogue
  const char* reply;    // null: the server closes instead
  int send_that_fails;  // 0: none
  int code;
  int value;
};

class OtpSmtpConnect : public testing::TestWithParam<ConnectFailure> {
 protected:
  ~OtpSmtpConnect() override { fail_send(0); }
};

TEST_P(OtpSmtpConnect, FailsWithTheCodeOfItsStepAndClosesTheSocket) {
  const ConnectFailure& failure = GetParam();
  SmtpScript script = smtp_login_dialogue();
  if (failure.send_that_fails == 0) script[failure.step].text = failure.reply == nullptr ? "" : failure.reply;
  script[failure.step].close = failure.reply == nullptr;
  ScriptedSmtp server(script);
  OTP_SMTP client("127.0.0.1", "u", "secret", 1, server.port());

  fail_send(failure.send_that_fails);
  EXPECT_EQ(client.smtp_connect(), failure.code);
  EXPECT_EQ(failure.code, failure.value);
  ASSERT_TRUE(server.wait_ended(1)) << "the server saw the connection close";
  const auto before = open_descriptors();
  EXPECT_EQ(client.sendmessage(), SENDMESSAGE_NOT_CONNECTED);

  fail_send(failure.send_that_fails);
  EXPECT_EQ(send_mail(client), SENDMAIL_CONNECT_FAILED);
  ASSERT_TRUE(server.wait_ended(2));
  fail_send(failure.send_that_fails);
  EXPECT_EQ(send_mail(client), SENDMAIL_CONNECT_FAILED);
  ASSERT_TRUE(server.wait_ended(3));
  // The server's own end of the last connection may still be on its way to close.
  EXPECT_LE(open_descriptors(), before + 1);
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, OtpSmtpConnect,
    testing::Values(ConnectFailure{"GreetingRefused", kGreeting, "554 no\r\n", 0, SMTP_CONNECT_NO_GREETING, -3},
                    ConnectFailure{"GreetingClosed", kGreeting, nullptr, 0, SMTP_CONNECT_NO_GREETING, -3},
                    ConnectFailure{"HeloNotSent", kHelo, "", 1, SMTP_CONNECT_HELO_NOT_SENT, -3},
                    ConnectFailure{"HeloRefused", kHelo, "501 no\r\n", 0, SMTP_CONNECT_HELO_REFUSED, -4},
                    ConnectFailure{"HeloClosed", kHelo, nullptr, 0, SMTP_CONNECT_HELO_REFUSED, -4},
                    ConnectFailure{"AuthNotSent", kAuth, "", 2, SMTP_CONNECT_AUTH_NOT_SENT, -5},
                    ConnectFailure{"AuthRefused", kAuth, "502 no\r\n", 0, SMTP_CONNECT_AUTH_REFUSED, -6},
                    ConnectFailure{"UserNotSent", kUser, "", 3, SMTP_CONNECT_LOGIN_NOT_SENT, -8},
                    ConnectFailure{"UserRefused", kUser, "535 no\r\n", 0, SMTP_CONNECT_LOGIN_REFUSED, -9},
                    ConnectFailure{"PasswordNotSent", kPassword, "", 4, SMTP_CONNECT_LOGIN_NOT_SENT, -8},
                    ConnectFailure{"PasswordRefused", kPassword, "535 no\r\n", 0, SMTP_CONNECT_LOGIN_REFUSED, -9},
                    ConnectFailure{"PasswordAnsweredLikeAUser", kPassword, "334 more\r\n", 0,
                                   SMTP_CONNECT_LOGIN_REFUSED, -9}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(OtpSmtp, UserOrPasswordBeyondTheBufferIsMinusSeven) {
  const std::string fits(93, 'x');
  const std::string too_long(94, 'x');
  for (const auto& [user, password, code] :
       {std::tuple{too_long, fits, SMTP_CONNECT_NOT_ENCODED}, std::tuple{fits, too_long, SMTP_CONNECT_NOT_ENCODED},
        std::tuple{fits, fits, SMTP_CONNECT_OK}}) {
    ScriptedSmtp server(smtp_login_dialogue());
    OTP_SMTP client("127.0.0.1", user.c_str(), password.c_str(), 1, server.port());
    EXPECT_EQ(client.smtp_connect(), code);
    if (code != SMTP_CONNECT_OK) {
      EXPECT_TRUE(server.wait_ended(1));
    }
  }
  EXPECT_EQ(SMTP_CONNECT_NOT_ENCODED, -7);
}

TEST_F(OtpSmtp, FailedConnectsLeakNoDescriptor) {
  const ClosedPort closed;
  OTP_SMTP client("127.0.0.1", "u", "p", 0, closed.port());
  const auto before = open_descriptors();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(send_mail(client), SENDMAIL_CONNECT_FAILED);
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(OtpSmtp, SilentServerIsGivenUpAfterTheLimit) {
  SmtpReply never{"220 ready\r\n"};
  never.hold = true;
  zelvan::set_mail_limits({.call = milliseconds(50)});
  ScriptedSmtp server(with_reply(smtp_dialogue(), kGreeting, never));
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  EXPECT_EQ(client.smtp_connect(), SMTP_CONNECT_NO_GREETING);
  EXPECT_TRUE(server.wait_ended(1)) << "the socket is closed";
}

TEST_F(OtpSmtp, CallsMayTakeThirtySecondsUnlessATestSaysOtherwise) {
  EXPECT_EQ(zelvan::mail_limits().call, std::chrono::seconds(30));
  EXPECT_EQ(zelvan::mail_limits().closing, std::chrono::seconds(55));
}

// ---- the message fails

TEST_F(OtpSmtp, MessageWithoutAConnectionIsMinusOne) {
  OTP_SMTP client("127.0.0.1", "u", "p", 0, 25);
  EXPECT_EQ(client.sendmessage(), SENDMESSAGE_NOT_CONNECTED);
  EXPECT_EQ(SENDMESSAGE_NOT_CONNECTED, -1);
  EXPECT_EQ(client.smtp_disconnect(), SMTP_DISCONNECT_NOT_SENT) << "descriptor 0 is somebody else's";
}

TEST_F(OtpSmtp, EmptyRecipientOrSenderQuitsWithoutAnEnvelope) {
  for (const auto& [to, from] : {std::pair{"", "from@zelvan.test"}, std::pair{"to@zelvan.test", ""}}) {
    ScriptedSmtp server({{"220 a\r\n"}, {"250 b\r\n"}, {"221 c\r\n"}});
    OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
    EXPECT_EQ(client.sendmail(to, from, "s", "b", 1), SENDMAIL_OK);
    ASSERT_TRUE(server.wait_ended(1));
    EXPECT_EQ(server.sessions().at(0), "HELO " + host_name() + "\r\nquit\r\n");
  }
}

TEST_F(OtpSmtp, MessageWithoutRecipientIsMinusTwo) {
  ScriptedSmtp server({{"220 a\r\n"}, {"250 b\r\n"}, {"221 c\r\n"}});
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  ASSERT_EQ(client.smtp_connect(), SMTP_CONNECT_OK);
  EXPECT_EQ(client.sendmessage(), SENDMESSAGE_NO_RECIPIENT);
  EXPECT_EQ(SENDMESSAGE_NO_RECIPIENT, -2);
}

TEST_F(OtpSmtp, MessageWithoutSenderIsMinusThree) {
  ScriptedSmtp server({{"220 a\r\n"}, {"250 b\r\n"}, {"221 c\r\n"}});
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  ASSERT_EQ(client.sendmail("to@zelvan.test", "", "s", "b", 1), SENDMAIL_OK);
  ASSERT_EQ(client.smtp_connect(), SMTP_CONNECT_OK);
  EXPECT_EQ(client.sendmessage(), SENDMESSAGE_NO_SENDER);
  EXPECT_EQ(SENDMESSAGE_NO_SENDER, -3);
}

struct MessageFailure {
  const char* name;
  std::size_t step;     // of smtp_dialogue
  int send_that_fails;  // 0: the step is refused instead
  int code;
  int value;
};

// The texts go in through sendmail, so a first mail fills the object and a second one takes the steps by hand.
class OtpSmtpMessage : public testing::TestWithParam<MessageFailure> {
 protected:
  ~OtpSmtpMessage() override { fail_send(0); }
};

TEST_P(OtpSmtpMessage, FailsWithTheCodeOfItsStepAndTheQuitStillCounts) {
  const MessageFailure& failure = GetParam();
  SmtpScript script = smtp_dialogue();
  script.resize(failure.step);
  if (failure.send_that_fails == 0) script.push_back({"550 no\r\n"});
  script.push_back({"221 bye\r\n"});
  ScriptedSmtp server(script);
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());

  fail_send(failure.send_that_fails);
  EXPECT_EQ(send_mail(client), SENDMAIL_OK) << "the mail's own fate does not count";
  ASSERT_TRUE(server.wait_ended(1));
  EXPECT_EQ(server.sessions().at(0).substr(server.sessions().at(0).size() - 6), "quit\r\n");

  fail_send(failure.send_that_fails);
  ASSERT_EQ(client.smtp_connect(), SMTP_CONNECT_OK);
  EXPECT_EQ(client.sendmessage(), failure.code);
  EXPECT_EQ(failure.code, failure.value);
  EXPECT_EQ(client.smtp_disconnect(), SMTP_DISCONNECT_OK);
}

INSTANTIATE_TEST_SUITE_P(EveryStep, OtpSmtpMessage,
                         testing::Values(MessageFailure{"MailNotSent", kMail, 2, SENDMESSAGE_ENVELOPE_NOT_SENT, -4},
                                         MessageFailure{"MailRefused", kMail, 0, SENDMESSAGE_ENVELOPE_REFUSED, -5},
                                         MessageFailure{"RcptNotSent", kRcpt, 3, SENDMESSAGE_ENVELOPE_NOT_SENT, -4},
                                         MessageFailure{"RcptRefused", kRcpt, 0, SENDMESSAGE_ENVELOPE_REFUSED, -5},
                                         MessageFailure{"DataNotSent", kData, 4, SENDMESSAGE_DATA_NOT_SENT, -6},
                                         MessageFailure{"DataRefused", kData, 0, SENDMESSAGE_DATA_REFUSED, -7},
                                         MessageFailure{"BodyRefused", kMessage, 0, SENDMESSAGE_BODY_REFUSED, -9}),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(OtpSmtp, BodyThatCannotBeSentIsMinusEight) {
  ScriptedSmtp server(smtp_dialogue());
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  EXPECT_EQ(send_mail(client), SENDMAIL_OK);
  ASSERT_EQ(client.smtp_connect(), SMTP_CONNECT_OK);
  fail_send(4);
  EXPECT_EQ(client.sendmessage(), SENDMESSAGE_BODY_NOT_SENT);
  EXPECT_EQ(SENDMESSAGE_BODY_NOT_SENT, -8);
}

TEST_F(OtpSmtp, RefusedRecipientIsStillAMailSentWhenTheQuitIsAnswered) {
  SmtpScript script = smtp_dialogue();
  script.resize(kRcpt);
  script.push_back({"550 no such user\r\n"});
  script.push_back({"221 bye\r\n"});
  ScriptedSmtp server(script);
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  EXPECT_EQ(send_mail(client), SENDMAIL_OK);
  ASSERT_TRUE(server.wait_ended(1));
  EXPECT_EQ(server.sessions().at(0),
            "HELO " + host_name() + "\r\nMAIL From: from@zelvan.test\r\nRCPT TO: to@zelvan.test\r\nquit\r\n");
}

TEST_F(OtpSmtp, MessageThatTheServerDoesNotReadIsGivenUp) {
  SmtpReply deaf{"354 go ahead\r\n"};
  deaf.deaf = true;
  zelvan::set_mail_limits({.call = milliseconds(100)});
  ScriptedSmtp server(with_reply(smtp_dialogue(), kData, deaf));
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  const std::string larger_than_any_buffer(std::size_t{32} << 20U, 'x');
  EXPECT_EQ(send_mail(client, larger_than_any_buffer.c_str()), SENDMAIL_DISCONNECT_FAILED);
}

TEST_F(OtpSmtp, LargeBodyArrivesWhole) {
  const std::string large(1 << 20, 'x');
  EXPECT_EQ(told_with(large.c_str(), 0), dialogue("", headers("") + large));
}

// ---- quitting fails

TEST_F(OtpSmtp, QuitThatIsNotAnsweredWith221Fails) {
  EXPECT_EQ(result_of(with_reply(smtp_dialogue(), kQuit, {"500 what\r\n"})), SENDMAIL_DISCONNECT_FAILED);
  SmtpReply closing;
  closing.close = true;
  EXPECT_EQ(result_of(with_reply(smtp_dialogue(), kQuit, closing)), SENDMAIL_DISCONNECT_FAILED);
}

TEST_F(OtpSmtp, QuitThatCannotBeSentFails) {
  ScriptedSmtp server(smtp_dialogue());
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  fail_send(6);
  EXPECT_EQ(send_mail(client), SENDMAIL_DISCONNECT_FAILED);
  EXPECT_TRUE(server.wait_ended(1)) << "the socket is closed all the same";
}

TEST_F(OtpSmtp, QuitHasACodeForEachFailure) {
  ScriptedSmtp server({{"220 a\r\n"}, {"250 b\r\n"}, {"500 c\r\n"}});
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  ASSERT_EQ(client.smtp_connect(), SMTP_CONNECT_OK);
  EXPECT_EQ(client.smtp_disconnect(), SMTP_DISCONNECT_REFUSED);
  fail_send(1);
  EXPECT_EQ(client.smtp_disconnect(), SMTP_DISCONNECT_NOT_SENT);
  EXPECT_EQ(SMTP_DISCONNECT_NOT_SENT, -1);
  EXPECT_EQ(SMTP_DISCONNECT_REFUSED, -2);
}

TEST_F(OtpSmtp, FinishedMailLeavesNoDescriptor) {
  ScriptedSmtp server(smtp_dialogue());
  const auto before = open_descriptors();
  OTP_SMTP client("127.0.0.1", "u", "p", 0, server.port());
  for (std::size_t i = 1; i <= 10; ++i) {
    EXPECT_EQ(send_mail(client), SENDMAIL_OK);
    ASSERT_TRUE(server.wait_ended(i));
  }
  EXPECT_LE(open_descriptors(), before + 1);
}

// ---- full stops in the body

TEST_F(OtpSmtp, BodyWithoutAStopAtALineEndIsLeftAlone) {
  for (const char* body : {"", "a", ".", "..", "a.b", ".\n", ".\r", "\r\n", "\r\n.", "a.\nb"}) {
    EXPECT_EQ(zelvan::cook_mail_body(body), body);
  }
}

TEST_F(OtpSmtp, StopFoundReplacesTheTextAtTheSearchStart) {
  EXPECT_EQ(zelvan::cook_mail_body("a.\r\nb"), "..\r\n\nb");
  EXPECT_EQ(zelvan::cook_mail_body("abcdef.\r\n"), "..\r\n..\r\n..\r\n");
}

TEST_F(OtpSmtp, BodyOfOneStopLineIsDoubledOnce) { EXPECT_EQ(zelvan::cook_mail_body(".\r\n"), "..\r\n"); }

TEST_F(OtpSmtp, EveryFurtherSearchStartsFourCharactersOn) {
  EXPECT_EQ(zelvan::cook_mail_body(".\r\n.\r\n"), "..\r\n..\r\n");
  EXPECT_EQ(zelvan::cook_mail_body("x\r\n.\r\n"), "..\r\n..\r\n");
  EXPECT_EQ(zelvan::cook_mail_body("xy\r\n.\r\n"), "..\r\n..\r\n\n");
}

TEST_F(OtpSmtp, CookedBodyIsWhatGoesOut) {
  EXPECT_EQ(told_with("a.\r\nb", 0), dialogue("", headers("") + "..\r\n\nb"));
  EXPECT_EQ(told_with(".\r\n", 0), dialogue("", headers("") + "..\r\n"));
}
