#include "platform/foundation/NSCalendar.h"

#include <unicode/calendar.h>
#include <unicode/locid.h>

#include <cmath>
#include <limits>

#include "platform/foundation/impl/ICUTimeZone.h"

struct NSCalendar::Impl {
  // Never mutated: every operation works on a clone, which keeps the
  // calendar usable from several threads at once.
  std::unique_ptr<const icu::Calendar> prototype;
};

namespace {

using CalendarPtr = std::unique_ptr<icu::Calendar>;

// ICU counts in whole-or-fractional milliseconds since 1970; NSDate carries
// finer fractions. Split them so that calendar steps never round the date.
struct SplitDate {
  UDate millis;      // whole milliseconds since 1970
  double remainder;  // the rest, in milliseconds, in [0, 1)
};

SplitDate split(NSDate date) {
  const double exact = date.timeIntervalSince1970() * 1000.0;
  const double whole = std::floor(exact);
  return {whole, exact - whole};
}

NSDate join(UDate millis, double remainder) {
  return NSDate::dateWithTimeIntervalSince1970((millis + remainder) / 1000.0);
}

bool fitsInt32(std::int64_t v) {
  return v >= std::numeric_limits<int32_t>::min() && v <= std::numeric_limits<int32_t>::max();
}

std::optional<UCalendarDateFields> fieldFor(NSCalendarUnit unit) {
  switch (unit) {
    case NSCalendarUnit::Era: return UCAL_ERA;
    case NSCalendarUnit::Year: return UCAL_YEAR;
    case NSCalendarUnit::Month: return UCAL_MONTH;
    case NSCalendarUnit::Day: return UCAL_DATE;
    case NSCalendarUnit::Hour: return UCAL_HOUR_OF_DAY;
    case NSCalendarUnit::Minute: return UCAL_MINUTE;
    case NSCalendarUnit::Second: return UCAL_SECOND;
    case NSCalendarUnit::Weekday: return UCAL_DAY_OF_WEEK;
    case NSCalendarUnit::WeekOfYear: return UCAL_WEEK_OF_YEAR;
    case NSCalendarUnit::YearForWeekOfYear: return UCAL_YEAR_WOY;
    case NSCalendarUnit::Nanosecond: return std::nullopt;
  }
  return std::nullopt;
}

std::string utf8Identifier(const char* type) {
  std::string id = type ? type : "";
  // ICU spells one identifier differently from the platform.
  if (id == "roc") return "republicOfChina";
  return id;
}

std::string icuType(std::string_view identifier) {
  if (identifier == "republicOfChina") return "roc";
  if (identifier == "islamicCivil") return "islamic-civil";
  if (identifier == "islamicUmmAlQura") return "islamic-umalqura";
  if (identifier == "islamicTabular") return "islamic-tbla";
  return std::string(identifier);
}

// requestedType: the ICU type asked for, or empty for the locale's own.
std::shared_ptr<const NSCalendar> makeCalendar(const icu::Locale& locale, const NSTimeZone& zone,
                                               const std::string& requestedType = {}) {
  UErrorCode status = U_ZERO_ERROR;
  CalendarPtr calendar(icu::Calendar::createInstance(*zone.impl().zone, locale, status));
  if (U_FAILURE(status) || !calendar) return nullptr;
  calendar->setLenient(true);
  std::string type = calendar->getType();
  if (!requestedType.empty() && type != requestedType) {
    // ICU quietly falls back to Gregorian for a type it does not know; refuse
    // instead. Older ICUs build "iso8601" as a Gregorian calendar with ISO
    // week rules and report it as such.
    if (!(requestedType == "iso8601" && type == "gregorian")) return nullptr;
    type = requestedType;
  }
  std::string identifier = utf8Identifier(type.c_str());
  auto impl = std::make_unique<NSCalendar::Impl>();
  impl->prototype = std::move(calendar);
  return std::make_shared<const NSCalendar>(std::move(identifier), zone, std::move(impl));
}

}  // namespace

NSCalendar::NSCalendar(std::string identifier, NSTimeZone zone, std::unique_ptr<const Impl> impl)
    : _identifier(std::move(identifier)), _zone(std::move(zone)), _impl(std::move(impl)) {}

NSCalendar::~NSCalendar() = default;

std::shared_ptr<const NSCalendar> NSCalendar::currentCalendar() {
  auto calendar = makeCalendar(icu::Locale::getDefault(), NSTimeZone::defaultTimeZone());
  // A locale ICU cannot make a calendar for still gets a Gregorian one.
  return calendar ? calendar : calendarWithIdentifier(NSCalendarIdentifierGregorian);
}

std::shared_ptr<const NSCalendar> NSCalendar::calendarWithIdentifier(std::string_view identifier,
                                                                     std::optional<NSTimeZone> zone) {
  const std::string type = icuType(identifier);
  if (type.empty()) return nullptr;
  icu::Locale locale = icu::Locale::getDefault();
  UErrorCode status = U_ZERO_ERROR;
  locale.setKeywordValue("calendar", type.c_str(), status);
  if (U_FAILURE(status)) return nullptr;
  return makeCalendar(locale, zone ? *zone : NSTimeZone::defaultTimeZone(), type);
}

int NSCalendar::firstWeekday() const {
  UErrorCode status = U_ZERO_ERROR;
  const UCalendarDaysOfWeek day = _impl->prototype->getFirstDayOfWeek(status);
  return U_SUCCESS(status) ? static_cast<int>(day) : 1;
}

std::optional<NSDate> NSCalendar::dateByAddingUnit(NSCalendarUnit unit, std::int64_t value, NSDate date) const {
  if (!std::isfinite(date.timeIntervalSinceReferenceDate())) return std::nullopt;
  if (unit == NSCalendarUnit::Nanosecond) return date.dateByAddingTimeInterval(static_cast<double>(value) * 1e-9);
  const auto field = fieldFor(unit);
  if (!field || !fitsInt32(value)) return std::nullopt;

  const SplitDate parts = split(date);
  CalendarPtr calendar(_impl->prototype->clone());
  UErrorCode status = U_ZERO_ERROR;
  calendar->setTime(parts.millis, status);
  calendar->add(*field, static_cast<int32_t>(value), status);
  const UDate result = calendar->getTime(status);
  if (U_FAILURE(status)) return std::nullopt;
  return join(result, parts.remainder);
}

std::optional<NSDate> NSCalendar::dateByAddingComponents(const NSDateComponents& c, NSDate date) const {
  if (!std::isfinite(date.timeIntervalSinceReferenceDate())) return std::nullopt;
  const std::pair<const std::optional<std::int64_t>*, UCalendarDateFields> steps[] = {
      {&c.era, UCAL_ERA},          {&c.year, UCAL_YEAR},        {&c.yearForWeekOfYear, UCAL_YEAR_WOY},
      {&c.month, UCAL_MONTH},      {&c.weekOfYear, UCAL_WEEK_OF_YEAR}, {&c.day, UCAL_DATE},
      {&c.weekday, UCAL_DAY_OF_WEEK}, {&c.hour, UCAL_HOUR_OF_DAY}, {&c.minute, UCAL_MINUTE},
      {&c.second, UCAL_SECOND},
  };
  const SplitDate parts = split(date);
  CalendarPtr calendar(_impl->prototype->clone());
  UErrorCode status = U_ZERO_ERROR;
  calendar->setTime(parts.millis, status);
  for (const auto& [amount, field] : steps) {
    if (!*amount) continue;
    if (!fitsInt32(**amount)) return std::nullopt;
    calendar->add(field, static_cast<int32_t>(**amount), status);
  }
  const UDate result = calendar->getTime(status);
  if (U_FAILURE(status)) return std::nullopt;
  NSDate moved = join(result, parts.remainder);
  if (c.nanosecond) moved = moved.dateByAddingTimeInterval(static_cast<double>(*c.nanosecond) * 1e-9);
  return moved;
}

NSDateComponents NSCalendar::components(NSCalendarUnitMask units, NSDate date) const {
  NSDateComponents out;
  if (!std::isfinite(date.timeIntervalSinceReferenceDate())) return out;
  const SplitDate parts = split(date);
  CalendarPtr calendar(_impl->prototype->clone());
  UErrorCode status = U_ZERO_ERROR;
  calendar->setTime(parts.millis, status);
  auto read = [&](NSCalendarUnit unit, std::optional<std::int64_t>& slot, UCalendarDateFields field, int shift = 0) {
    if (!units.contains(unit)) return;
    const int32_t v = calendar->get(field, status);
    if (U_SUCCESS(status)) slot = static_cast<std::int64_t>(v) + shift;
  };
  read(NSCalendarUnit::Era, out.era, UCAL_ERA);
  read(NSCalendarUnit::Year, out.year, UCAL_YEAR);
  read(NSCalendarUnit::Month, out.month, UCAL_MONTH, 1);
  read(NSCalendarUnit::Day, out.day, UCAL_DATE);
  read(NSCalendarUnit::Hour, out.hour, UCAL_HOUR_OF_DAY);
  read(NSCalendarUnit::Minute, out.minute, UCAL_MINUTE);
  read(NSCalendarUnit::Second, out.second, UCAL_SECOND);
  read(NSCalendarUnit::Weekday, out.weekday, UCAL_DAY_OF_WEEK);
  read(NSCalendarUnit::WeekOfYear, out.weekOfYear, UCAL_WEEK_OF_YEAR);
  read(NSCalendarUnit::YearForWeekOfYear, out.yearForWeekOfYear, UCAL_YEAR_WOY);
  if (units.contains(NSCalendarUnit::Nanosecond)) {
    const int32_t millis = calendar->get(UCAL_MILLISECOND, status);
    if (U_SUCCESS(status)) out.nanosecond = std::llround((millis + parts.remainder) * 1e6);
  }
  return out;
}

std::int64_t NSCalendar::component(NSCalendarUnit unit, NSDate date) const {
  const NSDateComponents c = components(unit, date);
  const std::optional<std::int64_t>* slots[] = {&c.era,    &c.year,    &c.month,      &c.day,
                                                &c.hour,   &c.minute,  &c.second,     &c.nanosecond,
                                                &c.weekday, &c.weekOfYear, &c.yearForWeekOfYear};
  for (const auto* slot : slots) {
    if (*slot) return **slot;
  }
  return 0;
}

std::optional<NSDate> NSCalendar::dateFromComponents(const NSDateComponents& c) const {
  CalendarPtr calendar(_impl->prototype->clone());
  calendar->clear();
  const std::pair<const std::optional<std::int64_t>*, UCalendarDateFields> fields[] = {
      {&c.era, UCAL_ERA},       {&c.year, UCAL_YEAR},       {&c.yearForWeekOfYear, UCAL_YEAR_WOY},
      {&c.month, UCAL_MONTH},   {&c.weekOfYear, UCAL_WEEK_OF_YEAR}, {&c.weekday, UCAL_DAY_OF_WEEK},
      {&c.day, UCAL_DATE},      {&c.hour, UCAL_HOUR_OF_DAY}, {&c.minute, UCAL_MINUTE},
      {&c.second, UCAL_SECOND},
  };
  for (const auto& [value, field] : fields) {
    if (!*value) continue;
    const std::int64_t v = field == UCAL_MONTH ? **value - 1 : **value;
    if (!fitsInt32(v)) return std::nullopt;
    calendar->set(field, static_cast<int32_t>(v));
  }
  UErrorCode status = U_ZERO_ERROR;
  const UDate millis = calendar->getTime(status);
  if (U_FAILURE(status)) return std::nullopt;
  NSDate date = join(millis, 0);
  if (c.nanosecond) date = date.dateByAddingTimeInterval(static_cast<double>(*c.nanosecond) * 1e-9);
  return date;
}

NSDate NSCalendar::startOfDayForDate(NSDate date) const {
  if (!std::isfinite(date.timeIntervalSinceReferenceDate())) return date;
  CalendarPtr calendar(_impl->prototype->clone());
  UErrorCode status = U_ZERO_ERROR;
  calendar->setTime(split(date).millis, status);
  calendar->set(UCAL_HOUR_OF_DAY, 0);
  calendar->set(UCAL_MINUTE, 0);
  calendar->set(UCAL_SECOND, 0);
  calendar->set(UCAL_MILLISECOND, 0);
  // Where midnight is skipped by a daylight-saving change, ICU moves forward
  // to the first wall time that exists, which is the day's first moment.
  const UDate millis = calendar->getTime(status);
  return U_SUCCESS(status) ? join(millis, 0) : date;
}

bool NSCalendar::isDate(NSDate a, NSDate b, NSCalendarUnit granularity) const {
  NSCalendarUnitMask units;
  switch (granularity) {
    case NSCalendarUnit::Nanosecond: units = units | NSCalendarUnit::Nanosecond; [[fallthrough]];
    case NSCalendarUnit::Second: units = units | NSCalendarUnit::Second; [[fallthrough]];
    case NSCalendarUnit::Minute: units = units | NSCalendarUnit::Minute; [[fallthrough]];
    case NSCalendarUnit::Hour: units = units | NSCalendarUnit::Hour; [[fallthrough]];
    case NSCalendarUnit::Day:
    case NSCalendarUnit::Weekday: units = units | NSCalendarUnit::Day; [[fallthrough]];
    case NSCalendarUnit::Month: units = units | NSCalendarUnit::Month; [[fallthrough]];
    case NSCalendarUnit::Year: units = units | NSCalendarUnit::Year; [[fallthrough]];
    case NSCalendarUnit::Era: units = units | NSCalendarUnit::Era; break;
    case NSCalendarUnit::WeekOfYear:
    case NSCalendarUnit::YearForWeekOfYear:
      units = NSCalendarUnit::Era | NSCalendarUnit::YearForWeekOfYear;
      if (granularity == NSCalendarUnit::WeekOfYear) units = units | NSCalendarUnit::WeekOfYear;
      break;
  }
  return components(units, a) == components(units, b);
}
