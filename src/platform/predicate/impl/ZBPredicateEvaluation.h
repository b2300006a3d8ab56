#pragma once
// State threaded through one evaluation: the variable bindings and the first
// fault met (recorded only when the caller asked for it, so evaluation over
// many objects builds no error objects).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/NSError.h"
#include "platform/foundation/Value.h"
#include "platform/predicate/ZBPredicateError.h"

struct ZBPredicateEvaluationState {
  const Dictionary* bindings = nullptr;
  bool wantsError = false;
  NSErrorPtr error;

  // message is a callable returning the description; it runs only when the
  // fault is going to be recorded.
  template <class MessageFn>
  void fail(std::int64_t code, MessageFn&& message) {
    if (wantsError && !error) error = ZBPredicateMakeError(code, message());
  }
};

// The shared absent value that evaluation returns by reference.
const Value& ZBPredicateAbsentValue();

// CAST(value, "Type") for the types NSDate (seconds since the reference date),
// NSNumber, NSString and NSData (from hex); nullopt when it cannot convert.
std::optional<Value> ZBPredicateCast(const Value& value, std::string_view type);

// The number of arguments of a function NSExpression knows; -1 for others.
int ZBPredicateFunctionArity(std::string_view name);
