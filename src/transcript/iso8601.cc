#include "transcript/iso8601.h"

#include <cmath>

#include <fmt/format.h>

namespace ostler::ISO8601 {
namespace {

bool digits(std::string_view s, size_t at, size_t n, int* out) {
  if (at + n > s.size()) return false;
  int v = 0;
  for (size_t i = at; i < at + n; ++i) {
    char c = s[i];
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  *out = v;
  return true;
}

bool isLeap(int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int daysInMonth(int y, int m) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && isLeap(y) ? 29 : kDays[m - 1];
}

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

}  // namespace

int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = floorDiv(y, 400);
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void civilFromDays(int64_t z, int64_t* y, unsigned* m, unsigned* d) {
  z += 719468;
  const int64_t era = floorDiv(z, 146097);
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  *d = doy - (153 * mp + 2) / 5 + 1;
  *m = mp < 10 ? mp + 3 : mp - 9;
  *y = static_cast<int64_t>(yoe) + era * 400 + (*m <= 2);
}

std::optional<InstantMs> parse(std::string_view s) {
  int year, month, day, hour, minute, second;
  if (s.size() < 20) return std::nullopt;
  if (!digits(s, 0, 4, &year) || s[4] != '-' || !digits(s, 5, 2, &month) || s[7] != '-' ||
      !digits(s, 8, 2, &day) || s[10] != 'T' || !digits(s, 11, 2, &hour) || s[13] != ':' ||
      !digits(s, 14, 2, &minute) || s[16] != ':' || !digits(s, 17, 2, &second))
    return std::nullopt;
  if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 ||
      minute > 59 || second > 59)
    return std::nullopt;
  size_t i = 19;
  int millis = 0;
  if (s[i] == '.') {
    ++i;
    size_t start = i;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
      if (i - start < 3) millis = millis * 10 + (s[i] - '0');
      ++i;
    }
    size_t n = i - start;
    if (n == 0) return std::nullopt;
    for (size_t k = n; k < 3; ++k) millis *= 10;
  }
  if (i >= s.size()) return std::nullopt;
  int offsetMinutes = 0;
  if (s[i] == 'Z') {
    ++i;
  } else if (s[i] == '+' || s[i] == '-') {
    int oh, om;
    if (!digits(s, i + 1, 2, &oh) || i + 3 >= s.size() || s[i + 3] != ':' || !digits(s, i + 4, 2, &om))
      return std::nullopt;
    if (oh > 23 || om > 59) return std::nullopt;
    offsetMinutes = (oh * 60 + om) * (s[i] == '-' ? -1 : 1);
    i += 6;
  } else {
    return std::nullopt;
  }
  if (i != s.size()) return std::nullopt;
  int64_t days = daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day));
  int64_t secs = days * 86400 + hour * 3600 + minute * 60 + second - int64_t{offsetMinutes} * 60;
  return secs * 1000 + millis;
}

bool isCalendarDate(std::string_view s) {
  int y, m, d;
  if (s.size() != 10 || !digits(s, 0, 4, &y) || s[4] != '-' || !digits(s, 5, 2, &m) || s[7] != '-' ||
      !digits(s, 8, 2, &d))
    return false;
  return m >= 1 && m <= 12 && d >= 1 && d <= daysInMonth(y, m);
}

namespace {
std::string format(InstantMs t, bool withMillis) {
  int64_t secs = floorDiv(t, 1000);
  int64_t ms = t - secs * 1000;
  int64_t days = floorDiv(secs, 86400);
  int64_t rem = secs - days * 86400;
  int64_t y;
  unsigned m, d;
  civilFromDays(days, &y, &m, &d);
  int hh = static_cast<int>(rem / 3600), mm = static_cast<int>(rem / 60 % 60), ss = static_cast<int>(rem % 60);
  if (withMillis)
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", y, m, d, hh, mm, ss, ms);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", y, m, d, hh, mm, ss);
}
}  // namespace

std::string fractional(InstantMs t) { return format(t, true); }
std::string whole(InstantMs t) { return format(t, false); }

}  // namespace ostler::ISO8601

namespace ostler::ReferenceSeconds {

InstantMs instant(double seconds) { return static_cast<InstantMs>(std::llround(seconds * 1000.0)) + kEpochMs; }

}  // namespace ostler::ReferenceSeconds
