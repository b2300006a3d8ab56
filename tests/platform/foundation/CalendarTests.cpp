#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include "platform/foundation/NSCalendar.h"
#include "platform/foundation/NSTimeZone.h"
#include "support/TogetherThreads.h"

namespace {

NSTimeZone zone(const char* name) {
  auto z = NSTimeZone::timeZoneWithName(name);
  EXPECT_TRUE(z) << name;
  return z ? *z : NSTimeZone::GMT();
}

std::shared_ptr<const NSCalendar> gregorian(const char* zoneName) {
  auto calendar = NSCalendar::calendarWithIdentifier(NSCalendarIdentifierGregorian, zone(zoneName));
  EXPECT_TRUE(calendar);
  return calendar;
}

// A wall-clock time in the calendar's zone.
NSDate at(const NSCalendar& calendar, int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
  NSDateComponents c;
  c.year = year, c.month = month, c.day = day, c.hour = hour, c.minute = minute, c.second = second;
  auto date = calendar.dateFromComponents(c);
  EXPECT_TRUE(date);
  return date.value_or(NSDate());
}

struct Wall {
  std::int64_t year, month, day, hour, minute;
  bool operator==(const Wall&) const = default;
};
std::ostream& operator<<(std::ostream& os, const Wall& w) {
  return os << w.year << "-" << w.month << "-" << w.day << " " << w.hour << ":" << w.minute;
}

Wall wall(const NSCalendar& calendar, std::optional<NSDate> date) {
  EXPECT_TRUE(date);
  const auto c = calendar.components(NSCalendarUnit::Year | NSCalendarUnit::Month | NSCalendarUnit::Day |
                                         NSCalendarUnit::Hour | NSCalendarUnit::Minute,
                                     date.value_or(NSDate()));
  return {*c.year, *c.month, *c.day, *c.hour, *c.minute};
}

// Restores the process's default zone after a test that changes it.
class DefaultZoneGuard {
public:
  ~DefaultZoneGuard() { NSTimeZone::setDefaultTimeZone(std::nullopt); }
};

}  // namespace

TEST(NSCalendar, MonthAndYearStepsClampToTheLastDayOfTheMonth) {
  auto cal = gregorian("Europe/Berlin");
  EXPECT_EQ(wall(*cal, cal->dateByAddingUnit(NSCalendarUnit::Month, 1, at(*cal, 2026, 1, 31, 10))),
            (Wall{2026, 2, 28, 10, 0}));
  EXPECT_EQ(wall(*cal, cal->dateByAddingUnit(NSCalendarUnit::Month, 1, at(*cal, 2024, 1, 31, 10))),
            (Wall{2024, 2, 29, 10, 0}));
  EXPECT_EQ(wall(*cal, cal->dateByAddingUnit(NSCalendarUnit::Month, -1, at(*cal, 2026, 3, 31))),
            (Wall{2026, 2, 28, 0, 0}));
  EXPECT_EQ(wall(*cal, cal->dateByAddingUnit(NSCalendarUnit::Month, -13, at(*cal, 2026, 5, 31, 8, 30))),
            (Wall{2025, 4, 30, 8, 30}));
  EXPECT_EQ(wall(*cal, cal->dateByAddingUnit(NSCalendarUnit::Year, 1, at(*cal, 2024, 2, 29))),
            (Wall{2025, 2, 28, 0, 0}));
  EXPECT_EQ(wall(*cal, cal->dateByAddingUnit(NSCalendarUnit::Year, -4, at(*cal, 2024, 2, 29))),
            (Wall{2020, 2, 29, 0, 0}));
  // Crossing a daylight-saving change (March → January) keeps the wall time.
  EXPECT_EQ(wall(*cal, cal->dateByAddingUnit(NSCalendarUnit::Month, -3, at(*cal, 2026, 4, 15, 12))),
            (Wall{2026, 1, 15, 12, 0}));
}

TEST(NSCalendar, DayAndWeekStepsKeepWallTimeAcrossDaylightSaving) {
  auto cal = gregorian("Europe/Berlin");
  // Clocks went forward at 02:00 on 2026-03-29: that day has 23 hours.
  const NSDate midnight = at(*cal, 2026, 3, 29);
  const auto nextDay = cal->dateByAddingUnit(NSCalendarUnit::Day, 1, midnight);
  EXPECT_EQ(wall(*cal, nextDay), (Wall{2026, 3, 30, 0, 0}));
  EXPECT_DOUBLE_EQ(nextDay->timeIntervalSinceDate(midnight), 23 * 3600);
  // Back again over the same change.
  EXPECT_EQ(*cal->dateByAddingUnit(NSCalendarUnit::Day, -1, *nextDay), midnight);
  // Clocks went back on 2026-10-25: that day has 25 hours.
  const NSDate october = at(*cal, 2026, 10, 25, 0, 30);
  const auto after = cal->dateByAddingUnit(NSCalendarUnit::Day, 1, october);
  EXPECT_EQ(wall(*cal, after), (Wall{2026, 10, 26, 0, 30}));
  EXPECT_DOUBLE_EQ(after->timeIntervalSinceDate(october), 25 * 3600);

  // A week step is seven calendar days, over the change and over a year end.
  const auto week = cal->dateByAddingUnit(NSCalendarUnit::WeekOfYear, 1, at(*cal, 2026, 3, 25, 9));
  EXPECT_EQ(wall(*cal, week), (Wall{2026, 4, 1, 9, 0}));
  EXPECT_DOUBLE_EQ(week->timeIntervalSinceDate(at(*cal, 2026, 3, 25, 9)), 7 * 86400 - 3600);
  EXPECT_EQ(wall(*cal, cal->dateByAddingUnit(NSCalendarUnit::WeekOfYear, -2, at(*cal, 2027, 1, 5, 18))),
            (Wall{2026, 12, 22, 18, 0}));
  EXPECT_EQ(wall(*cal, cal->dateByAddingUnit(NSCalendarUnit::WeekOfYear, 53, at(*cal, 2026, 1, 1))),
            (Wall{2027, 1, 7, 0, 0}));

  // A day step landing in the skipped hour moves forward to a real time.
  EXPECT_EQ(wall(*cal, cal->dateByAddingUnit(NSCalendarUnit::Day, 1, at(*cal, 2026, 3, 28, 2, 30))),
            (Wall{2026, 3, 29, 3, 30}));
}

TEST(NSCalendar, HourStepsAreFixedLengthsOfTime) {
  auto cal = gregorian("Europe/Berlin");
  const NSDate before = at(*cal, 2026, 3, 29, 1, 30);
  const auto later = cal->dateByAddingUnit(NSCalendarUnit::Hour, 1, before);
  EXPECT_DOUBLE_EQ(later->timeIntervalSinceDate(before), 3600);
  EXPECT_EQ(wall(*cal, later), (Wall{2026, 3, 29, 3, 30}));  // 02:30 does not exist
  const auto back = cal->dateByAddingUnit(NSCalendarUnit::Hour, -72, before);
  EXPECT_DOUBLE_EQ(back->timeIntervalSinceDate(before), -72 * 3600);
  // Sub-millisecond fractions survive calendar arithmetic.
  // Sub-millisecond fractions survive calendar arithmetic (to the precision
  // a double holds at this distance from 2001).
  const NSDate precise = at(*cal, 2026, 1, 10, 8).dateByAddingTimeInterval(0.0004);
  EXPECT_NEAR(cal->dateByAddingUnit(NSCalendarUnit::Day, 1, precise)->timeIntervalSinceDate(precise), 86400, 1e-6);
  EXPECT_NEAR(cal->dateByAddingUnit(NSCalendarUnit::Second, 0, precise)->timeIntervalSinceDate(precise), 0, 1e-6);
  EXPECT_NEAR(cal->component(NSCalendarUnit::Nanosecond, precise), 400000, 1000);
}

TEST(NSCalendar, RefusesStepsItCannotRepresent) {
  auto cal = gregorian("UTC");
  EXPECT_FALSE(cal->dateByAddingUnit(NSCalendarUnit::Day, 1LL << 40, NSDate(0)));
  EXPECT_FALSE(cal->dateByAddingUnit(NSCalendarUnit::Year, -(1LL << 33), NSDate(0)));
  EXPECT_FALSE(cal->dateByAddingUnit(NSCalendarUnit::Day, 1, NSDate(std::numeric_limits<double>::infinity())));
  NSDateComponents huge;
  huge.year = 1LL << 40;
  EXPECT_FALSE(cal->dateFromComponents(huge));
  EXPECT_FALSE(NSCalendar::calendarWithIdentifier("no-such-calendar"));
}

TEST(NSCalendar, ComponentsAndStartOfDayFollowTheZone) {
  auto berlin = gregorian("Europe/Berlin");
  auto tokyo = gregorian("Asia/Tokyo");
  const NSDate instant = *NSDate::dateFromISO8601String("2026-03-28T23:30:00Z");
  // The same instant is a different day in each zone.
  EXPECT_EQ(wall(*berlin, instant), (Wall{2026, 3, 29, 0, 30}));
  EXPECT_EQ(wall(*tokyo, instant), (Wall{2026, 3, 29, 8, 30}));
  EXPECT_EQ(berlin->component(NSCalendarUnit::Weekday, instant), 1);  // Sunday
  EXPECT_EQ(berlin->startOfDayForDate(instant), *NSDate::dateFromISO8601String("2026-03-28T23:00:00Z"));
  EXPECT_EQ(tokyo->startOfDayForDate(instant), *NSDate::dateFromISO8601String("2026-03-28T15:00:00Z"));
  EXPECT_TRUE(berlin->isDate(instant, at(*berlin, 2026, 3, 29, 23, 59), NSCalendarUnit::Day));
  EXPECT_FALSE(tokyo->isDate(instant, at(*berlin, 2026, 3, 29, 23, 59), NSCalendarUnit::Day));

  // In São Paulo midnight did not exist on 2018-11-04: the day began at 01:00.
  auto saoPaulo = gregorian("America/Sao_Paulo");
  const NSDate noon = at(*saoPaulo, 2018, 11, 4, 12);
  EXPECT_EQ(wall(*saoPaulo, saoPaulo->startOfDayForDate(noon)), (Wall{2018, 11, 4, 1, 0}));

  // Nanoseconds come from the fraction below the second.
  EXPECT_NEAR(static_cast<double>(berlin->component(NSCalendarUnit::Nanosecond, NSDate(10.25))), 250000000, 1000);

  // Week-of-year numbering follows the calendar's rules: ISO weeks start on
  // Monday and 2027-01-01 (a Friday) still belongs to week 53 of 2026.
  auto iso = NSCalendar::calendarWithIdentifier(NSCalendarIdentifierISO8601, zone("UTC"));
  ASSERT_TRUE(iso);
  EXPECT_EQ(iso->firstWeekday(), 2);
  const auto c = iso->components(NSCalendarUnit::WeekOfYear | NSCalendarUnit::YearForWeekOfYear,
                                 *NSDate::dateFromISO8601String("2027-01-01T12:00:00Z"));
  EXPECT_EQ(*c.weekOfYear, 53);
  EXPECT_EQ(*c.yearForWeekOfYear, 2026);
}

TEST(NSCalendar, DateFromComponentsRollsOverAndAddsLargestFirst) {
  auto cal = gregorian("UTC");
  NSDateComponents c;
  c.year = 2026, c.month = 13, c.day = 1;
  EXPECT_EQ(*cal->dateFromComponents(c), *NSDate::dateFromISO8601String("2027-01-01T00:00:00Z"));
  c.month = 2, c.day = 30;
  EXPECT_EQ(*cal->dateFromComponents(c), *NSDate::dateFromISO8601String("2026-03-02T00:00:00Z"));

  // One month then one day from 31 January: 28 February, then 1 March.
  NSDateComponents step;
  step.month = 1, step.day = 1;
  EXPECT_EQ(*cal->dateByAddingComponents(step, at(*cal, 2026, 1, 31)), at(*cal, 2026, 3, 1));
}

TEST(NSTimeZone, NamesOffsetsAndTheProcessDefault) {
  DefaultZoneGuard guard;
  EXPECT_FALSE(NSTimeZone::timeZoneWithName("Mars/Olympus_Mons"));
  EXPECT_FALSE(NSTimeZone::timeZoneWithName(""));
  const NSTimeZone berlin = zone("Europe/Berlin");
  EXPECT_EQ(berlin.name(), "Europe/Berlin");
  const NSDate winter = *NSDate::dateFromISO8601String("2026-01-15T12:00:00Z");
  const NSDate summer = *NSDate::dateFromISO8601String("2026-07-15T12:00:00Z");
  EXPECT_EQ(berlin.secondsFromGMTForDate(winter), 3600);
  EXPECT_EQ(berlin.secondsFromGMTForDate(summer), 7200);
  EXPECT_FALSE(berlin.isDaylightSavingTimeForDate(winter));
  EXPECT_TRUE(berlin.isDaylightSavingTimeForDate(summer));
  const NSTimeZone fixed = NSTimeZone::timeZoneForSecondsFromGMT(-(9 * 3600 + 30 * 60));
  EXPECT_EQ(fixed.name(), "GMT-0930");
  EXPECT_EQ(fixed.secondsFromGMTForDate(summer), -(9 * 3600 + 30 * 60));

  // The current calendar follows the default zone, changed at run time.
  NSTimeZone::setDefaultTimeZone(zone("Pacific/Auckland"));
  EXPECT_EQ(NSCalendar::currentCalendar()->timeZone().name(), "Pacific/Auckland");
  EXPECT_EQ(wall(*NSCalendar::currentCalendar(), winter), (Wall{2026, 1, 16, 1, 0}));
  NSTimeZone::setDefaultTimeZone(std::nullopt);
  EXPECT_EQ(NSCalendar::currentCalendar()->timeZone(), NSTimeZone::systemTimeZone());
}

TEST(NSTimeZone, SystemZoneHonoursTZ) {
  const char* saved = std::getenv("TZ");
  const std::string previous = saved ? saved : "";
  setenv("TZ", "America/New_York", 1);
  NSTimeZone::resetSystemTimeZone();
  EXPECT_EQ(NSTimeZone::systemTimeZone().name(), "America/New_York");
  setenv("TZ", "Not/AZone", 1);
  NSTimeZone::resetSystemTimeZone();
  EXPECT_EQ(NSTimeZone::systemTimeZone().secondsFromGMTForDate(NSDate(0)), 0);  // unknown falls back to GMT
  if (saved) {
    setenv("TZ", previous.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  NSTimeZone::resetSystemTimeZone();
}

TEST(NSCalendar, SharedCalendarIsSafeFromManyThreads) {
  auto cal = gregorian("Europe/Berlin");
  const NSDate start = at(*cal, 2026, 1, 31, 12);
  std::vector<int> failures(4, 0);
  RunTogether(4, [&](int t) {
    for (int i = 0; i < 300; ++i) {
      const auto next = cal->dateByAddingUnit(NSCalendarUnit::Month, 1, start);
      if (!next || cal->component(NSCalendarUnit::Day, *next) != 28) ++failures[t];
      NSTimeZone::defaultTimeZone();
    }
  });
  for (int f : failures) EXPECT_EQ(f, 0);
}
