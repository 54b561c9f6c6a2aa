#include "support/scripted_smtp.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <utility>

namespace zelvan::test {
namespace {

constexpr std::chrono::seconds kPatience{10};

// sendto, not send: tests put a send that fails in the place of the client's.
bool put(int connection, const std::string& text) {
  return text.empty() ||
         sendto(connection, text.data(), text.size(), MSG_NOSIGNAL, nullptr, 0) == static_cast<ssize_t>(text.size());
}

bool peer_has_closed(int connection) {
  char byte = 0;
  return recv(connection, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

}  // namespace

SmtpScript smtp_dialogue() {
  return {{"220 mail.test ready\r\n"}, {"250 hello\r\n"},    {"250 sender ok\r\n"}, {"250 recipient ok\r\n"},
          {"354 go ahead\r\n"},        {"250 accepted\r\n"}, {"221 bye\r\n"}};
}

SmtpScript smtp_login_dialogue() {
  SmtpScript script = smtp_dialogue();
  const SmtpScript login{{"334 VXNlcm5hbWU6\r\n"}, {"334 UGFzc3dvcmQ6\r\n"}, {"235 welcome\r\n"}};
  script.insert(script.begin() + kAuth, login.begin(), login.end());
  return script;
}

ScriptedSmtp::ScriptedSmtp(SmtpScript script)
    : script_(std::move(script)), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  (void)bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  (void)listen(listener_, 16);
  (void)getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { serve(); });
}

ScriptedSmtp::~ScriptedSmtp() {
  {
    const std::scoped_lock lock(mutex_);
    stopped_ = true;
    if (connection_ >= 0) (void)shutdown(connection_, SHUT_RDWR);
    (void)shutdown(listener_, SHUT_RDWR);
  }
  changed_.notify_all();
  thread_.join();
  (void)close(listener_);
}

std::vector<std::string> ScriptedSmtp::sessions() {
  const std::scoped_lock lock(mutex_);
  return sessions_;
}

bool ScriptedSmtp::wait_accepted(std::size_t count) { return wait_count(accepted_, count); }

bool ScriptedSmtp::wait_ended(std::size_t count) { return wait_count(ended_, count); }

bool ScriptedSmtp::wait_count(const std::size_t& counter, std::size_t count) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, kPatience, [&] { return counter >= count; });
}

void ScriptedSmtp::release() {
  {
    const std::scoped_lock lock(mutex_);
    released_ = true;
  }
  changed_.notify_all();
}

void ScriptedSmtp::serve() {
  for (;;) {
    const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    {
      const std::scoped_lock lock(mutex_);
      if (connection >= 0 && !stopped_) {
        connection_ = connection;
        sessions_.emplace_back();
        ++accepted_;
      } else {
        if (connection >= 0) (void)close(connection);
        return;
      }
    }
    changed_.notify_all();
    serve_connection(connection);
    {
      const std::scoped_lock lock(mutex_);
      connection_ = -1;
      ++ended_;
    }
    (void)close(connection);
    changed_.notify_all();
  }
}

void ScriptedSmtp::serve_connection(int connection) {
  const int on = 1;
  (void)setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  unread_.clear();
  for (const SmtpReply& reply : script_) {
    if (!answer(connection, reply) || reply.close) return;
    if (reply.deaf && !wait_for_release(connection)) return;
    const bool message_follows = reply.text.substr(0, 3) == "354";
    if (!receive_until(connection, message_follows ? "\r\n.\r\n" : "\r\n") || !put(connection, reply.tail)) return;
  }
  while (receive_until(connection, "\r\n")) {
  }
}

bool ScriptedSmtp::answer(int connection, const SmtpReply& reply) {
  if (reply.hold && !wait_for_release(connection)) return false;
  if (reply.delay.count() > 0) std::this_thread::sleep_for(reply.delay);
  return put(connection, reply.text);
}

bool ScriptedSmtp::wait_for_release(int connection) {
  std::unique_lock lock(mutex_);
  while (!released_) {
    if (stopped_ || peer_has_closed(connection)) return false;
    (void)changed_.wait_for(lock, std::chrono::milliseconds(5));
  }
  return true;
}

// Records what comes in until `end` has been seen.  False when the client closed first.
bool ScriptedSmtp::receive_until(int connection, const std::string& end) {
  std::size_t found = 0;
  while ((found = unread_.find(end)) == std::string::npos) {
    std::array<char, 4096> buffer{};
    const ssize_t received = recv(connection, buffer.data(), buffer.size(), 0);
    if (received <= 0) return false;
    unread_.append(buffer.data(), static_cast<std::size_t>(received));
    const std::scoped_lock lock(mutex_);
    sessions_.back().append(buffer.data(), static_cast<std::size_t>(received));
  }
  unread_.erase(0, found + end.size());
  return true;
}

}  // namespace zelvan::test
