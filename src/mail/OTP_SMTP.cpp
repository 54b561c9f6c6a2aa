#include "mail/OTP_SMTP.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>

#include "base/text.h"
#include "db/time_text.h"
#include "mail/time_limits.h"
#include "otp/Base64.h"

namespace {

// Reply codes, RFC 5321 section 4.2.3 and RFC 4954 section 4.
constexpr int kReady = 220;
constexpr int kClosing = 221;
constexpr int kLoggedIn = 235;
constexpr int kCompleted = 250;
constexpr int kContinueLogin = 334;
constexpr int kStartInput = 354;

constexpr std::size_t kReplySize = 128;      // bytes of a reply that are looked at
constexpr std::size_t kHostNameSize = 100;   // local host name of 99 characters and its NUL
constexpr std::size_t kLoginLineSize = 128;  // 55 characters are 76 in Base64, plus CR LF and NUL
constexpr std::string_view kLineEnd = "\r\n";

std::string text_or_empty(const char* text) { return text == nullptr ? std::string() : std::string(text); }

std::optional<std::string> resolve(const char* name) {
  const hostent* entry = gethostbyname(name);
  if (entry == nullptr || entry->h_addrtype != AF_INET || entry->h_addr_list[0] == nullptr) return std::nullopt;
  in_addr address{};
  std::memcpy(&address, entry->h_addr_list[0], sizeof address);
  return inet_ntoa(address);
}

// Connects within the time limit; the socket is blocking again afterwards.
bool connect_socket(int socket, const sockaddr_in& peer) {
  const int flags = fcntl(socket, F_GETFL);
  if (flags < 0 || fcntl(socket, F_SETFL, flags | O_NONBLOCK) != 0) return false;
  if (connect(socket, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
    if (errno != EINPROGRESS || !zelvan::wait_ready(socket, POLLOUT)) return false;
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0) return false;
  }
  return fcntl(socket, F_SETFL, flags) == 0;
}

// A message that fills the socket's buffer makes send(2) itself wait; this bounds that wait.
bool limit_send(int socket) {
  const auto limit = zelvan::mail_limits().call;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
  const timeval time{.tv_sec = seconds.count(), .tv_usec = std::chrono::microseconds(limit - seconds).count()};
  return setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time) == 0;
}

}  // namespace

// One line out, one reply in.
struct OTP_SMTP::Step {
  std::string_view text;  // sent as it is
  int expected;           // reply code that lets the dialogue go on
  int not_sent;           // result when the text could not be sent
  int refused;            // result when another reply came, or none
};

OTP_SMTP::OTP_SMTP(const char* server, const char* user, const char* password, int authneed, int port)
    : user_(text_or_empty(user)), password_(text_or_empty(password)), authneed_(authneed), port_(port) {
  std::array<char, zelvan::kTimeTextSize> now{};
  (void)otp_getcurdate(now.data());  // without a time the header stays empty
  (void)zelvan::copy_text(date_, std::string_view(now.data(), strnlen(now.data(), now.size())));

  const std::string name = text_or_empty(server);
  if (isIP(name)) {
    server_ = name;
    resolved_ = 1;
  } else if (const auto address = resolve(name.c_str())) {
    server_ = *address;
    resolved_ = 1;
  }
}

OTP_SMTP::~OTP_SMTP() { explicit_bzero(password_.data(), password_.size()); }

int OTP_SMTP::sendmail(const char* to, const char* from, const char* subject, const char* body, int type) {
  if (to == nullptr) return SENDMAIL_NO_RECIPIENT;
  if (from == nullptr) return SENDMAIL_NO_SENDER;
  sender_ = from;
  recipient_ = to;
  subject_ = text_or_empty(subject);
  body_ = text_or_empty(body);
  type_ = type;

  if (resolved_ == 0) return SENDMAIL_NOT_RESOLVED;
  if (smtp_connect() != SMTP_CONNECT_OK) return SENDMAIL_CONNECT_FAILED;

  // Deliberate: the result is ignored, so a mail that the server refused still counts as sent when the quit is
  // answered.
  (void)sendmessage();

  const int result = smtp_disconnect();
  close_socket();
  return result == SMTP_DISCONNECT_OK ? SENDMAIL_OK : SENDMAIL_DISCONNECT_FAILED;
}

int OTP_SMTP::smtp_connect() {
  int result = open_connection();
  if (result == SMTP_CONNECT_NO_SOCKET) return result;
  if (result == SMTP_CONNECT_OK) result = greet();
  if (result == SMTP_CONNECT_OK && authneed_ != 0) result = login();
  if (result == SMTP_CONNECT_OK) {
    connected_ = 1;
  } else {
    close_socket();
  }
  return result;
}

int OTP_SMTP::open_connection() {
  const int opened = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (opened < 0) return SMTP_CONNECT_NO_SOCKET;
  socket_ = opened;

  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(static_cast<std::uint16_t>(port_));
  // A text that is no address yields the broadcast address here, to which no connection can be made.
  peer.sin_addr.s_addr = inet_addr(server_.c_str());
  return connect_socket(socket_, peer) && limit_send(socket_) ? SMTP_CONNECT_OK : SMTP_CONNECT_REFUSED;
}

int OTP_SMTP::greet() {
  if (check_response(kReady) != CHECK_RESPONSE_MATCH) return SMTP_CONNECT_NO_GREETING;
  std::array<char, kHostNameSize> host{};
  (void)gethostname(host.data(), host.size() - 1);  // on failure what fits of the name, or none, is sent
  const std::string helo = std::string("HELO ") + host.data() + "\r\n";
  return exchange({helo, kCompleted, SMTP_CONNECT_HELO_NOT_SENT, SMTP_CONNECT_HELO_REFUSED});
}

int OTP_SMTP::login() {
  int result = exchange({"AUTH LOGIN\r\n", kContinueLogin, SMTP_CONNECT_AUTH_NOT_SENT, SMTP_CONNECT_AUTH_REFUSED});
  if (result == SMTP_CONNECT_OK) result = login_line(user_, kContinueLogin);
  if (result == SMTP_CONNECT_OK) result = login_line(password_, kLoggedIn);
  return result;
}

// Sends `secret` in Base64 on a line of its own; the buffer is wiped afterwards.
int OTP_SMTP::login_line(const std::string& secret, int expected) {
  std::array<char, kLoginLineSize> line{};
  auto* bytes = reinterpret_cast<unsigned char*>(line.data());
  unsigned long length = line.size() - kLineEnd.size();
  int result = SMTP_CONNECT_NOT_ENCODED;
  if (CBase64::Encode(reinterpret_cast<const unsigned char*>(secret.data()), secret.size(), bytes, &length) == 1) {
    std::copy(kLineEnd.begin(), kLineEnd.end(), line.begin() + static_cast<std::ptrdiff_t>(length));
    const std::string_view text(line.data(), length + kLineEnd.size());
    result = exchange({text, expected, SMTP_CONNECT_LOGIN_NOT_SENT, SMTP_CONNECT_LOGIN_REFUSED});
  }
  explicit_bzero(line.data(), line.size());
  return result;
}

int OTP_SMTP::sendmessage() {
  if (connected_ == 0) return SENDMESSAGE_NOT_CONNECTED;
  if (recipient_.empty()) return SENDMESSAGE_NO_RECIPIENT;
  if (sender_.empty()) return SENDMESSAGE_NO_SENDER;

  formatecontent();
  // Deliberate: the addresses stand without the angle brackets that RFC 5321 section 4.1.2 asks for.
  const std::string mail = "MAIL From: " + sender_ + "\r\n";
  const std::string rcpt = "RCPT TO: " + recipient_ + "\r\n";
  const std::array<Step, 4> steps{{
      {mail, kCompleted, SENDMESSAGE_ENVELOPE_NOT_SENT, SENDMESSAGE_ENVELOPE_REFUSED},
      {rcpt, kCompleted, SENDMESSAGE_ENVELOPE_NOT_SENT, SENDMESSAGE_ENVELOPE_REFUSED},
      {"DATA\r\n", kStartInput, SENDMESSAGE_DATA_NOT_SENT, SENDMESSAGE_DATA_REFUSED},
      {message_, kCompleted, SENDMESSAGE_BODY_NOT_SENT, SENDMESSAGE_BODY_REFUSED},
  }};
  for (const Step& step : steps) {
    if (const int result = exchange(step); result != SENDMESSAGE_OK) return result;
  }
  return SENDMESSAGE_OK;
}

int OTP_SMTP::smtp_disconnect() {
  // Without a connection the descriptor belongs to somebody else.
  if (connected_ == 0) return SMTP_DISCONNECT_NOT_SENT;
  return exchange({"quit\r\n", kClosing, SMTP_DISCONNECT_NOT_SENT, SMTP_DISCONNECT_REFUSED});
}

int OTP_SMTP::check_response(int expected) {
  std::array<char, kReplySize + 1> buffer{};
  if (!zelvan::wait_ready(socket_, POLLIN)) return CHECK_RESPONSE_NOT_RECEIVED;
  const ssize_t received = recv(socket_, buffer.data(), kReplySize, 0);
  if (received < 0) return CHECK_RESPONSE_NOT_RECEIVED;
  // Deliberate: what did not arrive in this one receive is read as the next reply.
  const std::string_view reply(buffer.data(), static_cast<std::size_t>(received));
  return zelvan::reply_code(reply) == expected ? CHECK_RESPONSE_MATCH : CHECK_RESPONSE_OTHER_CODE;
}

void OTP_SMTP::formatecontent() {
  cookmailbody();
  message_ = "From: <" + sender_ + ">\r\n";
  message_ += "To: <" + recipient_ + ">\r\n";
  // Deliberate: UTC as "%Y-%m-%d %H:%M:%S", not the date form of RFC 5322.
  message_ += std::string("Date: ") + date_.data() + "\r\n";
  // Deliberate: raw, not encoded as RFC 2047 asks for characters beyond ASCII.
  message_ += "Subject: " + subject_ + "\r\n";
  message_ += "MIME-Version: 1.0\r\n";
  if (type_ == SMTP_CONTENT_PLAIN) message_ += "Content-Type: text/plain\r\n";
  if (type_ == SMTP_CONTENT_HTML) message_ += "Content-Type: text/html\r\n";
  message_ += "Content-Transfer-Encoding: 7Bit\r\n";
  message_ += "\r\n\r\n";
  message_ += body_;
  message_ += "\r\n.\r\n";
}

void OTP_SMTP::cookmailbody() { body_ = zelvan::cook_mail_body(std::move(body_)); }

bool OTP_SMTP::isIP(const char* text) {
  if (text == nullptr) return false;
  const std::string_view characters(text);
  return std::all_of(characters.begin(), characters.end(), [](char c) { return (c >= '0' && c <= '9') || c == '.'; });
}

bool OTP_SMTP::isIP(const std::string& text) { return isIP(text.c_str()); }

// Sends the step's text in one call and compares the reply.  Returns 1, or the step's own code for what failed.
int OTP_SMTP::exchange(const Step& step) {
  if (!send_text(step.text)) return step.not_sent;
  return check_response(step.expected) == CHECK_RESPONSE_MATCH ? CHECK_RESPONSE_MATCH : step.refused;
}

// A send that came out short is not repeated: the server then waits for the rest, and the missing reply ends the step.
bool OTP_SMTP::send_text(std::string_view text) const {
  return zelvan::wait_ready(socket_, POLLOUT) && send(socket_, text.data(), text.size(), MSG_NOSIGNAL) != -1;
}

void OTP_SMTP::close_socket() {
  (void)close(socket_);
  socket_ = 0;
  connected_ = 0;
}

namespace zelvan {

int reply_code(std::string_view reply) {
  if (reply.substr(0, kLineEnd.size()) == kLineEnd) reply.remove_prefix(kLineEnd.size());
  const auto digit = [reply](std::size_t index) {
    return index < reply.size() ? static_cast<signed char>(reply[index]) - '0' : -'0';
  };
  return digit(0) * 100 + digit(1) * 10 + digit(2);
}

std::string cook_mail_body(std::string body) {
  static constexpr std::string_view kStopLine = ".\r\n";
  static constexpr std::string_view kDoubled = "..\r\n";
  std::size_t position = 0;
  while (body.find(kStopLine, position) != std::string::npos) {
    // Deliberate: the text at the search start is replaced, not the stop that was found, so a body with text before a
    // line that ends in a full stop loses three characters of that text.
    body.replace(position, kStopLine.size(), kDoubled);
    position += kDoubled.size();
  }
  // No body comes here with a stop line at its head: the loop has doubled it.
  if (body.substr(0, kStopLine.size()) == kStopLine) body.insert(0, ".");
  return body;
}

}  // namespace zelvan
