#pragma once
// ZBTarrowPinboardTagUpdateOperation: pushes the tags renamed or deleted
// locally to the service, one request per tag (a rename from the previous
// title to the title, or a delete of the title), and for each request that
// succeeds clears the dirty flag of the tag the service names, or removes it.
// Failed tags stay dirty for the next refresh. The previous title is kept.
//
// - A tag without the title its request needs (the previous title for a
//   rename, the title for a delete) is skipped: no request, not a failure,
//   and it stays dirty. A title that is not text fails as its own item.
// - Result, limits and cancellation: as ZBTarrowPinboardPostUpdateOperation,
//   with "Couldn’t Update Some Tags".
//
// Lifetime and threads: as ZBTarrowPinboardPostUpdateOperation.

#include <memory>

#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/operations/ZBConcurrentOperation.h"
#include "platform/pinboardkit/ZBPinboardClient.h"

class ZBTarrowPinboardTagUpdateOperation final : public ZBConcurrentOperation {
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  // dirtyTags: tag dictionary representations (title, previousTitle, deleting).
  static std::shared_ptr<ZBTarrowPinboardTagUpdateOperation> create(Array dirtyTags,
                                                                    std::shared_ptr<ZBPinboardClient> pinboardClient,
                                                                    NSManagedObjectContextPtr managedObjectContext);
  ZBTarrowPinboardTagUpdateOperation(Passkey, Array dirtyTags, std::shared_ptr<ZBPinboardClient> pinboardClient,
                                     NSManagedObjectContextPtr managedObjectContext);

  const Array& dirtyTags() const { return _dirtyTags; }
  const std::shared_ptr<ZBPinboardClient>& pinboardClient() const { return _client; }
  const NSManagedObjectContextPtr& managedObjectContext() const { return _context; }
  std::string className() const override { return "ZBTarrowPinboardTagUpdateOperation"; }

protected:
  void setupOperations(const ZBAddWorkOperation& addWorkOperation) override;

private:
  const Array _dirtyTags;
  const std::shared_ptr<ZBPinboardClient> _client;
  const NSManagedObjectContextPtr _context;
};
