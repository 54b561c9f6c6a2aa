// What the tests of the soft token share.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "sync/sync_packet.h"
#include "zelvan_token/failure.h"
#include "zelvan_token/soft_token.h"

namespace zelvan::test {

inline constexpr std::string_view kKey = "12345678901234567890";  // RFC 4226 appendix D
inline constexpr std::uint32_t kServerClock = 1'700'000'000;

// What a server sends about an event token.
inline SyncToken received_token() {
  SyncToken token;
  token.code_digits = 6;
  token.token_type = 1;
  token.auth_type = 2;
  token.low_counter = 1;
  token.clock = kServerClock;
  token.time_step = {'6', '0', '\0'};
  EXPECT_TRUE(copy_text(token.key, kKey));
  EXPECT_TRUE(copy_text(token.pin, "4711"));
  EXPECT_TRUE(copy_text(token.secret, "s3cret"));
  return token;
}

inline token::SoftToken event_token() {
  return token::make_token("alice", "127.0.0.1:8801", received_token(), kServerClock);
}

// Steps of 60 seconds, counter 100 at kServerClock, this machine's clock right.
inline token::SoftToken timed_token() {
  SyncToken received = received_token();
  received.token_type = SYNC_TIME_STEPPED;
  received.low_counter = 100;
  return token::make_token("alice", "127.0.0.1:8801", received, kServerClock);
}

// Returns the exit code with which `call` fails; kOk when it does not.
template <typename Call>
token::ExitCode failure_of(Call call) {
  try {
    call();
    return token::kOk;
  } catch (const token::Failure& failure) {
    return failure.code();
  }
}

// A folder that goes with the test.
class Folder : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (std::filesystem::temp_directory_path() / "zelvan-token-XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder_ = name;
    path_ = folder_ / "alice.json";
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  // Names of everything in the folder, in order.
  [[nodiscard]] std::vector<std::string> names() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) found.push_back(entry.path().filename());
    std::ranges::sort(found);
    return found;
  }

  std::filesystem::path folder_;
  std::filesystem::path path_;
};

}  // namespace zelvan::test
