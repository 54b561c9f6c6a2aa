#include "db/statements.h"

#include <atomic>
#include <charconv>
#include <cstddef>
#include <optional>
#include <span>

#include "db/QENTDatabase.h"
#include "db/utf8.h"

namespace zelvan {
namespace {

constexpr std::size_t kStatementCount = 15;

// In the order of their numbers.
constexpr std::array<std::string_view, kStatementCount> kTexts{
    "select serialnum, islocked, failaccum, %s, user_email, authtype, pin from userinfo where username='%s' and "
    "isdeleted = 0",
    "update userinfo set islocked = 0, failaccum = 0, preusedate=%s where username = '%s'",
    "select userkey, tktype, hcounter, lcounter, %s, diglen, authwnd, tmstep from keyinfo where serialnum = '%s'",
    "update keyinfo set hcounter=%lu, lcounter=%lu, predate=%s where serialnum='%s'",
    "update userinfo set failaccum = 0, preusedate=%s where username = '%s'",
    "update userinfo set preusedate = %s where username='%s'",
    "update userinfo set failaccum = %d, islocked = %d, preusedate = %s where username='%s'",
    "insert into commonloginfo (optime, operator, loglev, optype, remark, remoteip) values(%s, '%s', 100, 1, 'auth "
    "succeed', '%s')",
    "insert into commonloginfo (optime, operator, loglev, optype, remark, remoteip) values(%s, '%s', 100, 1, 'auth "
    "failed.', '%s')",
    "insert into commonloginfo (optime, operator, loglev, optype, remark, remoteip) values(%s, '%s', 100, 1, 'Update "
    "userinfo failed.', '%s')",
    // Deliberate: four values without a column list, unlike the three above; whether it succeeds is up to the table.
    "insert into commonloginfo values(%s, '%s', 100, 'Update userinfo failed.')",
    "select authtype, pin, serialnum, preusedate from userinfo where username='%s'",
    "select tktype, hcounter, lcounter, userkey, predate, diglen, authwnd, tmstep from keyinfo where serialnum='%s'",
    "update keyinfo set hcounter=1, lcounter=%lu, predate=%s where serialnum='%s'",
    "update keyinfo set hcounter=0, lcounter=0, predate=%s where serialnum='%s'",
};

std::atomic<bool> escapes_backslash{false};
std::atomic<bool> utf8_only{false};

// Appends to a statement text; remembers what did not fit.
class Writer {
 public:
  explicit Writer(SqlText& out) : out_(out) {}

  [[nodiscard]] bool put(char c) {
    if (used_ + 1 >= out_.size()) return false;  // the last byte is the NUL's
    out_[used_++] = c;
    return true;
  }

  [[nodiscard]] bool put(std::string_view text) {
    for (const char c : text) {
      if (!put(c)) return false;
    }
    return true;
  }

  void finish() { out_[used_] = '\0'; }

 private:
  std::span<char> out_;
  std::size_t used_ = 0;
};

// A NUL would end the statement in the middle.
bool holds_nul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

bool put_escaped(Writer& writer, std::string_view text, bool backslashes) {
  for (const char c : text) {
    const bool twice = c == '\'' || (c == '\\' && backslashes);
    if (twice && !writer.put(c)) return false;
    if (!writer.put(c)) return false;
  }
  return true;
}

template <typename Number>
bool put_number(Writer& writer, Number number) {
  std::array<char, 12> digits;  // "-2147483648" at most
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  return writer.put(std::string_view(digits.data(), static_cast<std::size_t>(end - digits.data())));
}

enum class Kind { expression, text, int_number, uint32_number };

struct Placeholder {
  Kind kind;
  std::size_t length;  // of its characters in the statement text
};

// Returns the placeholder at `at`, where a '%' stands.  Between single quotes %s is a text value, else an expression.
Placeholder placeholder_at(std::string_view text, std::size_t at) {
  switch (text[at + 1]) {
    case 'd':
      return {Kind::int_number, 2};
    case 'l':
      return {Kind::uint32_number, 3};
    default:
      return {at > 0 && text[at - 1] == '\'' ? Kind::text : Kind::expression, 2};
  }
}

bool put_value(Writer& writer, Kind kind, const SqlValue& value) {
  if (kind == Kind::int_number) {
    const int* const number = std::get_if<int>(&value);
    return number != nullptr && put_number(writer, *number);
  }
  if (kind == Kind::uint32_number) {
    const std::uint32_t* const number = std::get_if<std::uint32_t>(&value);
    return number != nullptr && put_number(writer, *number);
  }
  const std::string_view* const text = std::get_if<std::string_view>(&value);
  if (text == nullptr || holds_nul(*text)) return false;
  if (kind == Kind::expression) return writer.put(*text);
  return storable_text(*text) && put_escaped(writer, *text, backslash_escapes());
}

std::optional<std::string_view> text_of(Statement statement) {
  const int number = static_cast<int>(statement);
  if (number < 1 || static_cast<std::size_t>(number) > kTexts.size()) return std::nullopt;
  return kTexts[static_cast<std::size_t>(number) - 1];
}

bool fill(Writer& writer, std::string_view text, std::span<const SqlValue> values) {
  for (std::size_t at = 0; at < text.size();) {
    if (text[at] != '%') {
      if (!writer.put(text[at++])) return false;
      continue;
    }
    const Placeholder placeholder = placeholder_at(text, at);
    if (values.empty() || !put_value(writer, placeholder.kind, values.front())) return false;
    values = values.subspan(1);
    at += placeholder.length;
  }
  return values.empty();
}

}  // namespace

bool build_statement(SqlText& out, Statement statement, std::initializer_list<SqlValue> values) {
  const auto text = text_of(statement);
  Writer writer(out);
  if (!text || !fill(writer, *text, std::span(values.begin(), values.size()))) {
    out[0] = '\0';
    return false;
  }
  writer.finish();
  return true;
}

int execute_statement(CQENTDatabase& database, Statement statement, std::initializer_list<SqlValue> values) {
  SqlText sql;
  if (!build_statement(sql, statement, values)) return kNotExecuted;
  return database.ExecuteDirect(sql.data());
}

void set_backslash_escapes(bool escapes) { escapes_backslash = escapes; }

bool backslash_escapes() { return escapes_backslash; }

void set_utf8_only(bool only) { utf8_only = only; }

bool storable_text(std::string_view text) { return !utf8_only || is_utf8(text); }

}  // namespace zelvan
