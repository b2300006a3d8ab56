#pragma once
// The ICU side of NSTimeZone, shared with NSCalendar only.

#include <unicode/timezone.h>

#include <memory>
#include <string>

#include "platform/foundation/NSTimeZone.h"

struct NSTimeZone::Impl {
  std::string name;
  // Never mutated after construction; ICU allows concurrent const use.
  std::unique_ptr<const icu::TimeZone> zone;
};
