#pragma once
// Errors of the predicate layer: malformed format strings, bad format
// arguments, and evaluations that cannot be carried out. None of them is worth
// retrying with the same input.

#include <cstdint>
#include <string>

#include "platform/foundation/NSError.h"

extern const std::string ZBPredicateErrorDomain;  // "com.orvane.zbpredicate"

// User-information key of ZBPredicateFormatError: the byte offset in the format
// string where parsing stopped (integer).
extern const std::string ZBPredicateErrorPositionKey;  // "ZBPredicateErrorPosition"

enum : std::int64_t {
  // The format string does not parse; the position key says where.
  ZBPredicateFormatError = 1,
  // A format specifier has no argument, or one of the wrong kind (%K needs a
  // non-empty string, %d a number).
  ZBPredicateArgumentError = 2,
  // Evaluation met a $variable that the bindings do not hold.
  ZBPredicateUnboundVariableError = 3,
  // A MATCHES pattern is not a valid regular expression (or ran too long).
  ZBPredicateInvalidRegexError = 4,
  // Evaluation compared values that cannot be compared: a string with a
  // number, a string operator on a non-string, a quantifier over a scalar.
  ZBPredicateTypeMismatchError = 5,
  // A key path named a key the evaluated object does not have.
  ZBPredicateUnknownKeyError = 6,
  // The expression names a function this layer does not provide.
  ZBPredicateUnsupportedError = 7,
};

// Builds an error of the domain; description is the whole human-readable text.
NSErrorPtr ZBPredicateMakeError(std::int64_t code, const std::string& description);
