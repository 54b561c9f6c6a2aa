// What the database knows about the user and the token, and the counter that verification begins with.
#include <algorithm>
#include <array>
#include <cstdlib>

#include "auth/AnalyseAuthData.h"
#include "base/text.h"
#include "config/settings.h"
#include "db/OTPDatabase.h"
#include "db/QENTDatabase.h"
#include "db/current_date.h"
#include "db/statements.h"
#include "db/time_text.h"
#include "otp/counter.h"

using zelvan::ColumnRead;
using zelvan::Statement;

namespace {

// A refused attempt within this time keeps the lock; the first one after it lifts the lock.
constexpr int kLockSeconds = 599;

// The SQL expression that delivers a date column as text.
class DateColumn {
 public:
  explicit DateColumn(std::string_view column) {
    // Cannot fail: the names are shorter than every limit, and so are their expressions in every dialect.
    (void)zelvan::copy_text(text_, column);
    (void)otp_tochar(text_.data(), zelvan::kColumnExpressionLimit);
  }
  [[nodiscard]] std::string_view text() const { return text_.data(); }

 private:
  std::array<char, zelvan::kColumnExpressionLimit + 1> text_{};
};

// Reads a column that must have a value.
bool read_required(CQENTDatabase& database, unsigned short column, std::span<char> out) {
  return zelvan::read_text(database, column, out) == ColumnRead::read;
}

// As atoi(3), but defined for numbers that do not fit.
int to_int(const char* text) { return static_cast<int>(std::strtol(text, nullptr, 10)); }

// Room for a column of at most `characters` characters, taken from the start of a field.
template <std::size_t Size>
std::span<char> limited(char (&field)[Size], std::size_t characters) {
  return std::span(field).first(characters + 1);
}

}  // namespace

int CAnalyseAuthData::otp_initparams() {
  CQENTDatabase database(&otp_database);
  for (const auto step :
       {&CAnalyseAuthData::load_user, &CAnalyseAuthData::lift_expired_lock, &CAnalyseAuthData::load_token}) {
    if (const int result = (this->*step)(database); result != INITPARAMS_READY) return result;
  }
  zelvan::store_counter(moving_factor, high_counter, low_counter);
  return token_type == TOKEN_TIME_STEPPED ? advance_for_elapsed_time() : INITPARAMS_READY;
}

int CAnalyseAuthData::load_user(CQENTDatabase& database) {
  if (!zelvan::storable_text(user_name)) {
    user_exists = 0;
    return INITPARAMS_NO_ROW;
  }
  const DateColumn last_use("preusedate");
  const COTPDatabase::Hold held = database.hold_connection();
  if (execute_statement(database, Statement::select_user, {last_use.text(), user_name}) != 1) {
    return INITPARAMS_STATEMENT;
  }
  const int fetched = database.FetchRow();
  if (fetched == zelvan::kNoData) {
    user_exists = 0;
    return INITPARAMS_NO_ROW;
  }
  if (fetched != zelvan::kFetched) return INITPARAMS_UNREADABLE;
  user_found = 1;
  return read_user_columns(database) ? INITPARAMS_READY : INITPARAMS_UNREADABLE;
}

bool CAnalyseAuthData::read_user_columns(CQENTDatabase& database) {
  std::array<char, 2> lock_text{};
  std::array<char, 3> failure_text{};
  std::array<char, 2> type_text{};
  if (!read_required(database, 1, limited(serial_number, 28)) || !read_required(database, 2, lock_text) ||
      !read_required(database, 3, failure_text)) {
    return false;
  }
  failure_count = to_int(failure_text.data());

  // Without a date the attempt counts as made just now, so that a lock holds.
  if (!read_required(database, 4, limited(last_use_date, 54))) (void)otp_getcurdate(last_use_date);
  if (!read_required(database, 5, limited(user_mail, 55))) user_mail[0] = '\0';

  if (!read_required(database, 6, type_text)) return false;
  auth_type = to_int(type_text.data());
  if (auth_type == kAuthTypeWithPin && !read_required(database, 7, limited(pin, 18))) return false;

  // Deliberate: set last, so that a row that cannot be read whole counts as one of an account that is not locked, and
  // the failure that is recorded for it lifts a lock.
  locked = to_int(lock_text.data()) != 0 ? 1 : 0;
  return true;
}

int CAnalyseAuthData::lift_expired_lock(CQENTDatabase& database) {
  if (locked == 0) return INITPARAMS_READY;

  const zelvan::CurrentDate now = zelvan::current_date();
  if (otp_diff_time(now.text, zelvan::kStoredDateFormat, last_use_date, zelvan::kStoredDateFormat) <= kLockSeconds) {
    return INITPARAMS_LOCKED;
  }
  if (execute_statement(database, Statement::unlock_user, {now.literal, user_name}) != 1) {
    report_failed_update(database, now, Statement::audit_update_failed);
    return INITPARAMS_STATEMENT;
  }
  // Deliberate: `locked` stays 1, so that a failed attempt right after the unlock counts as one on a locked account.
  failure_count = 0;
  return INITPARAMS_READY;
}

int CAnalyseAuthData::load_token(CQENTDatabase& database) {
  const DateColumn last_success("predate");
  const COTPDatabase::Hold held = database.hold_connection();
  if (execute_statement(database, Statement::select_token, {last_success.text(), serial_number}) != 1) {
    return INITPARAMS_STATEMENT;
  }
  const int fetched = database.FetchRow();
  if (fetched == zelvan::kNoData) return INITPARAMS_NO_ROW;
  if (fetched != zelvan::kFetched) return INITPARAMS_UNREADABLE;
  return read_token_columns(database) ? INITPARAMS_READY : INITPARAMS_UNREADABLE;
}

bool CAnalyseAuthData::read_token_columns(CQENTDatabase& database) {
  std::array<char, 128> text{};
  const auto number = [&](unsigned short column, auto convert, auto& field) {
    if (!read_required(database, column, text)) return false;
    field = convert(text.data());
    return true;
  };

  // An empty key would make codes that anyone can compute.
  return read_required(database, 1, limited(token_key, 54)) && token_key[0] != '\0' &&  //
         number(2, to_int, token_type) &&                                               //
         number(3, atou32, high_counter) &&                                             //
         number(4, atou32, low_counter) &&                                              //
         read_required(database, 5, limited(token_date, 55)) &&                         //
         number(6, to_int, code_digits) &&                                              //
         number(7, to_int, token_window) &&                                             //
         number(8, to_int, time_step);
}

int CAnalyseAuthData::advance_for_elapsed_time() {
  if (time_step <= 0) return INITPARAMS_UNREADABLE;

  const zelvan::CurrentDate now = zelvan::current_date();
  const int elapsed = otp_diff_time(now.text, zelvan::kStoredDateFormat, token_date, zelvan::kStoredDateFormat);
  const int steps = elapsed / time_step;
  const int half_window = std::min(token_window, ng_wnd) >> 1;  // rounds down, below zero too
  // A date in the future moves nothing; neither does a negative window, which counts as a huge one here.
  if (steps >= 0 && static_cast<unsigned int>(steps) >= static_cast<unsigned int>(half_window)) {
    zelvan::add_to_counter(moving_factor, static_cast<unsigned int>(steps - half_window));
  }
  return INITPARAMS_READY;
}
