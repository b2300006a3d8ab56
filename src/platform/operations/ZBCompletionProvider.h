#pragma once
// How every job of the system publishes its one result.
//
// A completion provider returns the result, or an absent Value for failure; on
// failure it stores its error into *error when a slot is given, and on
// success leaves the slot untouched. Reading one never blocks and may be done
// any number of times, from any thread.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/foundation/NSError.h"
#include "platform/foundation/Value.h"

class NSOperation;

using ZBCompletionProvider = std::function<Value(NSErrorPtr* error)>;

// Implemented by every operation that publishes a result (ZBConcurrentOperation,
// ZBPromiseOperation and the service client's operations).
class ZBCompletionProviding {
public:
  virtual ~ZBCompletionProviding() = default;
  // Never empty. Before the operation has set one, it reports the errors
  // described at ZBConcurrentOperationErrorDomain.
  virtual ZBCompletionProvider completionProvider() const = 0;
};

// The standard completion: a provider returning result when it is present,
// otherwise one that stores error (which may be null) and returns absent.
ZBCompletionProvider ZBCompletionProviderWithResult(Value result, NSErrorPtr error);

// NSCocoaErrorDomain, NSUserCancelledError (3072), no user information: what
// a job reports when it finds itself cancelled at the start of a phase.
NSErrorPtr ZBUserCancelledError();

// Errors of the operation machinery itself, which the system never expects to
// see: an operation that finished without publishing a result. An operation
// that has not set a provider (it has not finished, or a subclass forgot to on
// some path) yields absent and, when it was cancelled, ZBUserCancelledError(),
// otherwise ZBConcurrentOperationNoResultError.
extern const std::string ZBConcurrentOperationErrorDomain;
enum : std::int64_t {
  // No completion provider was set. An internal inconsistency, not worth a
  // retry: the operation's code misses a path.
  ZBConcurrentOperationNoResultError = 1,
  // An exception escaped the operation's work (a fault in the code or an
  // input it did not expect); NSDebugDescriptionErrorKey holds its text.
  // Retrying the same input fails the same way.
  ZBConcurrentOperationExceptionError = 2,
};
// The error for the exception being handled; call only inside a catch block.
NSErrorPtr ZBErrorFromCurrentException();
// The provider an operation reports before it set its own.
ZBCompletionProvider ZBMissingCompletionProvider(const NSOperation& operation);

// Reads the result of any finished operation: through its completion provider
// when it has one; a plain operation yields true, or the cancellation error
// when it was cancelled.
Value ZBOperationResult(const NSOperation& operation, NSErrorPtr* error = nullptr);
