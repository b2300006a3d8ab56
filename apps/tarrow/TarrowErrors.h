#pragma once
// Failures of the command line itself, in the same shape as the library's
// (an NSError with a localised description and recovery suggestion), and how
// every failure reaches the user.

#include <cstdint>
#include <ostream>
#include <string>

#include "platform/foundation/NSError.h"

extern const std::string TarrowErrorDomain;  // "com.orvane.tarrow"

enum : std::int64_t {
  // What the user typed cannot be used (a predicate, a duration, an empty
  // title). Retrying needs other input.
  TarrowInvalidInputError = 1,
  // The post, collection, saved search or tag named does not exist.
  TarrowNotFoundError = 2,
  // A file could not be read or written (the underlying error says why).
  TarrowFileError = 3,
  // The user interrupted the job; it was cancelled and nothing was half-saved.
  TarrowInterruptedError = 4,
};

// An error of TarrowErrorDomain; an empty suggestion is left out.
NSErrorPtr TarrowMakeError(std::int64_t code, const std::string& description, const std::string& suggestion = {});

// "tarrow: <description>", then the failure reason, the recovery suggestion
// and the descriptions of the per-item errors of a batch, one per line.
void TarrowPrintError(std::ostream& err, const NSError& error);
