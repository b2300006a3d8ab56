#pragma once
// ZBTarrowPinboardSearchOperation: one feed search on the service, finishing
// with the client's result unchanged (an array of post dictionaries). Nothing
// is written to the store.
//
// searchParameters (the keys of a saved search, ZBTarrowSearch…Key): "method"
// names a feed and then decides alone ("authenticated" asks for the signed-in
// user's view of it); otherwise "username" and/or "tags" (tags separated by
// single spaces, repeats collapsing, an empty piece kept as an empty tag) ask
// for a user's or everyone's bookmarks with all those tags. Results count:
// ZBPinboardClientFeedDefaultResultsCount.
//
// Result: the feed; the client's error; ZBTarrowDataErrorDomain -101 ("Couldn’t
// Search Pinboard", "The search is too broad. Please try again.") without any
// request when there is neither method, user nor tags, or when the client
// declines to build the request; or, for a parameter of the wrong type,
// NSValidationMissingMandatoryPropertyError naming its key, without any
// request.
//
// Lifetime: held by std::shared_ptr (create). managedObjectContext is kept
// but not used.

#include <memory>

#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/operations/ZBConcurrentOperation.h"
#include "platform/pinboardkit/ZBPinboardClient.h"

class ZBTarrowPinboardSearchOperation final : public ZBConcurrentOperation {
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  static std::shared_ptr<ZBTarrowPinboardSearchOperation> create(Dictionary searchParameters,
                                                                 std::shared_ptr<ZBPinboardClient> pinboardClient,
                                                                 NSManagedObjectContextPtr managedObjectContext);
  ZBTarrowPinboardSearchOperation(Passkey, Dictionary searchParameters,
                                  std::shared_ptr<ZBPinboardClient> pinboardClient,
                                  NSManagedObjectContextPtr managedObjectContext);

  const Dictionary& searchParameters() const { return _parameters; }
  const std::shared_ptr<ZBPinboardClient>& pinboardClient() const { return _client; }
  const NSManagedObjectContextPtr& managedObjectContext() const { return _context; }
  std::string className() const override { return "ZBTarrowPinboardSearchOperation"; }

protected:
  void setupOperations(const ZBAddWorkOperation& addWorkOperation) override;

private:
  const Dictionary _parameters;
  const std::shared_ptr<ZBPinboardClient> _client;
  const NSManagedObjectContextPtr _context;
};
