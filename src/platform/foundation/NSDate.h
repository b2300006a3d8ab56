#pragma once
// A point in time: seconds since 1 January 2001 00:00:00 UTC, the platform's
// reference date. A plain value; thread-safe to copy.

#include <compare>
#include <optional>
#include <string>
#include <string_view>

class NSDate {
public:
  constexpr NSDate() = default;
  constexpr explicit NSDate(double sinceReferenceDate) : _t(sinceReferenceDate) {}

  // Seconds between 1970-01-01 and 2001-01-01.
  static constexpr double kTimeIntervalBetween1970AndReferenceDate = 978307200.0;

  static constexpr NSDate dateWithTimeIntervalSinceReferenceDate(double t) { return NSDate(t); }
  static constexpr NSDate dateWithTimeIntervalSince1970(double t) {
    return NSDate(t - kTimeIntervalBetween1970AndReferenceDate);
  }
  // The clock's "now" (see ZBClock): injectable for tests.
  static NSDate date();

  constexpr double timeIntervalSinceReferenceDate() const { return _t; }
  constexpr double timeIntervalSince1970() const { return _t + kTimeIntervalBetween1970AndReferenceDate; }
  constexpr double timeIntervalSinceDate(NSDate other) const { return _t - other._t; }
  double timeIntervalSinceNow() const;
  constexpr NSDate dateByAddingTimeInterval(double seconds) const { return NSDate(_t + seconds); }

  constexpr auto operator<=>(const NSDate&) const = default;

  // ISO 8601 in UTC with whole seconds ("2026-11-23T05:32:29Z"); fractional
  // seconds are printed only when present.
  std::string ISO8601String() const;
  // Accepts "YYYY-MM-DDTHH:MM:SS[.fff](Z|±HH:MM|±HHMM)"; nullopt for anything else.
  static std::optional<NSDate> dateFromISO8601String(std::string_view text);

private:
  double _t = 0;
};
