#pragma once
// The library's own errors, in ZBTarrowDataErrorDomain. Every other error
// (the store's, the client's, a cancellation) travels unchanged; only the
// batch pushes, the search and the controller make these. Texts are given
// already localised by the caller (ZBLocalizedString at the call site keeps
// them in the catalogue).

#include <cstdint>
#include <string>

#include "platform/foundation/NSError.h"
#include "store/ZBTarrowDataStoreCoordinator.h"  // ZBTarrowDataErrorDomain

// User-information keys of a batch error; each key's value is its own name.
extern const std::string ZBTarrowDataSucceededResultsKey;  // the results of the items that went through
extern const std::string ZBTarrowDataUnderlyingErrorsKey;  // the errors of those that did not

enum : std::int64_t {
  ZBTarrowDataBatchError = 0,  // some items of a batch push failed (also: no store to reset)
  ZBTarrowDataNotAuthenticatedError = -100,
  ZBTarrowDataSearchTooBroadError = -101,
  ZBTarrowDataBusyError = -200,
  ZBTarrowDataRefreshElsewhereError = -201,  // another process refreshes the same store
};

// A batch error: code 0 with description, recovery suggestion and both lists,
// each in submission order.
NSErrorPtr ZBTarrowDataBatchErrorWith(const std::string& description, const std::string& recoverySuggestion,
                                      Array succeededResults, Array underlyingErrors);

// An error of code in ZBTarrowDataErrorDomain with a description and, when not
// empty, a recovery suggestion.
NSErrorPtr ZBTarrowDataErrorWith(std::int64_t code, const std::string& description,
                                 const std::string& recoverySuggestion = {});

// An item of a batch that cannot be sent as it stands (a missing or
// wrong-typed value): NSCocoaErrorDomain NSValidationMissingMandatoryPropertyError
// with the key under NSValidationKeyErrorKey.
NSErrorPtr ZBTarrowDataInvalidItemError(const std::string& key, const std::string& description);
