#include "sync/verification.h"

#include <string.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "base/clock.h"
#include "base/text.h"
#include "db/current_date.h"
#include "db/statements.h"
#include "otp/HOTP.h"
#include "otp/challenge.h"
#include "otp/counter.h"
#include "sync/token_state.h"

namespace zelvan {
namespace {

constexpr std::size_t kLongestCode = 10;
constexpr std::time_t kChallengeSeconds = 659;

// The longest code and the longest PIN, with a NUL; wiped when it goes out of scope.
struct CodeText {
  CodeText() = default;
  ~CodeText() { explicit_bzero(text.data(), text.size()); }
  CodeText(const CodeText&) = delete;
  CodeText& operator=(const CodeText&) = delete;

  std::array<char, kLongestCode + kSyncPinLimit + 1> text{};
};

std::uint32_t half(unsigned long counter) { return static_cast<std::uint32_t>(counter); }

// Writes the code of the token's counter, with the PIN where it belongs.  False when there is no such code.
bool generate_code(const SyncToken& token, CodeText& code) {
  std::array<unsigned char, kCounterSize> counter{};
  store_counter(counter.data(), half(token.high_counter), half(token.low_counter));
  QENT_HOTP hotp;
  if (!hotp.hotp_generate(token.key.data(), std::strlen(token.key.data()), counter.data(), token.code_digits,
                          code.text.data())) {
    return false;
  }
  if (token.auth_type != kSyncAuthTypeWithPin) return true;
  const std::size_t length = std::strlen(code.text.data());
  return copy_text(std::span(code.text).subspan(length), token.pin.data());
}

bool is_current_code(const SyncToken& token, const char* password) {
  CodeText code;
  return generate_code(token, code) && strcasecmp(code.text.data(), password) == 0;
}

std::string_view serial_number(const SyncAccount& account) { return account.serial_number.data(); }

bool challenge_pending(const SyncAccount& account) {
  return account.token.high_counter != 0 && getcurtime() - account.token_date <= kChallengeSeconds;
}

sync_result check_answer(CQENTDatabase& database, SyncAccount& account, const char* password) {
  // Deliberate: the row is cleared, but the counter that a right answer is told stays the challenge number.
  account.token.high_counter = 0;
  const bool right = is_current_code(account.token, password);
  const CurrentDate now = current_date();
  if (execute_statement(database, Statement::clear_challenge, {now.literal, serial_number(account)}) != kExecuted) {
    return SYNC_NOT_STORED;
  }
  return right ? SYNC_ACCEPTED : SYNC_WRONG_ANSWER;
}

sync_result issue_challenge(CQENTDatabase& database, SyncAccount& account) {
  const std::uint32_t challenge = sync_challenge(draw_pair(now_seconds()));
  account.token.high_counter = 1;
  account.token.low_counter = challenge;
  const CurrentDate now = current_date();
  const int executed =
      execute_statement(database, Statement::issue_challenge, {challenge, now.literal, serial_number(account)});
  return executed == kExecuted ? SYNC_CHALLENGED : SYNC_NOT_STORED;
}

sync_result verify_challenge_dialogue(CQENTDatabase& database, SyncAccount& account, const char* password) {
  if (challenge_pending(account)) return check_answer(database, account, password);
  if (strcasecmp(account.token.pin.data(), password) != 0) return SYNC_NO_MATCH;
  return issue_challenge(database, account);
}

void advance_for_elapsed_time(SyncAccount& account) {
  const std::time_t elapsed = getcurtime() - account.token_date;
  advance_counter(account.token.high_counter, account.token.low_counter,
                  steps_to_advance(elapsed, account.time_step, account.window));
}

// Leaves the counter at the code that matched.
bool search_window(SyncAccount& account, const char* password) {
  for (int i = 0; i < account.window; ++i) {
    if (is_current_code(account.token, password)) return true;
    countadd(account.token.high_counter, account.token.low_counter);
  }
  return false;
}

sync_result verify_code(CQENTDatabase& database, SyncAccount& account, const char* password) {
  SyncToken& token = account.token;
  if (token.token_type == SYNC_TIME_STEPPED) advance_for_elapsed_time(account);
  if (!search_window(account, password)) return SYNC_NO_MATCH;

  const CurrentDate now = current_date();
  countadd(token.high_counter, token.low_counter);
  const int executed =
      execute_statement(database, Statement::update_token,
                        {half(token.high_counter), half(token.low_counter), now.literal, serial_number(account)});
  return executed == kExecuted ? SYNC_ACCEPTED : SYNC_NOT_STORED;
}

}  // namespace

sync_result verify(CQENTDatabase& database, SyncAccount& account, const char* password) {
  if (account.token.token_type == SYNC_CHALLENGE_RESPONSE) {
    return verify_challenge_dialogue(database, account, password);
  }
  return verify_code(database, account, password);
}

}  // namespace zelvan
