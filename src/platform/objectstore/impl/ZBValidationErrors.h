#pragma once
// The validation errors of managed objects and of a context's save, built in
// one place so that both report them alike (NSCocoaErrorDomain).

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"

class NSManagedObject;

// An error of code about key of object, with description for users and the
// object and key under NSValidationObjectErrorKey and NSValidationKeyErrorKey.
NSErrorPtr ZBValidationError(std::int64_t code, const std::shared_ptr<NSManagedObject>& object, const std::string& key,
                             const std::string& description);

// True when errors is empty. Otherwise false and *error: the one error, or
// NSValidationMultipleErrorsError listing each under NSDetailedErrorsKey
// (details of a multiple error are listed one by one, never nested).
bool ZBReportValidationErrors(const std::vector<NSErrorPtr>& errors, NSErrorPtr* error);
