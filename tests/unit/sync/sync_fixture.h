// A database with one user and one token, and settings, for the tests of the synchronisation service.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "config/ConfigFile.h"
#include "config/settings.h"
#include "db/OTPDatabase.h"
#include "db/QENTDatabase.h"
#include "support/fake_clock.h"
#include "support/fake_odbc.h"
#include "support/fake_sleep.h"
#include "sync/sync_packet.h"

namespace zelvan::test {

inline constexpr std::time_t kNow = 1'700'000'000;  // 2023-11-14 22:13:20 UTC
inline constexpr const char* kNowText = "2023-11-14 22:13:20";

// RFC 4226 appendix D: the secret and its codes for the counters 0 to 9.
inline constexpr const char* kKey = "12345678901234567890";
inline constexpr std::array kCodes{"755224", "287082", "359152", "969429", "338314",
                                   "254676", "287922", "162583", "399871", "520489"};

// The columns of the two selects, in order.
struct UserRow {
  OdbcCell auth_type = "1";
  OdbcCell pin = "";
  OdbcCell serial_number = "SN-1";
  OdbcCell last_use = kNowText;
  [[nodiscard]] OdbcRow row() const { return {auth_type, pin, serial_number, last_use}; }
};
struct TokenRow {
  OdbcCell type = "1";
  OdbcCell high = "0";
  OdbcCell low = "0";
  OdbcCell key = kKey;
  OdbcCell date = kNowText;
  OdbcCell digits = "6";
  OdbcCell window = "5";
  OdbcCell time_step = "60";
  [[nodiscard]] OdbcRow row() const { return {type, high, low, key, date, digits, window, time_step}; }
};

// Replaces whatever settings there are.
inline void use_settings(const std::string& text) {
  std::string path = "/tmp/zelvan_sync_test_XXXXXX";
  const int fd = mkstemp(path.data());
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(fd);
  std::destroy_at(&configfile);
  std::construct_at(&configfile);
  EXPECT_EQ(configfile.config_init(path.c_str()), CONFIG_INIT_OK);
  unlink(path.c_str());
}

inline std::vector<unsigned char> bytes_of(std::string_view text) { return {text.begin(), text.end()}; }

class SyncFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    odbc_reset();
    clear_sleeps();
    set_clock(kNow);
    ng_dbtype = 1;
    use_settings("[share]\n127.0.0.1=loopback-secret\n");
    const auto* name = reinterpret_cast<const SQLCHAR*>("otp");
    ASSERT_EQ(otp_database.DBConnect(name, SQL_NTS, name, SQL_NTS, name, SQL_NTS), kConnected);
  }

  void TearDown() override {
    otp_database.DBDisconnect();
    odbc_reset();
    clear_sleeps();
  }

  // The database from now on: a user "alice" with a token.
  void script() const {
    odbc_clear_answers();
    odbc_answer("select authtype, pin, serialnum, preusedate from userinfo where username='alice'", {{user.row()}});
    odbc_answer(
        "select tktype, hcounter, lcounter, userkey, predate, diglen, authwnd, tmstep from keyinfo where "
        "serialnum='SN-1'",
        {{token.row()}});
  }

  // The statements that changed something.
  static std::vector<std::string> updates() {
    std::vector<std::string> found;
    for (const std::string& sql : odbc_executed()) {
      if (!sql.starts_with("select")) found.push_back(sql);
    }
    return found;
  }

  UserRow user;
  TokenRow token;
};

}  // namespace zelvan::test
