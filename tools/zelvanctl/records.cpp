#include "zelvanctl/records.h"

#include <fmt/core.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>

#include "zelvanctl/failure.h"
#include "zelvanctl/fields.h"
#include "zelvanctl/key_maker.h"
#include "zelvanctl/utc_time.h"

namespace zelvan::ctl {
namespace {

// A new time-stepped token begins this many steps ago: a phone whose clock is behind by half a window is then served
// from the first login on.
constexpr std::int64_t kStepsBack = 120;

std::optional<Number> read_number(const Row& row, std::size_t column) {
  const auto text = row.text(column);
  if (!text) return {};
  Number number;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), number.value);
  number.exact = error == std::errc{} && end == text->data() + text->size();
  return number;
}

User read_user(const Row& row) {
  User user;
  user.name = row.text(0).value_or("");
  user.serial = row.text(1);
  user.locked = read_number(row, 2);
  user.failures = read_number(row, 3);
  user.last_use = row.text(4);
  user.mail = row.text(5);
  user.auth_type = read_number(row, 6);
  user.pin = row.secret(7);
  user.deleted = read_number(row, 8);
  return user;
}

Token read_token(const Row& row) {
  Token token;
  token.serial = row.text(0).value_or("");
  token.key = row.secret(1);
  token.type = read_number(row, 2);
  token.high = read_number(row, 3);
  token.low = read_number(row, 4);
  token.date = row.text(5);
  token.digits = read_number(row, 6);
  token.window = read_number(row, 7);
  token.step = read_number(row, 8);
  return token;
}

template <typename Record>
std::optional<Record> only(const std::vector<Row>& rows, Record (*read)(const Row&)) {
  if (rows.empty()) return {};
  return read(rows.front());
}

template <typename Record>
std::vector<Record> all(const std::vector<Row>& rows, Record (*read)(const Row&)) {
  std::vector<Record> records;
  records.reserve(rows.size());
  for (const Row& row : rows) records.push_back(read(row));
  return records;
}

Parameter number_parameter(const std::optional<Number>& number) {
  return number ? Parameter(number->value) : Parameter(nullptr);
}

}  // namespace

std::uint64_t Token::counter() const {
  // The server converts both columns without an overflow check, modulo 2^32.
  const auto high_word = static_cast<std::uint32_t>(value_of(high));
  const auto low_word = static_cast<std::uint32_t>(value_of(low));
  return std::uint64_t{high_word} << 32U | low_word;
}

void Token::set_counter(std::uint64_t counter) {
  high = Number{static_cast<std::int64_t>(counter >> 32U)};
  low = Number{static_cast<std::int64_t>(counter & 0xFFFFFFFFU)};
}

std::int64_t value_of(const std::optional<Number>& number) { return number ? number->value : 0; }

void check_plan(const TokenPlan& plan) {
  require("--digits", digits_problem(plan.digits));
  require("--window", window_problem(plan.window));
  if (plan.type == kTimeToken) require("--step", step_problem(plan.step));
  if (!plan.serial.empty()) require("--serial", serial_problem(plan.serial));
}

void start_time_token(Token& token, std::time_t now) {
  const std::int64_t step = std::max<std::int64_t>(value_of(token.step), 1);
  const std::int64_t first = std::max<std::int64_t>(now / step - kStepsBack, 0);
  token.set_counter(static_cast<std::uint64_t>(first));
  token.date = time_text(first * step);
}

Token make_token(const TokenPlan& plan, std::time_t now) {
  Token token;
  token.serial = plan.serial.empty() ? make_serial() : plan.serial;
  token.key = make_key();
  token.type = Number{plan.type};
  token.digits = Number{plan.digits};
  token.window = Number{plan.window};
  token.step = Number{plan.type == kTimeToken ? plan.step : 0};
  token.date = time_text(now);
  token.set_counter(plan.type == kEventToken ? plan.counter : 0);
  if (plan.type == kTimeToken) start_time_token(token, now);
  return token;
}

std::string Records::user_columns() const {
  return fmt::format(
      "select username, serialnum, islocked, failaccum, {}, user_email, authtype, pin, isdeleted from userinfo",
      date_text(engine_, "preusedate"));
}

std::string Records::token_columns() const {
  return fmt::format("select serialnum, userkey, tktype, hcounter, lcounter, {}, diglen, authwnd, tmstep from keyinfo",
                     date_text(engine_, "predate"));
}

std::optional<User> Records::find_user(std::string_view name) {
  return only(database_.query(user_columns() + " where username = ?", {name}), &read_user);
}

std::optional<User> Records::find_owner(std::string_view serial) {
  return only(database_.query(user_columns() + " where serialnum = ?", {serial}), &read_user);
}

std::optional<Token> Records::find_token(std::string_view serial) {
  return only(database_.query(token_columns() + " where serialnum = ?", {serial}), &read_token);
}

std::optional<User> Records::hold_user(std::string_view name) {
  // A statement that changes nothing locks the row, and the database where rows have no locks.  The server's login may
  // do this, too.
  (void)database_.execute("update userinfo set failaccum = failaccum where username = ?", {name});
  return find_user(name);
}

std::optional<Token> Records::hold_token(std::string_view serial) {
  if (engine_.name == "sqlite") {
    (void)database_.execute("update keyinfo set predate = predate where serialnum = ?", {serial});
  } else {
    // The guard for several servers would refuse an update that leaves the counter.
    (void)database_.query("select serialnum from keyinfo where serialnum = ? for update", {serial});
  }
  return find_token(serial);
}

std::vector<User> Records::users() { return all(database_.query(user_columns() + " order by username"), &read_user); }

std::vector<Token> Records::tokens() {
  return all(database_.query(token_columns() + " order by serialnum"), &read_token);
}

void Records::add_user(const User& user) {
  database_.execute(
      fmt::format("insert into userinfo (username, serialnum, islocked, failaccum, preusedate, user_email, authtype, "
                  "pin, isdeleted) values (?, ?, ?, ?, {}, ?, ?, ?, ?)",
                  engine_.date_value),
      {user.name, user.serial, number_parameter(user.locked), number_parameter(user.failures), user.last_use, user.mail,
       number_parameter(user.auth_type), user.pin, number_parameter(user.deleted)});
}

void Records::add_token(const Token& token) {
  database_.execute(
      fmt::format("insert into keyinfo (serialnum, userkey, tktype, hcounter, lcounter, predate, diglen, authwnd, "
                  "tmstep) values (?, ?, ?, ?, ?, {}, ?, ?, ?)",
                  engine_.date_value),
      {token.serial, token.key, number_parameter(token.type), number_parameter(token.high), number_parameter(token.low),
       token.date, number_parameter(token.digits), number_parameter(token.window), number_parameter(token.step)});
}

std::int64_t Records::set_user(std::string_view name, std::string_view column, const Parameter& value) {
  return database_.execute(fmt::format("update userinfo set {} = ? where username = ?", column), {value, name});
}

std::int64_t Records::lock_user(std::string_view name, std::time_t now) {
  return database_.execute(
      fmt::format("update userinfo set islocked = 1, preusedate = {} where username = ?", engine_.date_value),
      {time_text(now), name});
}

std::int64_t Records::unlock_user(std::string_view name) {
  return database_.execute("update userinfo set islocked = 0, failaccum = 0 where username = ?", {name});
}

std::int64_t Records::remove_user(std::string_view name) {
  return database_.execute("delete from userinfo where username = ?", {name});
}

std::int64_t Records::remove_token(std::string_view serial) {
  return database_.execute("delete from keyinfo where serialnum = ?", {serial});
}

bool Records::move_token(const Token& before, std::uint64_t counter, std::time_t date) {
  Token after;
  after.set_counter(counter);
  return database_.execute(
             fmt::format("update keyinfo set hcounter = ?, lcounter = ?, predate = {} where serialnum = ? and "
                         "hcounter = ? and lcounter = ?",
                         engine_.date_value),
             {number_parameter(after.high), number_parameter(after.low), time_text(date), before.serial,
              number_parameter(before.high), number_parameter(before.low)}) == 1;
}

}  // namespace zelvan::ctl
