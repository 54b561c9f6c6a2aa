// Time as text, and the SQL that carries it to and from the database.
//
// Time text is 19 characters, "%Y-%m-%d %H:%M:%S", written in UTC: 2024-03-05 17:04:09.  It is read back as local time;
// both sides of a difference are read alike, so differences are right to the second.
//
// Threads  No state but ng_dbtype, the SQL dialect, which start-up writes before any other thread exists.
// Memory   Works on the caller's buffers.
#pragma once

#include <cstddef>
#include <ctime>

namespace zelvan {

inline constexpr int kDateLiteralLimit = 56;       // characters of a date literal, NUL not counted
inline constexpr int kColumnExpressionLimit = 99;  // characters of a column expression, NUL not counted

// The format name of the time stamps in the database.
inline constexpr const char* kStoredDateFormat = "YYYY-MM-DD hh24:mi:ss";

// The values of ng_dbtype that make a difference; every other value is the plain dialect.
inline constexpr int kConvertDialect = 3;   // CONVERT(VARCHAR, column, 120)
inline constexpr int kFunctionDialect = 4;  // to_date, to_char

// Bytes of an otp_getcurdate buffer.
inline constexpr std::size_t kTimeTextSize = 56;

}  // namespace zelvan

enum time_wrap_result : int {
  TIME_WRAP_TOO_LONG = -1,  // longer than the limit; the buffer is unchanged
  TIME_WRAP_NULL = 0,       // the buffer is null
  TIME_WRAP_OK = 1,
};

enum checktm_result : int {
  CHECKTM_UNUSABLE = 0,
  CHECKTM_DATE_TIME = 1,  // year, month, day, hour, minute, second
  CHECKTM_DATE = 2,       // year, month, day
};

// Replaces time text by the date literal of the dialect ng_dbtype.  The text is not escaped.
//   buffer  in: NUL-terminated time text; out: the literal; limit + 1 bytes
//   limit   longest literal in characters, NUL not counted; zelvan::kDateLiteralLimit
// Returns a time_wrap_result.
int otp_todate(char* buffer, int limit);

// Replaces a column name by the expression that selects the column as time text in the dialect ng_dbtype.
//   buffer  in: NUL-terminated column name; out: the expression; limit + 1 bytes
//   limit   longest expression in characters, NUL not counted; zelvan::kColumnExpressionLimit
// Returns a time_wrap_result.
int otp_tochar(char* buffer, int limit);

// Writes the current time as time text.
//   buffer  zelvan::kTimeTextSize bytes
// Returns the number of characters written, 19; 0 and an empty text when the clock is beyond the calendar.
int otp_getcurdate(char* buffer);

// Tells what a text in a named format holds.
//   format  NUL-terminated, in any letter case; may be null
// Returns a checktm_result: an unknown name is a date, "Y-M-D" and null are unusable.
int checktm(const char* format);

// Takes time text apart.  Missing fields are empty, an empty field is 0, a year up to 99 counts from 2000, and no field
// is tested against its range (mktime(3) normalises them).  Always in the order year, month, day.
//   text    NUL-terminated; may be null
//   format  NUL-terminated format name; may be null
//   out     for a date tm_year, tm_mon and tm_mday are set; for date and time tm_hour, tm_min, tm_sec and tm_isdst as
//           well; all other fields stay
// Returns 1, or 0 (and leaves `out` alone) for a null argument or an unusable format.
int str2time(const char* text, const char* format, struct tm& out);

// Returns the first time minus the second in seconds, clamped to 32 bits; -1 when one of them cannot be parsed or
// converted, which a caller cannot tell from a difference of -1.  Dates count from midnight.
//   first, second                NUL-terminated time texts; may be null
//   first_format, second_format  NUL-terminated format names; may be null
int otp_diff_time(const char* first, const char* first_format, const char* second, const char* second_format);
