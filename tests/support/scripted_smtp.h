// A mail server that says what a test told it to say and remembers every byte that it was told.
//
// It listens on a loopback port of its own, in a thread of its own, and serves one connection after the other, each
// with the whole script: the first reply greets, every further one answers a line, or a message once a reply that
// begins with 354 has been sent.  When the script is at its end the server only listens until the client closes.
//
// Threads  Every member may be called by any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zelvan::test {

struct SmtpReply {
  std::string text;                    // sent in one send; nothing is sent when empty
  std::string tail = {};               // sent in a send of its own, once the client has sent its next line
  std::chrono::milliseconds delay{0};  // before the text
  bool hold = false;                   // wait for release() before the text
  bool close = false;                  // close the connection after the text
  bool deaf = false;                   // after the text read nothing more, until release()
};

using SmtpScript = std::vector<SmtpReply>;

// A whole dialogue that accepts everything: greeting, HELO, [AUTH LOGIN, user, password], MAIL, RCPT, DATA, message,
// quit.
SmtpScript smtp_dialogue();
SmtpScript smtp_login_dialogue();

// Where the replies stand in a script of smtp_dialogue, and the first of those after the login in smtp_login_dialogue.
enum SmtpStep : std::size_t { kGreeting, kHelo, kMail, kRcpt, kData, kMessage, kQuit };
enum SmtpLoginStep : std::size_t { kAuth = 2, kUser, kPassword, kMailAfterLogin };

class ScriptedSmtp {
 public:
  explicit ScriptedSmtp(SmtpScript script);
  ~ScriptedSmtp();
  ScriptedSmtp(const ScriptedSmtp&) = delete;
  ScriptedSmtp& operator=(const ScriptedSmtp&) = delete;

  [[nodiscard]] int port() const { return port_; }

  // Everything received, byte for byte, one text a connection, in the order of connecting.
  std::vector<std::string> sessions();

  // Waits until `count` connections have been accepted, or have ended.  False after ten seconds.
  bool wait_accepted(std::size_t count);
  bool wait_ended(std::size_t count);

  // Lets a reply with `hold` go out, and all later ones.
  void release();

 private:
  void serve();
  void serve_connection(int connection);
  bool answer(int connection, const SmtpReply& reply);
  bool wait_for_release(int connection);
  bool receive_until(int connection, const std::string& end);
  bool wait_count(const std::size_t& counter, std::size_t count);

  const SmtpScript script_;
  int listener_;
  int port_ = 0;
  std::string unread_;  // the server thread's own

  std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::vector<std::string> sessions_;
  std::size_t accepted_ = 0;
  std::size_t ended_ = 0;
  int connection_ = -1;
  bool released_ = false;
  bool stopped_ = false;

  std::thread thread_;  // last: it uses everything above
};

}  // namespace zelvan::test
