#pragma once
// Saving a job's child context into its parent (the root context) only while
// the job still stands. The check and the save are one step on the parent's
// queue, so whoever resets the parent on that queue after cancelling the job
// (logout) is sure that nothing of the job arrives afterwards.

#include <functional>

#include "platform/foundation/NSError.h"
#include "platform/objectstore/NSManagedObjectContext.h"

// Saves context (a child context of any concurrency type) into its parent,
// unless cancelled() holds on the parent's queue: then nothing is saved and
// *error is NSUserCancelledError. Any thread.
[[nodiscard]] bool ZBTarrowSaveContextUnlessCancelled(const NSManagedObjectContextPtr& context,
                                                      const std::function<bool()>& cancelled,
                                                      NSErrorPtr* error = nullptr);
