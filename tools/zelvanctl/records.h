// Users and tokens as rows of the database.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zelvanctl/database.h"
#include "zelvanctl/engine.h"
#include "zelvanctl/secret.h"

namespace zelvan::ctl {

// A number of a row as the server reads it: the digits at the beginning of the column's text.
struct Number {
  std::int64_t value = 0;
  bool exact = true;  // false: the column holds something else than a number
};

// A row of userinfo.  A column without a value is NULL.
struct User {
  std::string name;
  std::optional<std::string> serial;
  std::optional<Number> locked;
  std::optional<Number> failures;
  std::optional<std::string> last_use;  // time text, UTC
  std::optional<std::string> mail;
  std::optional<Number> auth_type;
  std::optional<Secret> pin;
  std::optional<Number> deleted;

  [[nodiscard]] bool is_locked() const { return locked && locked->value != 0; }
  [[nodiscard]] bool is_disabled() const { return !deleted || deleted->value != 0; }
  [[nodiscard]] bool needs_pin() const { return auth_type && auth_type->value == 2; }
};

// A row of keyinfo.  A column without a value is NULL.
struct Token {
  std::string serial;
  std::optional<Secret> key;
  std::optional<Number> type;
  std::optional<Number> high;
  std::optional<Number> low;
  std::optional<std::string> date;  // time text, UTC: last accepted code, or when the challenge was issued
  std::optional<Number> digits;
  std::optional<Number> window;
  std::optional<Number> step;

  // The moving factor, 64 bits.
  [[nodiscard]] std::uint64_t counter() const;
  void set_counter(std::uint64_t counter);
};

// Returns the value of a number, 0 for NULL.
std::int64_t value_of(const std::optional<Number>& number);

// What a new token is to be.
struct TokenPlan {
  int type = 2;
  int digits = 6;
  int window = 10;
  int step = 30;              // seconds; time-stepped tokens only
  std::uint64_t counter = 0;  // event tokens only: the first code
  std::string serial;         // empty: make one
};

// Throws Failure (kUsage) when a value of the plan cannot be used.
void check_plan(const TokenPlan& plan);

// Returns a token with a random key.  A time-stepped one agrees with RFC 6238: at every moment the server expects the
// code of the step that the time is in.
Token make_token(const TokenPlan& plan, std::time_t now);

// Sets counter and time of a time-stepped token so that it agrees with RFC 6238 from a little before `now` on.
//
// The server counts the steps from a stored time.  That time could be 1970 with the counter 0, but the server takes
// times as local ones, so every change of the zone's offset since would shift the codes, and its difference of two
// times ends at 2^31 seconds, in 2038.  A recent time on the border of a step is free of both.
void start_time_token(Token& token, std::time_t now);

// Access to the two tables.  Every call is one statement; callers that need several use a Transaction.
class Records {
 public:
  Records(Database& database, const Engine& engine) : database_(database), engine_(engine) {}

  std::optional<User> find_user(std::string_view name);
  std::optional<User> find_owner(std::string_view serial);
  std::optional<Token> find_token(std::string_view serial);
  std::vector<User> users();
  std::vector<Token> tokens();

  // Within a transaction: returns the row, which nobody else changes or removes before the transaction ends.
  std::optional<User> hold_user(std::string_view name);
  std::optional<Token> hold_token(std::string_view serial);

  void add_user(const User& user);
  void add_token(const Token& token);

  // Changes one column of a user; returns the number of changed rows.
  std::int64_t set_user(std::string_view name, std::string_view column, const Parameter& value);

  // Locks (with the time `now`, from which the server counts ten minutes) or unlocks a user.
  std::int64_t lock_user(std::string_view name, std::time_t now);
  std::int64_t unlock_user(std::string_view name);

  std::int64_t remove_user(std::string_view name);
  std::int64_t remove_token(std::string_view serial);

  // Moves a token, unless its row is no longer as `before`: then somebody used the token meanwhile, and nothing
  // changes.
  bool move_token(const Token& before, std::uint64_t counter, std::time_t date);

 private:
  [[nodiscard]] std::string user_columns() const;
  [[nodiscard]] std::string token_columns() const;

  Database& database_;
  const Engine& engine_;
};

}  // namespace zelvan::ctl
