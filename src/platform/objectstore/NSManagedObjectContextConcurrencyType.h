#pragma once
// How a managed object context runs its work (see NSManagedObjectContext.h).

enum class NSManagedObjectContextConcurrencyType {
  NSConfinementConcurrencyType,   // on whatever thread uses it, one at a time
  NSPrivateQueueConcurrencyType,  // on its own serial queue
  NSMainQueueConcurrencyType,     // on the main run loop
};
using enum NSManagedObjectContextConcurrencyType;
