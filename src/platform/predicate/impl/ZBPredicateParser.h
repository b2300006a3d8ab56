#pragma once
// The format-string parser: a recursive-descent reader of the predicate
// language. Never throws; malformed input gives nullptr and an error with the
// byte position where reading stopped.

#include <string_view>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/predicate/NSExpression.h"
#include "platform/predicate/NSPredicate.h"

NSPredicatePtr ZBParsePredicateFormat(std::string_view format, const std::vector<Value>& arguments,
                                      NSErrorPtr* error);
NSExpressionPtr ZBParseExpressionFormat(std::string_view format, const std::vector<Value>& arguments,
                                        NSErrorPtr* error);
