#pragma once
// NSTimeZone: a geopolitical time zone (an IANA identifier such as
// "Europe/Berlin") or a fixed offset from GMT, backed by ICU's zone data.
// A plain value, immutable; thread-safe to copy and use from any thread.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/NSDate.h"

class NSTimeZone {
public:
  // nullopt for a name ICU does not know.
  static std::optional<NSTimeZone> timeZoneWithName(std::string_view name);
  // A zone with a fixed offset and no daylight-saving time.
  static NSTimeZone timeZoneForSecondsFromGMT(int seconds);
  static NSTimeZone GMT();

  // The zone the machine is set to: TZ from the environment, else the
  // system's configuration; GMT if neither names a known zone. Read once and
  // kept until resetSystemTimeZone().
  static NSTimeZone systemTimeZone();
  static void resetSystemTimeZone();

  // The zone calendars use by default: the zone set with setDefaultTimeZone,
  // else the system zone. Thread-safe.
  static NSTimeZone defaultTimeZone();
  // nullopt makes the default follow the system zone again.
  static void setDefaultTimeZone(std::optional<NSTimeZone> zone);

  // The identifier ("Europe/Berlin", "GMT", "GMT+0130").
  const std::string& name() const;
  int secondsFromGMTForDate(NSDate date) const;
  bool isDaylightSavingTimeForDate(NSDate date) const;

  bool operator==(const NSTimeZone& other) const { return name() == other.name(); }

  // The ICU zone behind this one, for the calendar. Opaque to everyone else.
  struct Impl;
  const Impl& impl() const { return *_impl; }

private:
  explicit NSTimeZone(std::shared_ptr<const Impl> impl) : _impl(std::move(impl)) {}
  std::shared_ptr<const Impl> _impl;
};
