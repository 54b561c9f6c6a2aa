// A mail client that sends one mail over one connection.
//
// Source   RFC 5321 (HELO, MAIL, RCPT, DATA, QUIT), RFC 4954 with the LOGIN mechanism, RFC 2045 (MIME headers).
// Differs  Envelope addresses go out bare, without angle brackets.  The Date header is "%Y-%m-%d %H:%M:%S" in UTC, not
//          the RFC 5322 form.  A reply is whatever one receive returns: only its first three digits count.
//          No EHLO and no TLS: the mail server belongs on the same machine or in a trusted network.
// Threads  Each object belongs to one thread.  The constructor may call gethostbyname(3), which is not re-entrant:
//          objects with a host name must be constructed by one thread only, and the notifier is the only one that does.
// Memory   Owns its texts; the password is wiped by the destructor.  The destructor does not touch the socket: sendmail
//          closes it before it returns.
//
// Every connect, send and receive ends after zelvan::MailLimits::call and then counts as failed.
#pragma once

#include <array>
#include <string>
#include <string_view>

// The only results of OTP_SMTP::sendmail.
enum sendmail_result : int {
  SENDMAIL_OK = 1,                  // the server acknowledged the quit; the mail itself may have been refused
  SENDMAIL_NO_RECIPIENT = -1,       // null recipient
  SENDMAIL_NO_SENDER = -2,          // null sender
  SENDMAIL_NOT_RESOLVED = -3,       // the constructor found no address for the server
  SENDMAIL_CONNECT_FAILED = -4,     // any failure of smtp_connect
  SENDMAIL_DISCONNECT_FAILED = -5,  // any failure of smtp_disconnect
};

enum smtp_connect_result : int {
  SMTP_CONNECT_OK = 1,
  SMTP_CONNECT_NO_SOCKET = -1,
  SMTP_CONNECT_REFUSED = -2,        // no connection within the time limit counts as refused
  SMTP_CONNECT_NO_GREETING = -3,    // the greeting is not 220
  SMTP_CONNECT_HELO_NOT_SENT = -3,  // shares its code with the greeting
  SMTP_CONNECT_HELO_REFUSED = -4,
  SMTP_CONNECT_AUTH_NOT_SENT = -5,
  SMTP_CONNECT_AUTH_REFUSED = -6,
  SMTP_CONNECT_NOT_ENCODED = -7,  // user or password is too long for the command buffer
  SMTP_CONNECT_LOGIN_NOT_SENT = -8,
  SMTP_CONNECT_LOGIN_REFUSED = -9,  // user or password
};

enum sendmessage_result : int {
  SENDMESSAGE_OK = 1,
  SENDMESSAGE_NOT_CONNECTED = -1,
  SENDMESSAGE_NO_RECIPIENT = -2,
  SENDMESSAGE_NO_SENDER = -3,
  SENDMESSAGE_ENVELOPE_NOT_SENT = -4,  // MAIL or RCPT
  SENDMESSAGE_ENVELOPE_REFUSED = -5,   // MAIL or RCPT
  SENDMESSAGE_DATA_NOT_SENT = -6,
  SENDMESSAGE_DATA_REFUSED = -7,
  SENDMESSAGE_BODY_NOT_SENT = -8,
  SENDMESSAGE_BODY_REFUSED = -9,
};

enum smtp_disconnect_result : int {
  SMTP_DISCONNECT_OK = 1,
  SMTP_DISCONNECT_NOT_SENT = -1,
  SMTP_DISCONNECT_REFUSED = -2,
};

enum check_response_result : int {
  CHECK_RESPONSE_MATCH = 1,
  CHECK_RESPONSE_OTHER_CODE = 0,
  CHECK_RESPONSE_NOT_RECEIVED = -4,
};

// The content types of OTP_SMTP::sendmail; any other number sends no Content-Type header.
enum smtp_content_type : int { SMTP_CONTENT_PLAIN = 1, SMTP_CONTENT_HTML = 2 };

class OTP_SMTP {
 public:
  // Prepares one mail: notes the time for the Date header and finds the server's address.
  //   server    dotted IPv4 address (see isIP), used as it is, or a host name, looked up here; null reads as empty
  //   user      login name, up to 55 characters in practice; null reads as empty
  //   password  login password, likewise
  //   authneed  0: no login; any other value: AUTH LOGIN before the mail
  //   port      TCP port, host order; cut to 16 bits
  // A name that cannot be resolved shows in the result of sendmail.
  OTP_SMTP(const char* server, const char* user, const char* password, int authneed, int port);
  virtual ~OTP_SMTP();
  OTP_SMTP(const OTP_SMTP&) = delete;
  OTP_SMTP& operator=(const OTP_SMTP&) = delete;

  // Sends one mail: connects, delivers, quits, closes the socket.
  //   to, from       bare mail addresses, sent exactly as written
  //   subject, body  sent raw; null reads as empty
  //   type           an smtp_content_type, or any other number for no Content-Type header
  // Returns a sendmail_result.  The socket is closed whatever the result.
  int sendmail(const char* to, const char* from, const char* subject, const char* body, int type);

  // The steps of sendmail.  Callers use sendmail only.

  // Opens the connection, greets and, if asked for, logs in.  Returns an smtp_connect_result; on failure the socket is
  // closed.
  int smtp_connect();

  // Sends envelope and message over the open connection.  Returns a sendmessage_result.
  int sendmessage();

  // Sends the quit; leaves the socket open.  Returns an smtp_disconnect_result.
  int smtp_disconnect();

  // Receives once, at most 128 bytes, and compares the reply code with `expected` (three digits).
  // Returns a check_response_result.
  int check_response(int expected);

  // Builds the content of DATA, headers and body and the final full stop, from the fields.
  void formatecontent();

  // Replaces the body by zelvan::cook_mail_body of it.
  void cookmailbody();

  // True when the text is taken for an address: every character is a decimal digit or a full stop.
  // Deliberate: no more is checked, so "300.1" and the empty text are addresses, and connecting to them fails.
  // Null is no address.
  static bool isIP(const char* text);
  static bool isIP(const std::string& text);

 private:
  struct Step;

  int open_connection();
  int greet();
  int login();
  int login_line(const std::string& secret, int expected);
  int exchange(const Step& step);
  bool send_text(std::string_view text) const;
  void close_socket();

  std::string sender_;
  std::string recipient_;
  std::string subject_;
  std::array<char, 20> date_{};  // "%Y-%m-%d %H:%M:%S", UTC, with its NUL; empty if the time could not be had
  std::string server_;           // dotted IPv4 address
  std::string user_;
  std::string password_;  // secret: wiped by the destructor
  std::string message_;   // the whole content of DATA
  int socket_ = 0;        // 0 before any connection; tells nothing, since 0 is a valid descriptor in a daemon
  int connected_ = 0;     // 1 from a successful smtp_connect to the end of sendmail
  int resolved_ = 0;      // 1 if server_ holds an address
  int authneed_;          // 0: no login
  int port_;              // host order
  int type_ = 0;          // smtp_content_type, or anything else for none
  std::string body_;
};

namespace zelvan {

// Reads the reply code from the start of `reply`: the three characters at the start, or those after a leading CR LF,
// taken as digits without a check.  Missing characters read as NUL, so a short reply yields a negative number.
int reply_code(std::string_view reply);

// Returns `body` with its full stops prepared for DATA; see the source for what that is and what it is not.
std::string cook_mail_body(std::string body);

}  // namespace zelvan
