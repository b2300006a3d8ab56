#pragma once
// ZBTarrowPinboardPostUpdateOperation: pushes the bookmarks changed or
// deleted locally to the service, one request per post (an update, or a
// delete for a post marked deleting), and for each request that succeeds
// clears the post's dirty flag or removes the post. Posts whose request failed
// keep their flags, so the next refresh pushes them again.
//
// Result: true when every post went through and the push context was saved
// into managedObjectContext (writing to the store is its owner's business);
// otherwise the batch error (ZBTarrowDataErrorDomain, code 0, "Couldn’t Update
// Some Bookmarks", with ZBTarrowDataSucceededResultsKey and
// ZBTarrowDataUnderlyingErrorsKey in post order), or the save error when only
// the save failed, or the cancellation error.
//
// - A tag with commas or whitespace is sent split, as the service splits it
//   (servicePostProperties).
// - A post dictionary without an identifier or URL fails as its own item
//   (NSValidationMissingMandatoryPropertyError), without a request.
// - A post is cleaned only while its sent fields (URL, title, notes, tags,
//   date, shared, unread) still hold what was sent: an edit made while the
//   request was in flight keeps it dirty, so it is pushed next time. A post
//   undeleted meanwhile is not removed.
// - At most 8 requests are in flight (ZBTarrowPushPlanWidth); cancelling stops
//   sending at once and cancels the requests in flight (see ZBTarrowPushPlan).
//
// Lifetime: held by std::shared_ptr (create). Runs on any queue; its work
// runs on its own. managedObjectContext must be a private-queue or main-queue
// context (it is touched only through a child's save).

#include <memory>

#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/operations/ZBConcurrentOperation.h"
#include "platform/pinboardkit/ZBPinboardClient.h"

class ZBTarrowPinboardPost;

class ZBTarrowPinboardPostUpdateOperation final : public ZBConcurrentOperation {
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  // dirtyPosts: post dictionary representations, each with at least
  // identifier, url and deleting.
  static std::shared_ptr<ZBTarrowPinboardPostUpdateOperation> create(Array dirtyPosts,
                                                                     std::shared_ptr<ZBPinboardClient> pinboardClient,
                                                                     NSManagedObjectContextPtr managedObjectContext);
  ZBTarrowPinboardPostUpdateOperation(Passkey, Array dirtyPosts, std::shared_ptr<ZBPinboardClient> pinboardClient,
                                      NSManagedObjectContextPtr managedObjectContext);

  const Array& dirtyPosts() const { return _dirtyPosts; }
  const std::shared_ptr<ZBPinboardClient>& pinboardClient() const { return _client; }
  const NSManagedObjectContextPtr& managedObjectContext() const { return _context; }
  std::string className() const override { return "ZBTarrowPinboardPostUpdateOperation"; }

  // Whether post still holds, in every field the service keeps (URL, title,
  // notes, tags, date, shared, unread), what sent held: only then may a
  // confirmation mark it clean.
  static bool postHoldsSentProperties(const ZBTarrowPinboardPost& post, const Dictionary& sent);
  // post as it is sent: a tag holding commas or whitespace goes out as the
  // tags the service would split it into (the client refuses to send it
  // whole), so such a post still reaches the service and the next refresh
  // brings the split tags back instead of failing on it for ever.
  static Dictionary servicePostProperties(const Dictionary& post);

protected:
  void setupOperations(const ZBAddWorkOperation& addWorkOperation) override;

private:
  const Array _dirtyPosts;
  const std::shared_ptr<ZBPinboardClient> _client;
  const NSManagedObjectContextPtr _context;
};
