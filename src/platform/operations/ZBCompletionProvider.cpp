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

NSErrorPtr ZBUserCancelledError() { return NSError::create(NSCocoaErrorDomain, NSUserCancelledError); }

ZBCompletionProvider ZBMissingCompletionProvider(const NSOperation& operation) {
  if (operation.isCancelled()) return ZBCompletionProviderWithResult({}, ZBUserCancelledError());
  return ZBCompletionProviderWithResult(
      {}, NSError::create(ZBConcurrentOperationErrorDomain, ZBConcurrentOperationNoResultError,
                          ZBLocalizedString("The operation finished without a result.")));
}

Value ZBOperationResult(const NSOperation& operation, NSErrorPtr* error) {
  if (auto providing = dynamic_cast<const ZBCompletionProviding*>(&operation)) {
    return providing->completionProvider()(error);
  }
  if (operation.isCancelled()) {
    ZBSetError(error, ZBUserCancelledError());
    return {};
  }
  return true;
}
