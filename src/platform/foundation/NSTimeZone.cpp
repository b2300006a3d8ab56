#include "platform/foundation/NSTimeZone.h"

#include <unicode/simpletz.h>
#include <unicode/unistr.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "platform/foundation/impl/ICUTimeZone.h"

namespace {

std::shared_ptr<const NSTimeZone::Impl> makeImpl(icu::TimeZone* adopted) {
  auto impl = std::make_shared<NSTimeZone::Impl>();
  icu::UnicodeString id;
  adopted->getID(id);
  id.toUTF8String(impl->name);
  impl->zone.reset(adopted);
  return impl;
}

struct Defaults {
  std::mutex lock;
  std::shared_ptr<const NSTimeZone::Impl> system;
  std::shared_ptr<const NSTimeZone::Impl> chosen;
};

Defaults& defaults() {
  static Defaults* d = new Defaults;  // never destroyed: zones may be asked for during exit
  return *d;
}

std::shared_ptr<const NSTimeZone::Impl> detectSystemZone() {
  // detectHostTimeZone reads TZ anew on each call, unlike ICU's own default.
  std::unique_ptr<icu::TimeZone> host(icu::TimeZone::detectHostTimeZone());
  if (!host || *host == icu::TimeZone::getUnknown()) host.reset(icu::TimeZone::getGMT()->clone());
  return makeImpl(host.release());
}

}  // namespace

std::optional<NSTimeZone> NSTimeZone::timeZoneWithName(std::string_view name) {
  if (name.empty()) return std::nullopt;
  std::unique_ptr<icu::TimeZone> zone(
      icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(icu::StringPiece(name.data(), static_cast<int32_t>(name.size())))));
  if (!zone || *zone == icu::TimeZone::getUnknown()) return std::nullopt;
  return NSTimeZone(makeImpl(zone.release()));
}

NSTimeZone NSTimeZone::timeZoneForSecondsFromGMT(int seconds) {
  // Offsets beyond ±18 h exist nowhere; clamp rather than build nonsense.
  if (seconds > 18 * 3600) seconds = 18 * 3600;
  if (seconds < -18 * 3600) seconds = -18 * 3600;
  if (seconds == 0) return GMT();
  const int magnitude = std::abs(seconds);
  char id[16];
  std::snprintf(id, sizeof id, "GMT%c%02d%02d", seconds < 0 ? '-' : '+', magnitude / 3600, magnitude / 60 % 60);
  return NSTimeZone(makeImpl(new icu::SimpleTimeZone(seconds * 1000, icu::UnicodeString(id, -1, US_INV))));
}

NSTimeZone NSTimeZone::GMT() {
  static const auto gmt = makeImpl(icu::TimeZone::getGMT()->clone());
  return NSTimeZone(gmt);
}

NSTimeZone NSTimeZone::systemTimeZone() {
  std::lock_guard guard(defaults().lock);
  if (!defaults().system) defaults().system = detectSystemZone();
  return NSTimeZone(defaults().system);
}

void NSTimeZone::resetSystemTimeZone() {
  std::lock_guard guard(defaults().lock);
  defaults().system.reset();
}

NSTimeZone NSTimeZone::defaultTimeZone() {
  {
    std::lock_guard guard(defaults().lock);
    if (defaults().chosen) return NSTimeZone(defaults().chosen);
  }
  return systemTimeZone();
}

void NSTimeZone::setDefaultTimeZone(std::optional<NSTimeZone> zone) {
  std::lock_guard guard(defaults().lock);
  defaults().chosen = zone ? zone->_impl : nullptr;
}

const std::string& NSTimeZone::name() const { return _impl->name; }

int NSTimeZone::secondsFromGMTForDate(NSDate date) const {
  int32_t raw = 0, dst = 0;
  UErrorCode status = U_ZERO_ERROR;
  _impl->zone->getOffset(date.timeIntervalSince1970() * 1000.0, false, raw, dst, status);
  return U_SUCCESS(status) ? (raw + dst) / 1000 : 0;
}

bool NSTimeZone::isDaylightSavingTimeForDate(NSDate date) const {
  int32_t raw = 0, dst = 0;
  UErrorCode status = U_ZERO_ERROR;
  _impl->zone->getOffset(date.timeIntervalSince1970() * 1000.0, false, raw, dst, status);
  return U_SUCCESS(status) && dst != 0;
}
