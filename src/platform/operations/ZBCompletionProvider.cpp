#include "platform/operations/ZBCompletionProvider.h"

#include "platform/foundation/ZBLocalizedString.h"
#include "platform/operations/NSOperation.h"

const std::string ZBConcurrentOperationErrorDomain = "ZBConcurrentOperationErrorDomain";

ZBCompletionProvider ZBCompletionProviderWithResult(Value result, NSErrorPtr error) {
  if (result) {
    return [result = std::move(result)](NSErrorPtr*) { return result; };
  }
  return [error = std::move(error)](NSErrorPtr* slot) {
    if (slot) *slot = error;
    return Value();
  };
}

NSErrorPtr ZBErrorFromCurrentException() {
  std::string what = "unknown exception";
  try {
    throw;
  } catch (const std::exception& exception) {
    what = exception.what();
  } catch (...) {
  }
  return NSError::create(ZBConcurrentOperationErrorDomain, ZBConcurrentOperationExceptionError,
                         Dictionary{{NSLocalizedDescriptionKey, ZBLocalizedString("The operation stopped on an internal error.")},
                                    {NSDebugDescriptionErrorKey, std::move(what)}});
}

NSErrorPtr ZBUserCancelledError() { return NSError::create(NSCocoaErrorDomain, NSUserCancelledError); }

ZBCompletionProvider ZBMissingCompletionProvider(const NSOperation& operation) {
  if (operation.isCancelled()) return ZBCompletionProviderWithResult({}, ZBUserCancelledError());
  return ZBCompletionProviderWithResult(
      {}, NSError::create(ZBConcurrentOperationErrorDomain, ZBConcurrentOperationNoResultError,
                          ZBLocalizedString("The operation finished without a result.")));
}

Value ZBOperationResult(const NSOperation& operation, NSErrorPtr* error) {
  if (auto thrown = operation.thrownError()) {
    ZBSetError(error, std::move(thrown));
    return {};
  }
  if (auto providing = dynamic_cast<const ZBCompletionProviding*>(&operation)) {
    return providing->completionProvider()(error);
  }
  if (operation.isCancelled()) {
    ZBSetError(error, ZBUserCancelledError());
    return {};
  }
  return true;
}
