#include "platform/foundation/NSDate.h"

#include <cmath>
#include <cstdint>
#include <cstdio>

#include "platform/foundation/ZBClock.h"

namespace {

constexpr std::int64_t kSecondsPerDay = 86400;
// Days from 1970-01-01 to 2001-01-01.
constexpr std::int64_t kReferenceDateDays = 11323;

std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
  std::int64_t q = a / b;
  return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

// Proleptic Gregorian conversions between a civil date and days since
// 1970-01-01 (Howard Hinnant's algorithms); exact for any year we can print.
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = floorDiv(y, 400);
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

void civilFromDays(std::int64_t z, std::int64_t& y, unsigned& m, unsigned& d) {
  z += 719468;
  const std::int64_t era = floorDiv(z, 146097);
  const auto doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  y = static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2);
}

bool isLeapYear(std::int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

unsigned daysInMonth(std::int64_t y, unsigned m) {
  static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && isLeapYear(y) ? 29 : kDays[m - 1];
}

// A cursor over the text being parsed; every reader fails without moving.
struct Scanner {
  std::string_view text;
  std::size_t pos = 0;

  bool digits(std::size_t count, int& out) {
    if (pos + count > text.size()) return false;
    int value = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const char c = text[pos + i];
      if (c < '0' || c > '9') return false;
      value = value * 10 + (c - '0');
    }
    pos += count;
    out = value;
    return true;
  }
  bool literal(char c) {
    if (pos < text.size() && text[pos] == c) {
      ++pos;
      return true;
    }
    return false;
  }
  bool atEnd() const { return pos == text.size(); }
  char peek() const { return pos < text.size() ? text[pos] : '\0'; }
};

}  // namespace

NSDate NSDate::date() { return ZBClock::current()->now(); }

double NSDate::timeIntervalSinceNow() const { return timeIntervalSinceDate(NSDate::date()); }

std::string NSDate::ISO8601String() const {
  if (!std::isfinite(_t)) return {};
  // Work in whole microseconds so that rounding never prints ".1000000" or
  // a second of 60.
  const double micros = std::round(_t * 1e6);
  if (std::fabs(micros) > 9.0e18) return {};
  const auto totalMicros = static_cast<std::int64_t>(micros);
  const std::int64_t totalSeconds = floorDiv(totalMicros, 1000000);
  const std::int64_t fraction = totalMicros - totalSeconds * 1000000;
  const std::int64_t days = floorDiv(totalSeconds, kSecondsPerDay);
  const std::int64_t secondOfDay = totalSeconds - days * kSecondsPerDay;

  std::int64_t year;
  unsigned month, day;
  civilFromDays(days + kReferenceDateDays, year, month, day);

  char buffer[64];
  int n = std::snprintf(buffer, sizeof buffer, "%04lld-%02u-%02uT%02d:%02d:%02d", static_cast<long long>(year), month,
                        day, static_cast<int>(secondOfDay / 3600), static_cast<int>(secondOfDay / 60 % 60),
                        static_cast<int>(secondOfDay % 60));
  std::string out(buffer, static_cast<std::size_t>(n));
  if (fraction != 0) {
    // Milliseconds when they say it all, microseconds otherwise.
    if (fraction % 1000 == 0) {
      n = std::snprintf(buffer, sizeof buffer, ".%03d", static_cast<int>(fraction / 1000));
    } else {
      n = std::snprintf(buffer, sizeof buffer, ".%06d", static_cast<int>(fraction));
      while (n > 4 && buffer[n - 1] == '0') --n;
    }
    out.append(buffer, static_cast<std::size_t>(n));
  }
  out += 'Z';
  return out;
}

namespace {

// "YYYY-MM-DDTHH:MM:SSZ", read without the general scanner: it is the form of
// every post of a bookmark service's full list, 100 000 of them for a large
// account. Anything else, an invalid date included, is left to the scanner.
std::optional<NSDate> serviceForm(std::string_view s) {
  if (s.size() != 20 || s[4] != '-' || s[7] != '-' || s[10] != 'T' || s[13] != ':' || s[16] != ':' || s[19] != 'Z')
    return std::nullopt;
  auto at = [&](std::size_t i, std::size_t n) {
    int v = 0;
    for (std::size_t k = i; k < i + n; ++k) {
      if (s[k] < '0' || s[k] > '9') return -1;
      v = v * 10 + (s[k] - '0');
    }
    return v;
  };
  const int y = at(0, 4), m = at(5, 2), d = at(8, 2), h = at(11, 2), mi = at(14, 2), sec = at(17, 2);
  if (y < 0 || m < 1 || m > 12 || d < 1 || h < 0 || h > 23 || mi < 0 || mi > 59 || sec < 0 || sec > 59 ||
      static_cast<unsigned>(d) > daysInMonth(y, static_cast<unsigned>(m)))
    return std::nullopt;
  const std::int64_t days = daysFromCivil(y, static_cast<unsigned>(m), static_cast<unsigned>(d));
  return NSDate(static_cast<double>((days - kReferenceDateDays) * kSecondsPerDay + h * 3600 + mi * 60 + sec));
}

}  // namespace

std::optional<NSDate> NSDate::dateFromISO8601String(std::string_view text) {
  if (auto date = serviceForm(text)) return date;
  Scanner s{text};
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (!s.digits(4, year) || !s.literal('-') || !s.digits(2, month) || !s.literal('-') || !s.digits(2, day) ||
      !s.literal('T') || !s.digits(2, hour) || !s.literal(':') || !s.digits(2, minute) || !s.literal(':') ||
      !s.digits(2, second)) {
    return std::nullopt;
  }
  if (month < 1 || month > 12 || day < 1 || static_cast<unsigned>(day) > daysInMonth(year, static_cast<unsigned>(month)) ||
      hour > 23 || minute > 59 || second > 59) {
    return std::nullopt;
  }

  double fraction = 0;
  if (s.literal('.')) {
    double scale = 0.1;
    std::size_t count = 0;
    while (s.peek() >= '0' && s.peek() <= '9') {
      fraction += (s.peek() - '0') * scale;
      scale /= 10;
      ++s.pos;
      ++count;
    }
    if (count == 0) return std::nullopt;
  }

  int offsetSeconds = 0;
  if (!s.literal('Z')) {
    int sign;
    if (s.literal('+')) {
      sign = 1;
    } else if (s.literal('-')) {
      sign = -1;
    } else {
      return std::nullopt;
    }
    int offsetHours, offsetMinutes;
    if (!s.digits(2, offsetHours)) return std::nullopt;
    s.literal(':');
    if (!s.digits(2, offsetMinutes) || offsetHours > 23 || offsetMinutes > 59) return std::nullopt;
    offsetSeconds = sign * (offsetHours * 3600 + offsetMinutes * 60);
  }
  if (!s.atEnd()) return std::nullopt;

  const std::int64_t days = daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day));
  const std::int64_t seconds =
      (days - kReferenceDateDays) * kSecondsPerDay + hour * 3600 + minute * 60 + second - offsetSeconds;
  return NSDate(static_cast<double>(seconds) + fraction);
}
