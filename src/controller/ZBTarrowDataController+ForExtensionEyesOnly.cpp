// The controller's operations for the share extension, which the application
// proper does not use.

#include "controller/ZBTarrowDataController.h"
#include "model/ZBTarrowPinboardPost.h"
#include "platform/foundation/ZBLocalizedString.h"
#include "platform/operations/NSBlockOperation.h"
#include "sync/ZBTarrowDataError.h"
#include "sync/ZBTarrowPinboardPostCreationOperation.h"

void ZBTarrowDataController::sendPostCreation(const std::shared_ptr<ZBTarrowPinboardPost>& post,
                                              CompletionHandler handler) {
  if (!isAuthenticated()) {
    if (handler)
      handler(false, ZBTarrowDataErrorWith(ZBTarrowDataNotAuthenticatedError,
                                           ZBLocalizedString("Cannot create post without being authenticated")));
    return;
  }
  // The object's identifier, not the object: the operation loads it in its
  // own context.
  auto operation = ZBTarrowPinboardPostCreationOperation::create(pinboardClient(), post->objectID(),
                                                                 pinboardStoreCoordinator()->rootManagedObjectContext());
  operationQueue()->addOperation(operation);
  std::weak_ptr<ZBTarrowDataController> weak = _self();
  auto completion = NSBlockOperation::blockOperationWithBlock([weak, operation, handler = std::move(handler)] {
    if (!weak.lock() || operation->isCancelled() || !handler) return;
    NSErrorPtr error;
    Value result = operation->completionProvider()(&error);
    handler(static_cast<bool>(result), result ? nullptr : error);
  });
  completion->addDependency(operation);
  NSOperationQueue::mainQueue()->addOperation(completion);
}
