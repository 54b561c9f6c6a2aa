#include "db/time_text.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "config/settings.h"

namespace {

constexpr const char* kTimeTextPattern = "%Y-%m-%d %H:%M:%S";

std::string date_literal(const std::string& text) {
  if (ng_dbtype == zelvan::kFunctionDialect) return "to_date('" + text + "','yyyy-mm-dd hh24:mi:ss')";
  return "'" + text + "'";
}

std::string column_expression(const std::string& column) {
  if (ng_dbtype == zelvan::kFunctionDialect) return "to_char(" + column + ",'yyyy-mm-dd hh24:mi:ss')";
  // The name again as the alias, so that the result column keeps it.
  if (ng_dbtype == zelvan::kConvertDialect) return "CONVERT(VARCHAR, " + column + ", 120) " + column;
  return column;
}

int replace_text(char* buffer, int limit, const std::string& text) {
  if (limit < 0 || text.size() > static_cast<std::size_t>(limit)) return TIME_WRAP_TOO_LONG;
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return TIME_WRAP_OK;
}

struct NamedFormat {
  const char* name;
  checktm_result rating;
};

constexpr std::array<NamedFormat, 7> kFormats{{
    {"YYYY-MM-DD hh24:mi:ss", CHECKTM_DATE_TIME},
    {"YYYY-MM-DD hh:mi:ss", CHECKTM_DATE_TIME},
    {"Y-M-D h:m:s", CHECKTM_DATE_TIME},
    {"YYYY/MM/DD hh24:mi:ss", CHECKTM_DATE_TIME},
    {"Y/M/D h:m:s", CHECKTM_DATE_TIME},
    {"YYYY-MM-DD", CHECKTM_DATE},
    // Deliberate: the short name of a date is refused, while a name that nobody knows is taken as a date.
    {"Y-M-D", CHECKTM_UNUSABLE},
}};

constexpr std::string_view kSeparators = "- :/";
// Deliberate: the year of a date and time does not end at "/", so 2024/03/05 10:11:12 loses its month and day.
constexpr std::string_view kYearSeparators = "- :";

// Takes the next field off the text, with the one separator behind it, and returns its value, as atoi(3) reads it.
//   width  characters of the field that count; at most 4
int take_number(std::string_view& text, std::size_t width, std::string_view separators) {
  const std::size_t length = std::min(text.find_first_of(separators), text.size());
  std::array<char, 5> field{};
  text.copy(field.data(), std::min({length, width, field.size() - 1}));
  text.remove_prefix(std::min(length + 1, text.size()));
  return static_cast<int>(std::strtol(field.data(), nullptr, 10));
}

int take_two_digits(std::string_view& text) { return take_number(text, 2, kSeparators); }

std::optional<std::time_t> to_seconds(const char* text, const char* format) {
  struct tm parts {};
  if (str2time(text, format, parts) == 0) return std::nullopt;
  const std::time_t seconds = std::mktime(&parts);
  if (seconds == -1) return std::nullopt;
  return seconds;
}

}  // namespace

int otp_todate(char* buffer, int limit) {
  if (buffer == nullptr) return TIME_WRAP_NULL;
  return replace_text(buffer, limit, date_literal(buffer));
}

int otp_tochar(char* buffer, int limit) {
  if (buffer == nullptr) return TIME_WRAP_NULL;
  return replace_text(buffer, limit, column_expression(buffer));
}

int otp_getcurdate(char* buffer) {
  const std::time_t now = zelvan::now_seconds();
  struct tm parts {};
  buffer[0] = '\0';
  if (gmtime_r(&now, &parts) == nullptr) return 0;
  return static_cast<int>(std::strftime(buffer, zelvan::kTimeTextSize, kTimeTextPattern, &parts));
}

int checktm(const char* format) {
  if (format == nullptr) return CHECKTM_UNUSABLE;
  const auto* known = std::find_if(kFormats.begin(), kFormats.end(),
                                   [format](const NamedFormat& each) { return strcasecmp(each.name, format) == 0; });
  return known != kFormats.end() ? known->rating : CHECKTM_DATE;
}

int str2time(const char* text, const char* format, struct tm& out) {
  const int rating = checktm(format);
  if (text == nullptr || rating == CHECKTM_UNUSABLE) return 0;

  std::string_view rest = text;
  const int year = take_number(rest, 4, rating == CHECKTM_DATE_TIME ? kYearSeparators : kSeparators);
  out.tm_year = (year <= 99 ? year + 2000 : year) - 1900;
  out.tm_mon = take_two_digits(rest) - 1;
  out.tm_mday = take_two_digits(rest);
  if (rating == CHECKTM_DATE) return 1;

  out.tm_hour = take_two_digits(rest);
  out.tm_min = take_two_digits(rest);
  out.tm_sec = take_two_digits(rest);
  out.tm_isdst = 0;
  return 1;
}

int otp_diff_time(const char* first, const char* first_format, const char* second, const char* second_format) {
  const auto first_seconds = to_seconds(first, first_format);
  const auto second_seconds = to_seconds(second, second_format);
  if (!first_seconds || !second_seconds) return -1;
  const std::time_t difference = *first_seconds - *second_seconds;
  return static_cast<int>(
      std::clamp<std::time_t>(difference, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}
