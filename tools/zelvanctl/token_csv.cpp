#include "zelvanctl/token_csv.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <optional>

#include "zelvanctl/csv.h"
#include "zelvanctl/fields.h"
#include "zelvanctl/utc_time.h"

namespace zelvan::ctl {
namespace {

constexpr std::array<std::string_view, 12> kColumns{"serial",  "key",  "type", "digits", "window", "step",
                                                    "counter", "date", "user", "mail",   "pin",    "state"};
constexpr std::array<std::string_view, 3> kDemanded{"serial", "key", "type"};

bool is_secret(std::string_view column) { return column == "key" || column == "pin"; }

// Where each column stands in a line.
using Layout = std::map<std::string_view, std::size_t>;

// Reads the titles; returns why they cannot be used, or an empty text.
std::string read_titles(const CsvLine& line, Layout& layout) {
  if (!line.problem.empty()) return line.problem;
  for (std::size_t i = 0; i < line.fields.size(); ++i) {
    const auto column = std::ranges::find(kColumns, line.fields[i]);
    if (column == kColumns.end()) return fmt::format("there is no column '{}'", line.fields[i]);
    if (!layout.emplace(*column, i).second) return fmt::format("column '{}' comes twice", line.fields[i]);
  }
  for (const std::string_view column : kDemanded) {
    if (!layout.contains(column)) return fmt::format("column '{}' is missing", column);
  }
  return {};
}

// A problem of one line ends its reading.
struct LineProblem {
  std::string reason;
};

class LineReader {
 public:
  LineReader(const Layout& layout, const CsvLine& line) : layout_(layout), line_(line) {}

  [[nodiscard]] std::string_view text(std::string_view column) const {
    const auto found = layout_.find(column);
    return found == layout_.end() ? std::string_view{} : std::string_view(line_.fields[found->second]);
  }

  // Returns a number, or the default when the field is empty.
  template <typename Value>
  [[nodiscard]] Value number(std::string_view column, Value fallback) const {
    const std::string_view digits = text(column);
    if (digits.empty()) return fallback;
    Value value{};
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc{} || end != digits.data() + digits.size()) {
      throw LineProblem{fmt::format("{} '{}' is no number", column, digits)};
    }
    return value;
  }

  static void demand(std::string_view column, const std::string& problem) {
    if (!problem.empty()) throw LineProblem{fmt::format("{} {}", column, problem)};
  }

 private:
  const Layout& layout_;
  const CsvLine& line_;
};

void read_position(const LineReader& line, Token& token, std::time_t now) {
  const bool given = !line.text("counter").empty();
  if (!line.text("date").empty()) {
    if (!parse_time(line.text("date"))) throw LineProblem{fmt::format("date '{}' is no time", line.text("date"))};
    token.date = time_text(*parse_time(line.text("date")));
  }
  token.set_counter(line.number<std::uint64_t>("counter", 0));
  const bool timed = value_of(token.type) == kTimeToken;
  if (timed && given != !line.text("date").empty()) {
    throw LineProblem{"a time-stepped token needs counter and date together, or neither"};
  }
  if (timed && !given) start_time_token(token, now);
}

Token read_token(const LineReader& line, std::time_t now) {
  Token token;
  const int type = parse_token_type(line.text("type"));
  if (type == 0) throw LineProblem{fmt::format("type '{}' is not event, time or challenge", line.text("type"))};
  token.serial = line.text("serial");
  token.key = Secret(line.text("key"));
  token.type = Number{type};
  token.digits = Number{line.number<std::int64_t>("digits", 6)};
  token.window = Number{line.number<std::int64_t>("window", 10)};
  token.step = Number{type == kTimeToken ? line.number<std::int64_t>("step", 30) : 0};
  token.date = time_text(now);
  LineReader::demand("serial", serial_problem(token.serial));
  LineReader::demand("key", key_problem(token.key->reveal()));
  LineReader::demand("digits", digits_problem(token.digits->value));
  LineReader::demand("window", window_problem(token.window->value));
  if (type == kTimeToken) LineReader::demand("step", step_problem(token.step->value));
  read_position(line, token, now);
  return token;
}

// The words for what keeps a user from logging in.
constexpr std::string_view kActive = "active";
constexpr std::string_view kLocked = "locked";
constexpr std::string_view kDisabled = "disabled";
constexpr std::string_view kDisabledLocked = "disabled locked";

std::string_view state_of(const User& user) {
  if (user.is_disabled()) return user.is_locked() ? kDisabledLocked : kDisabled;
  return user.is_locked() ? kLocked : kActive;
}

void read_state(std::string_view state, User& user, std::time_t now) {
  const bool locked = state == kLocked || state == kDisabledLocked;
  const bool disabled = state == kDisabled || state == kDisabledLocked;
  if (!locked && !disabled && !state.empty() && state != kActive) {
    throw LineProblem{fmt::format("state '{}' is not active, locked, disabled or disabled locked", state)};
  }
  user.locked = Number{locked ? 1 : 0};
  user.deleted = Number{disabled ? 1 : 0};
  if (locked) user.last_use = time_text(now);
}

std::optional<User> read_user(const LineReader& line, std::time_t now) {
  const std::string_view pin = line.text("pin");
  if (line.text("user").empty()) {
    const bool stray = !pin.empty() || !line.text("mail").empty() || !line.text("state").empty();
    if (stray) throw LineProblem{"mail, pin or state without a user"};
    return {};
  }
  User user;
  user.name = line.text("user");
  user.serial = line.text("serial");
  user.failures = Number{0};
  user.auth_type = Number{pin.empty() ? kCodeOnly : kCodeAndPin};
  read_state(line.text("state"), user, now);
  LineReader::demand("user", user_name_problem(user.name));
  LineReader::demand("mail", mail_problem(line.text("mail")));
  if (!line.text("mail").empty()) user.mail = line.text("mail");
  if (!pin.empty()) {
    LineReader::demand("pin", pin_problem(pin));
    user.pin = Secret(pin);
  }
  return user;
}

// Serial numbers and users of the lines before.
struct Seen {
  std::map<std::string, std::size_t> serials;
  std::map<std::string, std::size_t> users;

  void add(const ImportedToken& token) {
    const auto [serial, new_serial] = serials.emplace(token.token.serial, token.line);
    if (!new_serial)
      throw LineProblem{fmt::format("serial {} stands in line {} already", serial->first, serial->second)};
    if (!token.user) return;
    const auto [user, new_user] = users.emplace(token.user->name, token.line);
    if (!new_user) throw LineProblem{fmt::format("user {} stands in line {} already", user->first, user->second)};
  }
};

ImportedToken read_line(const Layout& layout, const CsvLine& line, std::time_t now) {
  if (!line.problem.empty()) throw LineProblem{line.problem};
  if (line.fields.size() != layout.size()) {
    throw LineProblem{fmt::format("{} fields, but the first line names {}", line.fields.size(), layout.size())};
  }
  const LineReader reader(layout, line);
  return {line.number, read_token(reader, now), read_user(reader, now)};
}

}  // namespace

TokenImport parse_tokens(std::string_view text, std::time_t now) {
  TokenImport result;
  const std::vector<CsvLine> lines = parse_csv(text);
  if (lines.empty()) {
    result.bad_lines.push_back({1, "the file is empty; its first line names the columns"});
    return result;
  }
  Layout layout;
  if (const std::string problem = read_titles(lines.front(), layout); !problem.empty()) {
    result.bad_lines.push_back({lines.front().number, problem});
    return result;
  }
  Seen seen;
  for (auto line = lines.begin() + 1; line != lines.end(); ++line) {
    try {
      ImportedToken token = read_line(layout, *line, now);
      seen.add(token);
      result.tokens.push_back(std::move(token));
    } catch (const LineProblem& problem) {
      result.bad_lines.push_back({line->number, problem.reason});
    }
  }
  return result;
}

std::string token_csv_titles(bool secrets) {
  std::vector<std::string> titles;
  for (const std::string_view column : kColumns) {
    if (secrets || !is_secret(column)) titles.emplace_back(column);
  }
  return csv_line(titles);
}

std::string token_csv_line(const Token& token, const User* user, bool secrets) {
  const auto number = [](const std::optional<Number>& value) { return value ? std::to_string(value->value) : ""; };
  const auto secret = [](const std::optional<Secret>& value) { return value ? value->reveal() : std::string(); };
  const bool with_pin = user != nullptr && user->needs_pin();
  const std::array<std::string, kColumns.size()> cells{
      token.serial,
      secret(token.key),
      token_type_word(value_of(token.type)),
      number(token.digits),
      number(token.window),
      number(token.step),
      std::to_string(token.counter()),
      token.date.value_or(""),
      user == nullptr ? "" : user->name,
      user == nullptr ? "" : user->mail.value_or(""),
      with_pin ? secret(user->pin) : "",
      user == nullptr ? "" : std::string(state_of(*user)),
  };
  std::vector<std::string> fields;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (secrets || !is_secret(kColumns[i])) fields.push_back(cells[i]);
  }
  return csv_line(fields);
}

}  // namespace zelvan::ctl
