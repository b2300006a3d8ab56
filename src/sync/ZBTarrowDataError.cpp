#include "sync/ZBTarrowDataError.h"

const std::string ZBTarrowDataSucceededResultsKey = "ZBTarrowDataSucceededResultsKey";
const std::string ZBTarrowDataUnderlyingErrorsKey = "ZBTarrowDataUnderlyingErrorsKey";

NSErrorPtr ZBTarrowDataBatchErrorWith(const std::string& description, const std::string& recoverySuggestion,
                                      Array succeededResults, Array underlyingErrors) {
  return NSError::create(ZBTarrowDataErrorDomain, ZBTarrowDataBatchError,
                         Dictionary{{NSLocalizedDescriptionKey, Value(description)},
                                    {NSLocalizedRecoverySuggestionErrorKey, Value(recoverySuggestion)},
                                    {ZBTarrowDataSucceededResultsKey, Value(std::move(succeededResults))},
                                    {ZBTarrowDataUnderlyingErrorsKey, Value(std::move(underlyingErrors))}});
}

NSErrorPtr ZBTarrowDataErrorWith(std::int64_t code, const std::string& description,
                                 const std::string& recoverySuggestion) {
  return NSError::create(ZBTarrowDataErrorDomain, code, description, recoverySuggestion);
}

NSErrorPtr ZBTarrowDataInvalidItemError(const std::string& key, const std::string& description) {
  return NSError::create(NSCocoaErrorDomain, NSValidationMissingMandatoryPropertyError,
                         Dictionary{{NSLocalizedDescriptionKey, Value(description)},
                                    {NSValidationKeyErrorKey, Value(key)}});
}
