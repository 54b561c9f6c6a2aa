// The SQL statements of the server, every one of them, and the builder that puts values into them.
//
// Differs  A text value is escaped: a quote is doubled, and so is a backslash where the DBMS takes it as an escape.  A
//          statement that does not fit its buffer is never built, let alone cut.
// Threads  The escape flag is atomic; everything else is without state.
// Memory   Works on the caller's buffers; allocates nothing.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <variant>

class CQENTDatabase;

namespace zelvan {

// The statements by number.  The values of each, in order, stand behind it: `expression` is an SQL expression spliced
// in as it is (a date literal, a conversion of a column), `text` a text value, the others are numbers.
enum class Statement : int {
  select_user = 1,                 // expression (to-text of preusedate), text (user name)
  unlock_user = 2,                 // expression (now), text (user name)
  select_token = 3,                // expression (to-text of predate), text (serial number)
  update_token = 4,                // uint32 (hcounter), uint32 (lcounter), expression (now), text (serial number)
  reset_failures = 5,              // expression (now), text (user name)
  touch_user = 6,                  // expression (now), text (user name)
  count_failure = 7,               // int (failures), int (lock flag), expression (now), text (user name)
  audit_success = 8,               // expression (now), text (user name), text (client address)
  audit_failure = 9,               // expression (now), text (user name), text (client address)
  audit_update_failed = 10,        // expression (now), text (user name), text (client address)
  audit_update_failed_short = 11,  // expression (now), text (user name)
  select_user_for_sync = 12,       // text (user name)
  select_token_for_sync = 13,      // text (serial number)
  issue_challenge = 14,            // uint32 (challenge), expression (now), text (serial number)
  clear_challenge = 15             // expression (now), text (serial number)
};

// A whole statement with its NUL: 255 characters at most.
using SqlText = std::array<char, 256>;

// A value for a placeholder: text or expression, int, or unsigned 32-bit number.
using SqlValue = std::variant<std::string_view, int, std::uint32_t>;

// Fills `out` with a statement and its values.  A text value is escaped; an expression is not, so it must never hold
// anything that came from outside.
// Returns true, or false (with an empty text in `out`) when the statement does not exist, the count or kind of the
// values is wrong, a value holds a NUL, a text value cannot be stored (see storable_text), or the whole does not fit.
[[nodiscard]] bool build_statement(SqlText& out, Statement statement, std::initializer_list<SqlValue> values);

// Builds a statement and runs it.
// Returns the result of ExecuteDirect (1 or 0), or 0 when it could not be built: the database is then not touched.
int execute_statement(CQENTDatabase& database, Statement statement, std::initializer_list<SqlValue> values);

// Says whether the connected DBMS takes a backslash within quotes as an escape.  Set when a connection is made.
void set_backslash_escapes(bool escapes);

// True when a backslash in a text value is doubled; false until set.
[[nodiscard]] bool backslash_escapes();

// Says whether the connected DBMS takes text in UTF-8 only.  Set when a connection is made.
void set_utf8_only(bool only);

// Returns false for a text that no row of the connected DBMS can hold.  A DBMS that takes UTF-8 only fails a statement
// with other bytes in it, and a failed statement asks for a reconnect, which must not be in the hands of whoever may
// send a user name.
[[nodiscard]] bool storable_text(std::string_view text);

}  // namespace zelvan
