#include "platform/predicate/ZBPredicateError.h"

const std::string ZBPredicateErrorDomain = "com.orvane.zbpredicate";
const std::string ZBPredicateErrorPositionKey = "ZBPredicateErrorPosition";

NSErrorPtr ZBPredicateMakeError(std::int64_t code, const std::string& description) {
  return NSError::create(ZBPredicateErrorDomain, code, description);
}
