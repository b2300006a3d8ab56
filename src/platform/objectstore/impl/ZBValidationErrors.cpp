#include "platform/objectstore/impl/ZBValidationErrors.h"

#include "platform/objectstore/NSManagedObject.h"

NSErrorPtr ZBValidationError(std::int64_t code, const std::shared_ptr<NSManagedObject>& object, const std::string& key,
                             const std::string& description) {
  return NSError::create(NSCocoaErrorDomain, code,
                         Dictionary{{NSLocalizedDescriptionKey, Value(description)},
                                    {NSValidationObjectErrorKey, Value(object)},
                                    {NSValidationKeyErrorKey, Value(key)}});
}

bool ZBReportValidationErrors(const std::vector<NSErrorPtr>& errors, NSErrorPtr* error) {
  Array detailed;
  for (const auto& each : errors) {
    if (each->code() != NSValidationMultipleErrorsError) {
      detailed.push_back(Value(std::const_pointer_cast<NSError>(each)));
      continue;
    }
    for (const auto& detail : each->userInfo()[NSDetailedErrorsKey].collectionElements()) detailed.push_back(detail);
  }
  if (detailed.empty()) return true;
  if (detailed.size() == 1) return ZBSetError(error, detailed.front().as<NSError>());
  return ZBSetError(
      error, NSError::create(NSCocoaErrorDomain, NSValidationMultipleErrorsError,
                             Dictionary{{NSLocalizedDescriptionKey, Value("Multiple validation errors occurred.")},
                                        {NSDetailedErrorsKey, Value(std::move(detailed))}}));
}
