// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/when.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <string>

namespace kddc {
namespace {

// Thirteen digits are three hundred thousand years; milliseconds given by mistake are refused.
constexpr std::size_t kMaxDigits = 12;

struct Unit {
  char letter;
  long long seconds;
};
constexpr Unit kUnits[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}, {'w', 7 * 86400}};

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// What is left of a text, eaten from the front.
class Cursor {
 public:
  explicit Cursor(std::string_view text) : rest_(text) {}

  bool atEnd() const { return rest_.empty(); }
  // Takes one character when it is one of `any`; 0 otherwise.
  char take(std::string_view any) {
    if (rest_.empty() || any.find(rest_.front()) == any.npos) return 0;
    const char taken = rest_.front();
    rest_.remove_prefix(1);
    return taken;
  }
  // Takes between `least` and `most` digits.
  std::optional<long long> number(std::size_t least, std::size_t most) {
    std::size_t count = 0;
    long long value = 0;
    while (count < rest_.size() && count < most && isDigit(rest_[count]))
      value = value * 10 + (rest_[count++] - '0');
    if (count < least) return std::nullopt;
    rest_.remove_prefix(count);
    return value;
  }
  std::optional<int> twoDigits(int highest) {
    const auto value = number(2, 2);
    if (!value || *value > highest) return std::nullopt;
    return static_cast<int>(*value);
  }
  // Takes ".25" or nothing; false for a point without digits.
  bool fraction() {
    if (!take(".,")) return true;
    return number(1, 18).has_value();
  }

 private:
  std::string_view rest_;
};

std::optional<long long> fromSeconds(std::string_view text) {
  Cursor cursor(text);
  cursor.take("@");
  const auto seconds = cursor.number(1, kMaxDigits);
  return seconds && cursor.fraction() && cursor.atEnd() ? seconds : std::nullopt;
}

std::optional<long long> fromAge(std::string_view text, long long now) {
  Cursor cursor(text);
  const auto count = cursor.number(1, kMaxDigits);
  if (!count) return std::nullopt;
  for (const Unit& unit : kUnits)
    if (cursor.take({&unit.letter, 1}) && cursor.atEnd()) return now - *count * unit.seconds;
  return std::nullopt;
}

// A calendar time whose place on earth is not yet known.
struct Calendar {
  std::chrono::year_month_day date;
  int hour = 0, minute = 0, second = 0;
};

std::optional<std::chrono::year_month_day> readDate(Cursor& cursor) {
  const auto year = cursor.number(4, 4);
  if (!year || !cursor.take("-")) return std::nullopt;
  const auto month = cursor.twoDigits(12);
  if (!month || !cursor.take("-")) return std::nullopt;
  const auto day = cursor.twoDigits(31);
  if (!day) return std::nullopt;
  const std::chrono::year_month_day date(std::chrono::year(static_cast<int>(*year)),
                                         std::chrono::month(static_cast<unsigned>(*month)),
                                         std::chrono::day(static_cast<unsigned>(*day)));
  return date.ok() ? std::optional(date) : std::nullopt;
}

// hh:mm, with :ss and a fraction after it or not. A leap second counts as the one after it.
bool readTime(Cursor& cursor, Calendar& calendar) {
  const auto hour = cursor.twoDigits(23);
  if (!hour || !cursor.take(":")) return false;
  const auto minute = cursor.twoDigits(59);
  if (!minute) return false;
  calendar.hour = *hour;
  calendar.minute = *minute;
  if (!cursor.take(":")) return true;
  const auto second = cursor.twoDigits(60);
  if (!second) return false;
  calendar.second = *second;
  return cursor.fraction();
}

long long inUniversalTime(const Calendar& c) {
  const auto days = std::chrono::sys_days(c.date).time_since_epoch().count();
  return days * 86400LL + c.hour * 3600 + c.minute * 60 + c.second;
}

long long inLocalTime(const Calendar& c) {
  std::tm tm{};
  tm.tm_year = static_cast<int>(c.date.year()) - 1900;
  tm.tm_mon = static_cast<int>(static_cast<unsigned>(c.date.month())) - 1;
  tm.tm_mday = static_cast<int>(static_cast<unsigned>(c.date.day()));
  tm.tm_hour = c.hour;
  tm.tm_min = c.minute;
  tm.tm_sec = c.second;
  tm.tm_isdst = -1;  // the zone's rules know
  return std::mktime(&tm);
}

// Z, +02:00, +0200 or +02; how far ahead of universal time.
std::optional<long long> readZone(Cursor& cursor) {
  if (cursor.take("Z")) return 0;
  const char sign = cursor.take("+-");
  const auto hours = cursor.twoDigits(23);
  if (!sign || !hours) return std::nullopt;
  long long ahead = *hours * 3600;
  if (cursor.take(":") || !cursor.atEnd()) {
    const auto minutes = cursor.twoDigits(59);
    if (!minutes) return std::nullopt;
    ahead += *minutes * 60;
  }
  return sign == '-' ? -ahead : ahead;
}

std::optional<long long> fromCalendar(std::string_view text) {
  Cursor cursor(text);
  const auto date = readDate(cursor);
  if (!date) return std::nullopt;
  Calendar calendar{*date};
  if (cursor.atEnd()) return inLocalTime(calendar);
  if (!cursor.take("T ") || !readTime(cursor, calendar)) return std::nullopt;
  if (cursor.atEnd()) return inLocalTime(calendar);
  const auto ahead = readZone(cursor);
  if (!ahead || !cursor.atEnd()) return std::nullopt;
  return inUniversalTime(calendar) - *ahead;
}

}  // namespace

// No text has two of the forms, so the order does not matter.
long long parseWhen(std::string_view text, long long now) {
  if (const auto seconds = fromSeconds(text)) return *seconds;
  if (const auto age = fromAge(text, now)) return *age;
  if (const auto moment = fromCalendar(text)) return *moment;
  throw std::invalid_argument("'" + std::string(text) +
                              "' is no time: give seconds since 1970, a date such as "
                              "2024-03-01T12:30, or an age such as 15m, 2h, 3d");
}

}  // namespace kddc
