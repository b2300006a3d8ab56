#pragma once
// Builds the errors of ZBPinboardKitErrorDomain with their localised texts.

#include <string>

#include "platform/foundation/NSError.h"
#include "platform/pinboardkit/ZBPinboardKit.h"

// An error of the domain with the description and recovery suggestion of its
// code, ZBPinboardMethodErrorKey = method (when not empty), and the entries
// of extra on top.
NSErrorPtr ZBPinboardMakeError(std::int64_t code, const std::string& method, Dictionary extra = {});
