#pragma once
// ZBTarrowPinboardPostCreationOperation: sends one bookmark of the local store
// to the service as a new post, at once rather than at the next refresh, then
// marks it clean and saves managedObjectContext.
//
// The post is read before the request and found again by its object ID after
// it, so edits made meanwhile are kept; such an edit also keeps the post dirty
// (it has not reached the service), as ZBTarrowPinboardPostUpdateOperation
// does. Result: true; or the lookup error (the post is gone: nothing is sent,
// or, when it went while the request was in flight, the service keeps it), the
// client's error (the post stays dirty and the context unsaved, so the next
// refresh pushes it) or a save error, each unchanged.
//
// Lifetime: held by std::shared_ptr (create). managedObjectContext must be a
// private-queue or main-queue context; it is saved on its own queue.

#include <memory>

#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/objectstore/NSManagedObjectID.h"
#include "platform/operations/ZBConcurrentOperation.h"
#include "platform/pinboardkit/ZBPinboardClient.h"

class ZBTarrowPinboardPostCreationOperation final : public ZBConcurrentOperation {
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  static std::shared_ptr<ZBTarrowPinboardPostCreationOperation> create(
      std::shared_ptr<ZBPinboardClient> pinboardClient, NSManagedObjectIDPtr post,
      NSManagedObjectContextPtr managedObjectContext);
  ZBTarrowPinboardPostCreationOperation(Passkey, std::shared_ptr<ZBPinboardClient> pinboardClient,
                                        NSManagedObjectIDPtr post, NSManagedObjectContextPtr managedObjectContext);

  const std::shared_ptr<ZBPinboardClient>& pinboardClient() const { return _client; }
  const NSManagedObjectIDPtr& postID() const { return _postID; }
  const NSManagedObjectContextPtr& managedObjectContext() const { return _context; }
  std::string className() const override { return "ZBTarrowPinboardPostCreationOperation"; }

protected:
  void setupOperations(const ZBAddWorkOperation& addWorkOperation) override;

private:
  // A confinement context whose parent is managedObjectContext.
  NSManagedObjectContextPtr _scratchContext() const;
  void _createPostWithPostProperties(const Dictionary& properties, const ZBAddWorkOperation& addWorkOperation);

  const std::shared_ptr<ZBPinboardClient> _client;
  const NSManagedObjectIDPtr _postID;
  const NSManagedObjectContextPtr _context;
};
