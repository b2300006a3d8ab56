#include "sync/ZBTarrowPinboardPostCreationOperation.h"

#include "model/ZBTarrowPinboardPost.h"
#include "platform/operations/NSBlockOperation.h"
#include "platform/operations/ZBPromiseOperation.h"
#include "store/NSManagedObjectContext+ZBTarrowCancellableSave.h"
#include "sync/ZBTarrowPinboardPostUpdateOperation.h"

std::shared_ptr<ZBTarrowPinboardPostCreationOperation> ZBTarrowPinboardPostCreationOperation::create(
    std::shared_ptr<ZBPinboardClient> pinboardClient, NSManagedObjectIDPtr post,
    NSManagedObjectContextPtr managedObjectContext) {
  return std::make_shared<ZBTarrowPinboardPostCreationOperation>(Passkey(), std::move(pinboardClient), std::move(post),
                                                                 std::move(managedObjectContext));
}

ZBTarrowPinboardPostCreationOperation::ZBTarrowPinboardPostCreationOperation(
    Passkey, std::shared_ptr<ZBPinboardClient> pinboardClient, NSManagedObjectIDPtr post,
    NSManagedObjectContextPtr managedObjectContext)
    : _client(std::move(pinboardClient)), _postID(std::move(post)), _context(std::move(managedObjectContext)) {}

NSManagedObjectContextPtr ZBTarrowPinboardPostCreationOperation::_scratchContext() const {
  auto context = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  context->setParentContext(_context);
  return context;
}

void ZBTarrowPinboardPostCreationOperation::setupOperations(const ZBAddWorkOperation& addWorkOperation) {
  // The operation is alive until its plan has finished, so `this` is safe in
  // the work below.
  auto read = ZBPromiseOperation::promiseOperationWithBlock([this](NSErrorPtr* error) -> Value {
    auto scratch = _scratchContext();
    auto post = std::dynamic_pointer_cast<ZBTarrowPinboardPost>(scratch->existingObjectWithID(_postID, error));
    if (!post) return Value();
    return Value(post->dictionaryRepresentation());
  });
  addWorkOperation(read);

  auto dispatch = NSBlockOperation::blockOperationWithBlock([this, read, addWorkOperation] {
    NSErrorPtr error;
    Value properties = read->completionProvider()(&error);
    if (!properties) {
      complete(Value(), error);
      return;
    }
    _createPostWithPostProperties(properties.asDictionary(), addWorkOperation);
  });
  dispatch->addDependency(read);
  addWorkOperation(dispatch);
}

void ZBTarrowPinboardPostCreationOperation::_createPostWithPostProperties(const Dictionary& properties,
                                                                          const ZBAddWorkOperation& addWorkOperation) {
  auto request = _client->createPostWithProperties(ZBTarrowPinboardPostUpdateOperation::servicePostProperties(properties));
  addWorkOperation(request);

  auto confirmation =
      ZBPromiseOperation::promiseOperationWithBlock([this, request, properties](NSErrorPtr* error) -> Value {
        if (!request->completionProvider()(error)) return Value();
        auto scratch = _scratchContext();
        auto post = std::dynamic_pointer_cast<ZBTarrowPinboardPost>(scratch->existingObjectWithID(_postID, error));
        if (!post) return Value();
        if (ZBTarrowPinboardPostUpdateOperation::postHoldsSentProperties(*post, properties)) post->setDirty(false);
        if (!ZBTarrowSaveContextUnlessCancelled(scratch, [this] { return isCancelled(); }, error)) return Value();
        bool saved = false;
        _context->performBlockAndWait([&] { saved = _context->save(error); });
        return saved ? Value(true) : Value();
      });
  confirmation->addDependency(request);
  addWorkOperation(confirmation);

  auto finishing = NSBlockOperation::blockOperationWithBlock([this, confirmation] {
    NSErrorPtr error;
    Value result = confirmation->completionProvider()(&error);
    complete(result ? Value(true) : Value(), error);
  });
  finishing->addDependency(confirmation);
  addWorkOperation(finishing);
}
