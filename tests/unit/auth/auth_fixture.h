// A RADIUS client, an account and its token, around the real authentication room.
//
// The database is the scripted ODBC library, the clock stands still, the settings file is a real one.  Digests and
// codes that tests expect come from OpenSSL, never from the code under test.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "auth/AnalyseAuthData.h"
#include "log/OTPLog.h"
#include "support/fake_clock.h"
#include "support/fake_odbc.h"

namespace zelvan::test {

using Packet = std::vector<unsigned char>;

inline constexpr std::time_t kNow = 1'700'000'000;
inline constexpr const char* kNowText = "2023-11-14 22:13:20";
inline constexpr std::array<unsigned char, 4> kClient{10, 0, 0, 7};

Packet operator+(Packet a, const Packet& b);
Packet bytes_of(const std::string& text);
Packet attribute(unsigned char type, const std::string& value);

// MD5 and HOTP by OpenSSL.  `digits` is 6 to 10.
Packet md5(const Packet& bytes);
std::string hotp(const std::string& key, std::uint64_t factor, int digits = 6);

// `seconds` as the database holds it.
std::string date(std::time_t seconds);

// A client with its shared secret.
struct Client {
  std::string secret = "secret";
  unsigned char identifier = 42;
  Packet authenticator = bytes_of("0123456789ABCDEF");

  [[nodiscard]] Packet request(const Packet& attributes) const;
  [[nodiscard]] std::string hide(const std::string& password) const;
  [[nodiscard]] Packet pap(const std::string& name, const std::string& password) const;
  [[nodiscard]] Packet chap(const std::string& name, const std::string& password,
                            const std::optional<std::string>& challenge = std::nullopt) const;

  // What bytes 4 to 19 of `reply` must be when the digest runs over `covered` bytes of the reply with the secret behind
  // it; without `covered`, over all of them.
  [[nodiscard]] Packet response_authenticator(const Packet& reply,
                                              std::optional<std::size_t> covered = std::nullopt) const;
};

// A row of userinfo, in the order of the columns of its select.
struct UserRow {
  OdbcCell serialnum = "SN1";
  OdbcCell islocked = "0";
  OdbcCell failaccum = "0";
  OdbcCell preusedate = date(kNow - 60);
  OdbcCell user_email = "alice@example.org";
  OdbcCell authtype = "1";
  OdbcCell pin = "9876";

  [[nodiscard]] OdbcRow cells() const {
    return {serialnum, islocked, failaccum, preusedate, user_email, authtype, pin};
  }
};

// A row of keyinfo, in the order of the columns of its select.
struct TokenRow {
  OdbcCell userkey = "12345678901234567890";
  OdbcCell tktype = "1";
  OdbcCell hcounter = "0";
  OdbcCell lcounter = "5";
  OdbcCell predate = date(kNow - 95);
  OdbcCell diglen = "6";
  OdbcCell authwnd = "3";
  OdbcCell tmstep = "30";

  [[nodiscard]] OdbcRow cells() const {
    return {userkey, tktype, hcounter, lcounter, predate, diglen, authwnd, tmstep};
  }
};

// The two rows, answering the selects of the code under test.
class Account {
 public:
  UserRow user;
  TokenRow token;
  bool has_user = true;
  bool has_token = true;

  // Makes the rows as they are now the answer of every later select.
  void publish();

  // Publishes, and from now on carries out the updates that the code under test executes.
  void keep_updated();

 private:
  void apply(const std::string& sql);

  std::mutex mutex_;
  std::shared_ptr<std::atomic<int>> version_ = std::make_shared<std::atomic<int>>(0);
};

struct Answer {
  int result;    // of Resolve
  Packet reply;  // what lies in the work item, as long as its Length field says
  [[nodiscard]] int code() const { return result == RESOLVE_SEND_REPLY ? reply[0] : 0; }
};

// Hands a packet to Resolve as the worker does.
Answer resolve(const Packet& packet);

// The statements, as the server must send them for the account above at kNow.
namespace sql {
std::string select_user(const std::string& name = "alice");
std::string select_token(const std::string& serial = "SN1");
std::string unlock_user();
std::string update_token(std::uint32_t high, std::uint32_t low, std::time_t now = kNow);
std::string reset_failures();
std::string touch_user(std::time_t now = kNow);
std::string count_failure(int failures, int locked, std::time_t now = kNow);
std::string audit(const std::string& remark);  // with the client's address
std::string audit_update_failed_short();
}  // namespace sql

class AuthTest : public ::testing::Test {
 protected:
  AuthTest();
  ~AuthTest() override;

  // Replaces the shared secrets by these pairs of address and secret, through a settings file.
  static void set_shares(const std::vector<std::pair<std::string, std::string>>& shares);

  // Publishes the account and sends a packet.
  Answer send(const Packet& packet);

  // Sends alice's password as a User-Password.
  Answer login(const std::string& password);

  // Alice's code for `factor` under the token's key and digits.
  [[nodiscard]] std::string code(std::uint64_t factor) const;

  // Starts the operation log in a new folder; log_text ends it and returns its lines.
  void start_log();
  std::string log_text();

  static std::vector<std::string> executed() { return odbc_executed(); }
  static std::vector<std::string> mails();

  Account account;
  Client client;

 private:
  std::string log_path_;
};

}  // namespace zelvan::test
