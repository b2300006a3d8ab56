#pragma once
// NSCalendar: calendar arithmetic in a time zone through ICU. Steps of days,
// weeks, months and years follow the calendar (a day across a daylight-saving
// change keeps the wall-clock time; 31 January plus one month is the last day
// of February), steps of hours and smaller are fixed lengths of time.
//
// Calendars are immutable once made: thread-safe, shared as
// std::shared_ptr<const NSCalendar>.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/NSDate.h"
#include "platform/foundation/NSTimeZone.h"

// Bit values as the platform defines them, so masks can be stored and compared.
enum class NSCalendarUnit : std::uint32_t {
  Era = 1u << 1,
  Year = 1u << 2,
  Month = 1u << 3,
  Day = 1u << 4,
  Hour = 1u << 5,
  Minute = 1u << 6,
  Second = 1u << 7,
  Weekday = 1u << 9,
  WeekOfYear = 1u << 13,
  YearForWeekOfYear = 1u << 14,
  Nanosecond = 1u << 15,
};

// A set of units, built with |.
struct NSCalendarUnitMask {
  std::uint32_t bits = 0;
  constexpr NSCalendarUnitMask() = default;
  constexpr NSCalendarUnitMask(NSCalendarUnit unit) : bits(static_cast<std::uint32_t>(unit)) {}
  constexpr bool contains(NSCalendarUnit unit) const { return (bits & static_cast<std::uint32_t>(unit)) != 0; }
};
constexpr NSCalendarUnitMask operator|(NSCalendarUnitMask a, NSCalendarUnitMask b) {
  NSCalendarUnitMask m;
  m.bits = a.bits | b.bits;
  return m;
}
constexpr NSCalendarUnitMask operator|(NSCalendarUnit a, NSCalendarUnit b) {
  return NSCalendarUnitMask(a) | NSCalendarUnitMask(b);
}

// Calendar fields; an absent field is "not asked for" or "leave unchanged".
// Months and days count from 1; weekday 1 is Sunday.
struct NSDateComponents {
  std::optional<std::int64_t> era, year, month, day, hour, minute, second, nanosecond;
  std::optional<std::int64_t> weekday, weekOfYear, yearForWeekOfYear;

  bool operator==(const NSDateComponents&) const = default;
};

inline constexpr std::string_view NSCalendarIdentifierGregorian = "gregorian";
inline constexpr std::string_view NSCalendarIdentifierISO8601 = "iso8601";

class NSCalendar final {
public:
  // The user's calendar (from the locale's calendar preference, ICU's default
  // locale, which follows LANG/LC_*) in NSTimeZone::defaultTimeZone(), made
  // anew on each call so that a changed default zone takes effect.
  static std::shared_ptr<const NSCalendar> currentCalendar();
  // A calendar of the given ICU/platform identifier ("gregorian", "iso8601",
  // "buddhist", "japanese", …) in the given zone (default zone if none).
  // nullptr for an identifier ICU does not know.
  static std::shared_ptr<const NSCalendar> calendarWithIdentifier(std::string_view identifier,
                                                                   std::optional<NSTimeZone> zone = std::nullopt);

  const std::string& calendarIdentifier() const { return _identifier; }
  const NSTimeZone& timeZone() const { return _zone; }
  // 1 = Sunday … 7 = Saturday, from the locale.
  int firstWeekday() const;

  // date moved by value units (negative moves back). Units of a day or more
  // keep the wall-clock time where it exists; a day-of-month that does not
  // exist in the target month becomes that month's last day. nullopt when the
  // result cannot be represented (value out of range).
  std::optional<NSDate> dateByAddingUnit(NSCalendarUnit unit, std::int64_t value, NSDate date) const;
  // Adds each present field, largest unit first. nullopt as above.
  std::optional<NSDate> dateByAddingComponents(const NSDateComponents& components, NSDate date) const;

  // The fields of date named in units; the others stay absent.
  NSDateComponents components(NSCalendarUnitMask units, NSDate date) const;
  std::int64_t component(NSCalendarUnit unit, NSDate date) const;
  // The date the fields name (missing fields take their earliest value;
  // out-of-range fields roll over, 13 months is January of the next year).
  // nullopt when the fields cannot name a date.
  std::optional<NSDate> dateFromComponents(const NSDateComponents& components) const;

  // The first moment of date's day in this calendar's zone.
  NSDate startOfDayForDate(NSDate date) const;
  bool isDate(NSDate a, NSDate b, NSCalendarUnit granularity) const;

  struct Impl;
  NSCalendar(std::string identifier, NSTimeZone zone, std::unique_ptr<const Impl> impl);
  ~NSCalendar();

private:
  std::string _identifier;
  NSTimeZone _zone;
  std::unique_ptr<const Impl> _impl;
};
