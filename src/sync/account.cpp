#include "sync/account.h"

#include <cstdlib>
#include <string_view>

#include "db/statements.h"
#include "otp/counter.h"
#include "sync/token_state.h"

namespace zelvan {
namespace {

// Sizes of the columns' buffers, with the NUL.
constexpr std::size_t kCodeSize = 2;  // types and digits
constexpr std::size_t kWindowSize = 3;
constexpr std::size_t kCounterTextSize = 12;
constexpr std::size_t kDateSize = 20;

bool read_required(CQENTDatabase& database, unsigned short column, std::span<char> out) {
  return read_text(database, column, out) == ColumnRead::read;
}

int to_int(const char* text) { return static_cast<int>(std::strtol(text, nullptr, 10)); }

// Numbers of one byte keep their low 8 bits, so -1 reads as 255.
template <std::size_t Size>
bool read_byte(CQENTDatabase& database, unsigned short column, std::uint8_t& out) {
  std::array<char, Size> text{};
  if (!read_required(database, column, text)) return false;
  out = static_cast<std::uint8_t>(to_int(text.data()));
  return true;
}

bool read_counter(CQENTDatabase& database, unsigned short column, unsigned long& out) {
  std::array<char, kCounterTextSize> text{};
  if (!read_required(database, column, text)) return false;
  out = atou32(text.data());
  return true;
}

bool read_date(CQENTDatabase& database, unsigned short column, std::time_t& out) {
  std::array<char, kDateSize> text{};
  if (!read_required(database, column, text)) return false;
  out = stored_time(text.data());
  return true;
}

// The date of the last attempt must be there to be read, but nothing here depends on it: a user who never logged in
// has none.
bool check_last_use(CQENTDatabase& database, unsigned short column) {
  std::array<char, kDateSize> text{};
  return read_text(database, column, text) != ColumnRead::failed;
}

// An account that needs no PIN may have none.
bool read_pin(CQENTDatabase& database, unsigned short column, SyncToken& token) {
  const ColumnRead result = read_text(database, column, token.pin);
  return result == ColumnRead::read || (result == ColumnRead::null && token.auth_type != kSyncAuthTypeWithPin);
}

bool read_user_columns(CQENTDatabase& database, SyncAccount& account) {
  return read_byte<kCodeSize>(database, 1, account.token.auth_type) && read_pin(database, 2, account.token) &&  //
         read_required(database, 3, account.serial_number) &&                                                   //
         check_last_use(database, 4);
}

bool read_token_columns(CQENTDatabase& database, SyncAccount& account) {
  SyncToken& token = account.token;
  if (!read_byte<kCodeSize>(database, 1, token.token_type) || !read_counter(database, 2, token.high_counter) ||
      !read_counter(database, 3, token.low_counter) || !read_required(database, 4, token.key) ||
      !read_date(database, 5, account.token_date) || !read_byte<kCodeSize>(database, 6, token.code_digits) ||
      !read_byte<kWindowSize>(database, 7, account.window) || !read_required(database, 8, token.time_step)) {
    return false;
  }
  account.time_step = to_int(token.time_step.data());
  return true;
}

bool usable(const SyncAccount& account) {
  if (account.token.key[0] == '\0') return false;
  return account.token.token_type != SYNC_TIME_STEPPED || account.time_step > 0;
}

// Selects one row.
sync_result select_row(CQENTDatabase& database, Statement statement, std::string_view key) {
  if (execute_statement(database, statement, {key}) != kExecuted) return SYNC_NOT_EXECUTED;
  return database.FetchRow() == kFetched ? SYNC_ACCEPTED : SYNC_NO_ROW;
}

}  // namespace

sync_result load_account(CQENTDatabase& database, const char* user_name, SyncAccount& account) {
  const COTPDatabase::Hold held = database.hold_connection();
  const sync_result user = select_row(database, Statement::select_user_for_sync, user_name);
  if (user != SYNC_ACCEPTED) return user;
  const bool user_read = read_user_columns(database, account);

  // Deliberate: the token is selected even when the user's columns could not be read, with whatever serial number there
  // is; the request is refused all the same.
  const sync_result token = select_row(database, Statement::select_token_for_sync, account.serial_number.data());
  if (!user_read) return SYNC_UNREADABLE;
  if (token != SYNC_ACCEPTED) return token;
  return read_token_columns(database, account) && usable(account) ? SYNC_ACCEPTED : SYNC_UNREADABLE;
}

}  // namespace zelvan
