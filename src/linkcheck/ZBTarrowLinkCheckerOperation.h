#pragma once
// ZBTarrowLinkCheckerOperation: checks every bookmark's address and records
// the verdict in each post's `dead`, both ways (a dead post that now answers
// is cleared), then saves the context it was given.
//
// Plan: collect the "url" of every post (store order, duplicates kept, posts
// waiting for deletion too) → one ZBWebLinkCheckOperation with all addresses
// that parse → write the verdicts in a child context (each address updates
// the first post the store returns for exactly that string; a post whose
// `dead` already matches is not touched) → save the child, then the context
// on its own queue → finish. Result: true, or the first error met, unchanged
// (the collect fetch's, the link check's, a save's); nothing is written after
// a failure, so an offline run (ZBWebKitNetworkUnreachableError) leaves every
// `dead` as it was.
//
// Settings: the link check reads the user defaults given at creation (the
// standard ones when none), under the keys of platform/webkit/ZBWebKit.h:
// connection limits, time-outs, the pause before re-checking failures and
// resolve overrides. Tests point it at a local server by setting those keys
// (ZBWebLinkCheckResolveOverridesDefaultKey maps any host name to it).
//
// Lifetime: held by std::shared_ptr (create). Threads: the initialiser and
// accessors from any thread; the plan runs on work threads; the context is
// touched only through child contexts and on its own queue (performBlockAndWait
// when saving), so it may be a private-queue or main-queue context.
// status() and checkedCount() may be read and observed from any thread.

#include <memory>
#include <string>

#include "platform/foundation/NSUserDefaults.h"
#include "platform/foundation/ZBMutex.h"
#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/operations/ZBConcurrentOperation.h"

class ZBWebLinkCheckOperation;

// "status"
extern const std::string ZBTarrowLinkCheckerOperationStatusKey;
// "checkedCount"
extern const std::string ZBTarrowLinkCheckerOperationCheckedCountKey;

class ZBTarrowLinkCheckerOperation final : public ZBConcurrentOperation {
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  static std::shared_ptr<ZBTarrowLinkCheckerOperation> create(NSManagedObjectContextPtr managedObjectContext,
                                                              std::shared_ptr<NSUserDefaults> userDefaults = nullptr);
  ZBTarrowLinkCheckerOperation(Passkey, NSManagedObjectContextPtr managedObjectContext,
                               std::shared_ptr<NSUserDefaults> userDefaults);

  const NSManagedObjectContextPtr& managedObjectContext() const { return _context; }
  // Always "Looking for dead links…", localised.
  std::string status() const;
  // Addresses checked so far and in all (0 until the check has started);
  // observable as "checkedCount", which changes on the check's work thread.
  std::size_t checkedCount() const;
  std::size_t totalCount() const;

  // "status", "checkedCount", "totalCount", plus the base's keys.
  Value valueForKey(const std::string& key) const override;
  std::string className() const override { return "ZBTarrowLinkCheckerOperation"; }

protected:
  void setupOperations(const ZBAddWorkOperation& addWorkOperation) override;

private:
  void _processPostURLs(const Array& postURLs, const ZBAddWorkOperation& addWorkOperation);
  NSManagedObjectContextPtr _scratchContext() const;

  const NSManagedObjectContextPtr _context;
  const std::shared_ptr<NSUserDefaults> _defaults;
  mutable ZBMutex _mutex;
  std::shared_ptr<ZBWebLinkCheckOperation> _check ZB_GUARDED_BY(_mutex);
  NSKeyValueObservation _checkObservation ZB_GUARDED_BY(_mutex);
};
