// Whether the password is right, and moving the token past the code that was used.
#include <algorithm>
#include <array>
#include <cstring>

#include "auth/AnalyseAuthData.h"
#include "base/clock.h"
#include "base/text.h"
#include "config/settings.h"
#include "db/OTPDatabase.h"
#include "db/QENTDatabase.h"
#include "db/current_date.h"
#include "db/time_text.h"
#include "otp/HOTP.h"
#include "otp/challenge.h"
#include "otp/counter.h"

using zelvan::PasswordKind;
using zelvan::RequestAttributes;

namespace {

constexpr std::size_t kCandidateSize = 40;
constexpr std::size_t kMostDigits = 10;
constexpr int kChallengeSeconds = 599;
constexpr std::uint32_t kChallengePending = 1;  // in keyinfo.hcounter

}  // namespace

int CAnalyseAuthData::requestcheck(unsigned char* attributes, int length) {
  const auto request = zelvan::parse_attributes({attributes, static_cast<std::size_t>(std::max(length, 0))});
  if (!request) return REQUEST_REFUSED;
  keep_attributes(*request);

  account_lock_.lock(user_name);
  if (otp_initparams() != INITPARAMS_READY) return REQUEST_REFUSED;
  switch (token_type) {
    case TOKEN_EVENT:
    case TOKEN_TIME_STEPPED:
      return verify_code(*request);
    case TOKEN_CHALLENGE:
      return verify_challenge_dialogue(*request);
    default:
      return REQUEST_REFUSED;
  }
}

int CAnalyseAuthData::generateotp(char* out) {
  if (out == nullptr) return 0;
  QENT_HOTP hotp;
  if (!hotp.hotp_generate(token_key, static_cast<unsigned long>(ng_otpkeylen), moving_factor, code_digits, out)) {
    return 0;
  }
  if (auth_type != kAuthTypeWithPin) return 1;
  const std::size_t digits = std::strlen(out);
  static_assert(kCandidateSize >= kMostDigits + sizeof pin, "the longest code, the longest PIN and its NUL fit");
  return zelvan::copy_text({out + digits, kCandidateSize - digits}, pin) ? 1 : 0;
}

bool CAnalyseAuthData::candidate_matches(const char* candidate, const RequestAttributes& request) {
  const zelvan::Authenticator authenticator(request_authenticator);
  switch (request.kind) {
    case PasswordKind::user_password:
      return zelvan::user_password_matches(digest_engine, candidate, request.user_password, secret(), authenticator);
    case PasswordKind::chap_password:
      return zelvan::chap_password_matches(digest_engine, candidate, request, authenticator);
    case PasswordKind::none:
      break;
  }
  return false;
}

CAnalyseAuthData::Search CAnalyseAuthData::search_window(const RequestAttributes& request, int window) {
  for (int i = 0; i < window; ++i) {
    std::array<char, kCandidateSize> candidate{};
    if (generateotp(candidate.data()) != 1 || request.kind == PasswordKind::none) return Search::refused;
    const bool match = candidate_matches(candidate.data(), request);
    textadd(moving_factor);
    if (match) {
      matched = 1;
      zelvan::load_counter(moving_factor, high_counter, low_counter);
      return Search::matched;
    }
  }
  return Search::missed;
}

bool CAnalyseAuthData::store_token() {
  const zelvan::CurrentDate now = zelvan::current_date();
  static_assert(sizeof token_date == sizeof now.literal);
  std::ranges::copy(now.literal, token_date);
  CQENTDatabase database(&otp_database);
  return execute_statement(database, zelvan::Statement::update_token,
                           {high_counter, low_counter, token_date, serial_number}) == 1;
}

int CAnalyseAuthData::verify_code(const RequestAttributes& request) {
  if (search_window(request, std::min(ng_wnd, token_window)) != Search::matched) return REQUEST_REFUSED;
  // Deliberate: a right code that could not be stored is rejected at the client and recorded as a success.
  return store_token() ? REQUEST_RIGHT : REQUEST_NOT_STORED;
}

int CAnalyseAuthData::verify_challenge_dialogue(const RequestAttributes& request) {
  const zelvan::CurrentDate now = zelvan::current_date();
  const bool pending =
      high_counter == kChallengePending &&
      otp_diff_time(now.text, zelvan::kStoredDateFormat, token_date, zelvan::kStoredDateFormat) <= kChallengeSeconds;
  return pending ? answer_challenge(request) : check_pin(request);
}

int CAnalyseAuthData::answer_challenge(const RequestAttributes& request) {
  zelvan::store_counter(moving_factor, 0, low_counter);
  const Search search = search_window(request, 1);
  if (search == Search::refused) return REQUEST_REFUSED;

  // A challenge is good for one answer, right or wrong.
  high_counter = 0;
  low_counter = 0;
  if (!store_token()) return REQUEST_NOT_STORED;
  return search == Search::matched ? REQUEST_RIGHT : REQUEST_REFUSED;
}

int CAnalyseAuthData::check_pin(const RequestAttributes& request) {
  const std::string_view expected = auth_type == kAuthTypeWithPin ? pin : "";
  // Deliberate: a password of another padded length, a whole code included, is answered with a challenge; so is a
  // request without any password.
  const bool comparable = request.kind == PasswordKind::chap_password ||
                          (request.kind == PasswordKind::user_password &&
                           zelvan::padded_password_length(expected.size()) == request.user_password.size());
  if (!comparable) return REQUEST_CHALLENGE;
  return candidate_matches(expected.data(), request) ? REQUEST_CHALLENGE : REQUEST_REFUSED;
}

bool CAnalyseAuthData::issue_challenge() {
  high_counter = kChallengePending;
  low_counter = zelvan::radius_challenge(zelvan::draw_pair(zelvan::now_seconds()));
  return store_token();
}
