#pragma once
// Canonical text of the pieces of a predicate: constants, key path components
// and strings. Shared by the printer of expressions and predicates.

#include <string>
#include <string_view>

#include "platform/foundation/Value.h"

// A constant as it is printed: nil, 1/0 for booleans, numbers in shortest
// round-trip form, strings double-quoted, dates as CAST(…, "NSDate"),
// collections as {a, b}.
void ZBPredicateAppendConstant(std::string& out, const Value& value);
void ZBPredicateAppendQuotedString(std::string& out, std::string_view text);
void ZBPredicateAppendNumber(std::string& out, const Value& number);
// One key path component: reserved words get '#', characters that cannot
// appear in an identifier are escaped as \xHH. afterDot says that the
// component follows a '.', where a leading '$' can print as written.
void ZBPredicateAppendKeyComponent(std::string& out, std::string_view component, bool afterDot);
// A variable name after its '$': identifier characters (digits may lead),
// others escaped as \xHH.
void ZBPredicateAppendVariableName(std::string& out, std::string_view name);
// True for the words the parser reads as keywords (any letter case).
bool ZBPredicateIsReservedWord(std::string_view word);
