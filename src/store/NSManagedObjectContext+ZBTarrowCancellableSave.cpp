#include "store/NSManagedObjectContext+ZBTarrowCancellableSave.h"

#include "platform/operations/ZBCompletionProvider.h"

bool ZBTarrowSaveContextUnlessCancelled(const NSManagedObjectContextPtr& context,
                                        const std::function<bool()>& cancelled, NSErrorPtr* error) {
  auto parent = context->parentContext();
  bool saved = false;
  auto save = [&] {
    if (cancelled()) {
      ZBSetError(error, ZBUserCancelledError());
      return;
    }
    // The parent's queue is ours now; the child's save re-enters it.
    context->performBlockAndWait([&] { saved = context->save(error); });
  };
  if (parent) {
    parent->performBlockAndWait(save);
  } else {
    save();
  }
  return saved;
}
