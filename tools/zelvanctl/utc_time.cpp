#include "zelvanctl/utc_time.h"

#include <fmt/core.h>

#include <array>
#include <charconv>
#include <cstdint>

namespace zelvan::ctl {
namespace {

// The number that all of `text` is.
std::optional<int> whole_number(std::string_view text) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || text.front() == '-' || error != std::errc{} || end != text.data() + text.size()) return {};
  return value;
}

// Fields at fixed places: "2024-03-05 17:04:09".
bool take_fields(std::string_view text, std::tm& parts) {
  const auto year = whole_number(text.substr(0, 4));
  const auto month = whole_number(text.substr(5, 2));
  const auto day = whole_number(text.substr(8, 2));
  if (!year || !month || !day || text[4] != '-' || text[7] != '-') return false;
  parts.tm_year = *year - 1900;
  parts.tm_mon = *month - 1;
  parts.tm_mday = *day;
  if (text.size() == 10) return true;
  const auto hour = whole_number(text.substr(11, 2));
  const auto minute = whole_number(text.substr(14, 2));
  const auto second = whole_number(text.substr(17, 2));
  if (!hour || !minute || !second || text[13] != ':' || text[16] != ':') return false;
  parts.tm_hour = *hour;
  parts.tm_min = *minute;
  parts.tm_sec = *second;
  return text[10] == ' ' || text[10] == 'T';
}

// timegm(3) moves a date that does not exist, such as 30 February, to another one.
bool same_date(const std::tm& left, const std::tm& right) {
  return left.tm_year == right.tm_year && left.tm_mon == right.tm_mon && left.tm_mday == right.tm_mday &&
         left.tm_hour == right.tm_hour && left.tm_min == right.tm_min && left.tm_sec == right.tm_sec;
}

std::optional<std::int64_t> unit_seconds(char unit) {
  switch (unit) {
    case 's':
      return 1;
    case 'm':
      return 60;
    case 'h':
      return 3600;
    case 'd':
      return 86400;
    case 'w':
      return 604800;
    default:
      return {};
  }
}

}  // namespace

std::string time_text(std::time_t seconds) {
  std::tm parts{};
  if (gmtime_r(&seconds, &parts) == nullptr) return {};
  std::array<char, 64> text{};
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts)};
}

std::optional<std::time_t> parse_time(std::string_view text) {
  if (text.ends_with('Z')) text.remove_suffix(1);
  if (const auto fraction = text.find('.'); fraction == 19) text = text.substr(0, fraction);
  if (text.size() != 10 && text.size() != 19) return {};
  std::tm parts{};
  if (!take_fields(text, parts)) return {};
  std::tm normal = parts;
  const std::time_t seconds = timegm(&normal);
  if (!same_date(parts, normal)) return {};
  return seconds;
}

std::optional<std::time_t> parse_moment(std::string_view text, std::time_t now) {
  if (text.size() >= 2) {
    const auto unit = unit_seconds(text.back());
    const auto count = whole_number(text.substr(0, text.size() - 1));
    if (unit && count) return now - *unit * *count;
  }
  return parse_time(text);
}

std::string duration_words(std::time_t seconds) {
  struct Unit {
    std::time_t seconds;
    std::string_view name;
  };
  static constexpr std::array kUnits{Unit{86400, "day"}, Unit{3600, "hour"}, Unit{60, "minute"}, Unit{1, "second"}};
  for (const Unit& unit : kUnits) {
    if (const std::time_t count = seconds / unit.seconds; count > 0) {
      return fmt::format("{} {}{}", count, unit.name, count == 1 ? "" : "s");
    }
  }
  return "0 seconds";
}

}  // namespace zelvan::ctl
