#pragma once
// A predicate typed by the user (posts --where, collection add/edit): parsed
// with the predicate format grammar. A syntax error comes back with the text
// and a caret under the place where reading stopped.

#include <string>

#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/predicate/NSPredicate.h"

// The predicate; null and *error (TarrowInvalidInputError, the parser's own
// description as the failure reason) when it does not parse.
NSPredicatePtr TarrowParsePredicate(const std::string& text, NSErrorPtr* error);

// Null when every key path the predicate compares starts with a property of
// the bookmarks (or relative_date); else TarrowInvalidInputError naming the
// first that does not, since the store would quietly match nothing.
NSErrorPtr TarrowCheckPostKeys(const NSPredicate& predicate, const NSManagedObjectContextPtr& context);

// predicate with its relative dates ("relative_date >= $7__days") made
// concrete, as a collection with that predicate shows it. context: where a
// throw-away collection may be made (it is never saved).
NSPredicatePtr TarrowConcretePredicate(const NSPredicatePtr& predicate, const NSManagedObjectContextPtr& context);
