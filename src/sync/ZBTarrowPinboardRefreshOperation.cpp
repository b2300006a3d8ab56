#include "sync/ZBTarrowPinboardRefreshOperation.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "model/ZBTarrowManagedObjectExporting.h"
#include "model/ZBTarrowPinboardPost.h"
#include "model/ZBTarrowPinboardTag.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/foundation/ZBLocalizedString.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/objectstore/NSPersistentStore.h"
#include "platform/objectstore/NSPersistentStoreCoordinator.h"
#include "platform/operations/NSBlockOperation.h"
#include "platform/predicate/NSPredicate.h"
#include "store/NSManagedObjectContext+ZBTarrowCancellableSave.h"
#include "sync/ZBTarrowDataError.h"
#include "sync/ZBTarrowPinboardPostUpdateOperation.h"
#include "sync/ZBTarrowPinboardTagUpdateOperation.h"

const std::string ZBTarrowPinboardRefreshOperationLastUpdateTimestampDefaultKey = "pinboardLastUpdateTimestamp";
const std::string ZBTarrowPinboardRefreshOperationStatusKey = "status";

namespace {

// Every feed request of a refresh asks for this many bookmarks.
constexpr std::uint64_t kFeedResultsCount = 1000;

// The dictionaries of every object of entity that is dirty or deleting.
Value dirtyObjectDictionaries(const NSManagedObjectContextPtr& context, const std::string& entity, NSErrorPtr* error) {
  auto request = NSFetchRequest::fetchRequestWithEntityName(entity);
  request->setPredicate(NSPredicate::predicateWithFormat(
      "%K == YES || %K == YES", {Value(ZBTarrowPinboardObjectDirtyKey), Value(ZBTarrowPinboardObjectDeletingKey)}));
  auto objects = context->executeFetchRequest(*request, error);
  if (!objects) return Value();
  Array dictionaries;
  dictionaries.reserve(objects->size());
  for (const Value& object : *objects) {
    if (auto exporting = object.as<ZBTarrowManagedObjectExporting>())
      dictionaries.push_back(Value(exporting->dictionaryRepresentation()));
  }
  return Value(std::move(dictionaries));
}

}  // namespace

std::shared_ptr<ZBTarrowPinboardRefreshOperation> ZBTarrowPinboardRefreshOperation::create(
    std::shared_ptr<ZBPinboardClient> pinboardClient, NSManagedObjectContextPtr managedObjectContext) {
  return std::make_shared<ZBTarrowPinboardRefreshOperation>(Passkey(), std::move(pinboardClient),
                                                            std::move(managedObjectContext));
}

ZBTarrowPinboardRefreshOperation::ZBTarrowPinboardRefreshOperation(Passkey,
                                                                   std::shared_ptr<ZBPinboardClient> pinboardClient,
                                                                   NSManagedObjectContextPtr managedObjectContext)
    : _client(std::move(pinboardClient)), _context(std::move(managedObjectContext)) {}

std::string ZBTarrowPinboardRefreshOperation::status() const {
  ZBMutexLock lock(_statusMutex);
  return _status;
}

void ZBTarrowPinboardRefreshOperation::_setStatus(std::string status) { _showStatus(std::move(status), nullptr, 0); }

void ZBTarrowPinboardRefreshOperation::_showStatus(std::string phaseStatus, const NSOperation* waiting,
                                                   std::int64_t seconds) {
  // Waits of a few seconds are the service's usual spacing: not worth a word.
  constexpr std::int64_t kWorthTelling = 5;
  std::string shown;
  {
    ZBMutexLock lock(_statusMutex);
    if (!phaseStatus.empty()) _phaseStatus = std::move(phaseStatus);
    if (waiting) {
      if (seconds > 0)
        _waits[waiting] = seconds;
      else
        _waits.erase(waiting);
    }
    std::int64_t longest = 0;
    for (const auto& [operation, left] : _waits) longest = std::max(longest, left);
    shown = _phaseStatus;
    if (longest >= kWorthTelling) {
      char left[32];
      std::snprintf(left, sizeof left, "%lld:%02lld", static_cast<long long>(longest / 60),
                    static_cast<long long>(longest % 60));
      shown = ZBLocalizedString("Waiting for Pinboard’s rate limit… %@");
      shown.replace(shown.find("%@"), 2, left);
    }
    if (shown == _status) return;
  }
  willChangeValueForKey(ZBTarrowPinboardRefreshOperationStatusKey);
  {
    ZBMutexLock lock(_statusMutex);
    _status = std::move(shown);
  }
  didChangeValueForKey(ZBTarrowPinboardRefreshOperationStatusKey);
}

Value ZBTarrowPinboardRefreshOperation::valueForKey(const std::string& key) const {
  if (key == ZBTarrowPinboardRefreshOperationStatusKey) return Value(status());
  return ZBConcurrentOperation::valueForKey(key);
}

std::string ZBTarrowPinboardRefreshOperation::feedSourceFromSource(std::int64_t source) {
  static const char* const names[] = {"twitter",  "twitter_favs", "instapaper", "pocket",
                                      "iphone",   "delicious",    "readability"};
  return source >= 1 && source <= 7 ? names[source - 1] : "";
}

NSManagedObjectContextPtr ZBTarrowPinboardRefreshOperation::_childContext() const {
  auto child = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  child->setParentContext(_context);
  return child;
}

bool ZBTarrowPinboardRefreshOperation::_saveChildAndContext(const NSManagedObjectContextPtr& child,
                                                            NSErrorPtr* error) {
  return ZBTarrowSaveContextUnlessCancelled(child, [this] { return isCancelled(); }, error) && _saveContext(error);
}

bool ZBTarrowPinboardRefreshOperation::_saveContext(NSErrorPtr* error) {
  bool saved = false;
  _context->performBlockAndWait([&] { saved = _context->save(error); });
  return saved;
}

// The operation stays alive until its plan has finished, so the work below
// may use `this`.
void ZBTarrowPinboardRefreshOperation::setupOperations(const ZBAddWorkOperation& addWorkOperation) {
  // What talks to the service stops with us: a cancellation abandons the
  // requests waiting for their turn or under way, and the pushes, which then
  // send nothing more. (Merges still running save nothing either: see
  // ZBTarrowSaveContextUnlessCancelled.)
  _cancelForwarding = addObserver("isCancelled", NSKeyValueObservingOptions::None,
                                  [this](const std::string&, NSObject&, const NSKeyValueChange&) {
                                    if (!isCancelled()) return;
                                    std::vector<std::shared_ptr<NSOperation>> outgoing;
                                    {
                                      ZBMutexLock lock(_outgoingMutex);
                                      outgoing = _outgoing;
                                    }
                                    for (const auto& operation : outgoing) operation->cancel();
                                  });
  ZBAddWorkOperation tracking = [this, addWorkOperation](const std::shared_ptr<NSOperation>& operation) {
    auto* request = dynamic_cast<ZBPinboardRequestOperation*>(operation.get());
    if (request || dynamic_cast<ZBConcurrentOperation*>(operation.get())) {
      NSKeyValueObservation waits;
      if (request)
        waits = operation->addObserver(ZBPinboardRequestOperationSecondsUntilTurnKey, NSKeyValueObservingOptions::None,
                                       [this, request](const std::string&, NSObject&, const NSKeyValueChange&) {
                                         _showStatus({}, request, request->secondsUntilTurn());
                                       });
      {
        ZBMutexLock lock(_outgoingMutex);
        _outgoing.push_back(operation);
        if (request) _waitObservations.push_back(std::move(waits));
      }
      if (isCancelled()) operation->cancel();  // cancelled before it was tracked
    }
    addWorkOperation(operation);
  };
  // Released as soon as we are finished, not when the last reference goes.
  _lockRelease = addObserver("isFinished", NSKeyValueObservingOptions::None,
                             [this](const std::string&, NSObject&, const NSKeyValueChange&) {
                               if (isFinished()) _refreshLock.reset();
                             });
  auto lock = ZBPromiseOperation::promiseOperationWithBlock(
      [this](NSErrorPtr* error) { return _takeRefreshLock(error) ? Value(true) : Value(); });
  tracking(lock);
  addContinuation(tracking, {lock}, [this, tracking](const Array&) { _processStaleLocalData(tracking); });
}

bool ZBTarrowPinboardRefreshOperation::_takeRefreshLock(NSErrorPtr* error) {
  std::filesystem::path store;
  for (auto context = _context; context && store.empty(); context = context->parentContext()) {
    if (auto coordinator = context->persistentStoreCoordinator()) {
      auto stores = coordinator->persistentStores();
      if (!stores.empty()) store = stores.front()->URL().path();
    }
  }
  if (store.empty()) return true;  // nothing on disk to share
  bool told = false;
  for (;;) {
    std::string holder;
    _refreshLock = ZBTarrowRefreshLock::tryTake(store, &holder);
    if (_refreshLock) return true;
    if (!waitsForOtherRefresh()) {
      if (holder.empty()) holder = ZBLocalizedString("another process");
      std::string suggestion = ZBLocalizedString("%@ is refreshing these bookmarks now. Wait for it to finish, or try again later.");
      suggestion.replace(suggestion.find("%@"), 2, holder);
      if (error)
        *error = ZBTarrowDataErrorWith(ZBTarrowDataRefreshElsewhereError,
                                       ZBLocalizedString("Another refresh of these bookmarks is running."), suggestion);
      return false;
    }
    if (!told) {
      _setStatus(ZBLocalizedString("Waiting for another refresh to finish…"));
      told = true;
    }
    // The other refresh takes seconds to minutes; a look every tenth of a
    // second costs nothing and keeps a cancel prompt.
    for (int i = 0; i < 10; ++i) {
      if (isCancelled()) {
        if (error) *error = ZBUserCancelledError();
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
}

void ZBTarrowPinboardRefreshOperation::_processStaleLocalData(const ZBAddWorkOperation& addWorkOperation) {
  _setStatus(ZBLocalizedString("Retrieving local changes…"));
  auto posts = ZBPromiseOperation::promiseOperationWithBlock(
      [this](NSErrorPtr* error) { return dirtyObjectDictionaries(_childContext(), ZBTarrowPinboardPostEntityName, error); });
  auto tags = ZBPromiseOperation::promiseOperationWithBlock(
      [this](NSErrorPtr* error) { return dirtyObjectDictionaries(_childContext(), ZBTarrowPinboardTagEntityName, error); });
  addWorkOperation(posts);
  addWorkOperation(tags);
  addContinuation(addWorkOperation, {posts, tags}, [this, addWorkOperation](const Array& results) {
    _processDirtyLocalPosts(results[0].asArray(), results[1].asArray(), addWorkOperation);
  });
}

void ZBTarrowPinboardRefreshOperation::_processDirtyLocalPosts(Array dirtyPosts, Array dirtyTags,
                                                               const ZBAddWorkOperation& addWorkOperation) {
  if (!beginPhase()) return;
  _setStatus(ZBLocalizedString("Sending local changes to Pinboard…"));
  auto postUpdate = ZBTarrowPinboardPostUpdateOperation::create(std::move(dirtyPosts), _client, _context);
  auto tagUpdate = ZBTarrowPinboardTagUpdateOperation::create(std::move(dirtyTags), _client, _context);
  addWorkOperation(postUpdate);
  addWorkOperation(tagUpdate);
  // Saves whatever the pushes confirmed, even when one of them failed.
  auto save = ZBPromiseOperation::promiseOperationWithBlock(
      [this](NSErrorPtr* error) { return _saveContext(error) ? Value(true) : Value(); });
  save->addDependency(postUpdate);
  save->addDependency(tagUpdate);
  addWorkOperation(save);
  addContinuation(addWorkOperation, {postUpdate, tagUpdate, save},
                  [this, addWorkOperation](const Array&) { _cleanupLocalData(addWorkOperation); });
}

void ZBTarrowPinboardRefreshOperation::_cleanupLocalData(const ZBAddWorkOperation& addWorkOperation) {
  if (!beginPhase()) return;
  _setStatus(ZBLocalizedString("Cleanup local data…"));
  // Deletes the tags no post uses; false when there were none.
  auto deleteUnused = ZBPromiseOperation::promiseOperationWithBlock([this](NSErrorPtr* error) -> Value {
    auto child = _childContext();
    auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardTagEntityName);
    request->setPredicate(NSPredicate::predicateWithFormat("%K.@count == 0", {Value(ZBTarrowPinboardTagPostsKey)}));
    auto unused = child->executeFetchRequest(*request, error);
    if (!unused) return Value();
    if (unused->empty()) return Value(false);
    for (const Value& tag : *unused) child->deleteObject(tag.as<NSManagedObject>());
    return ZBTarrowSaveContextUnlessCancelled(child, [this] { return isCancelled(); }, error) ? Value(true) : Value();
  });
  addPhase(
      addWorkOperation, {deleteUnused},
      [this, deleteUnused](NSErrorPtr* error) -> Value {
        Value deleted = deleteUnused->completionProvider()(error);
        if (!deleted) return Value();
        if (!deleted.boolValue()) return Value(true);
        return _saveContext(error) ? Value(true) : Value();
      },
      [this, addWorkOperation](const Value&) {
        if (refreshLocalChangesOnly()) {
          complete(Value(true));
        } else {
          _fetchLastUpdateDateAndRefreshPostsFromServer(addWorkOperation);
        }
      });
}

void ZBTarrowPinboardRefreshOperation::_fetchLastUpdateDateAndRefreshPostsFromServer(
    const ZBAddWorkOperation& addWorkOperation) {
  if (!beginPhase()) return;
  _setStatus(ZBLocalizedString("Retrieving last update date…"));
  Value stored = NSUserDefaults::standardUserDefaults()->objectForKey(
      ZBTarrowPinboardRefreshOperationLastUpdateTimestampDefaultKey);
  if (!stored.isDate()) stored = Value();  // anything else stored there is no date to compare with
  auto request = _client->retrieveLastPostUpdateDate();
  addWorkOperation(request);
  addContinuation(addWorkOperation, {request}, [this, stored, addWorkOperation](const Array& results) {
    _refreshPostsFromDate(stored, results[0], addWorkOperation);
  });
}

void ZBTarrowPinboardRefreshOperation::_refreshPostsFromDate(const Value& fromDate, const Value& toDate,
                                                             const ZBAddWorkOperation& addWorkOperation) {
  if (!beginPhase()) return;
  _setStatus(ZBLocalizedString("Refreshing latest bookmarks…"));
  if (fromDate && fromDate == toDate) {
    complete(Value(true));
    return;
  }
  // Without a start date, the whole list, unfiltered (an end date would
  // filter by bookmark date, which may lie ahead): the client can then
  // answer phase 6 with it instead of waiting out the service's five
  // minutes between two full lists.
  auto request = fromDate ? _client->retrieveAllPostsWithTagsStartDate(Value(), fromDate, toDate)
                          : _client->retrieveAllPostsWithTags(Value());
  addPhase(
      addWorkOperation, {request},
      [this, request](NSErrorPtr* error) -> Value {
        Value posts = request->completionProvider()(error);
        if (!posts) return Value();
        return _updatePostsWithServerPostsMetadata(posts.asArray(), false, error) ? Value(true) : Value();
      },
      [this, toDate, addWorkOperation](const Value&) {
        // On the context's queue, as the saves: a logout that cancelled us
        // and cleared the date there is not undone.
        _context->performBlockAndWait([&] {
          if (isCancelled()) return;
          auto defaults = NSUserDefaults::standardUserDefaults();
          defaults->setObject(toDate, ZBTarrowPinboardRefreshOperationLastUpdateTimestampDefaultKey);
          (void)defaults->synchronize();  // a lost write costs one more full merge, nothing else
        });
        _refreshAllPostsFromServer(addWorkOperation);
      });
}

void ZBTarrowPinboardRefreshOperation::_refreshAllPostsFromServer(const ZBAddWorkOperation& addWorkOperation) {
  if (!beginPhase()) return;
  _setStatus(ZBLocalizedString("Refreshing all bookmarks from Pinboard…"));
  auto request = _client->retrieveAllPostsWithTags(Value());
  addPhase(
      addWorkOperation, {request},
      [this, request](NSErrorPtr* error) -> Value {
        Value posts = request->completionProvider()(error);
        if (!posts) return Value();
        return _updatePostsWithServerPostsMetadata(posts.asArray(), true, error) ? Value(true) : Value();
      },
      [this, addWorkOperation](const Value&) { _refreshStarredPostsFromServer(addWorkOperation); });
}

void ZBTarrowPinboardRefreshOperation::_refreshStarredPostsFromServer(const ZBAddWorkOperation& addWorkOperation) {
  if (!beginPhase()) return;
  _setStatus(ZBLocalizedString("Retrieving starred bookmarks from Pinboard…"));
  auto request = _client->retrieveFeedWithMethod("starred", true, kFeedResultsCount);
  addPhase(
      addWorkOperation, {request},
      [this, request](NSErrorPtr* error) -> Value {
        Value posts = request->completionProvider()(error);
        if (!posts) return Value();
        return _updatePostsWithServerFeedPostsMetadata(posts.asArray(), ZBTarrowPinboardPostStarredKey, Value(true),
                                                       error)
                   ? Value(true)
                   : Value();
      },
      [this, addWorkOperation](const Value&) { _refreshSourcePostsFromServer(addWorkOperation); });
}

void ZBTarrowPinboardRefreshOperation::_refreshSourcePostsFromServer(const ZBAddWorkOperation& addWorkOperation) {
  if (!beginPhase()) return;
  _setStatus(ZBLocalizedString("Retrieving bookmark sources from Pinboard…"));
  std::vector<std::shared_ptr<NSOperation>> merges;
  for (std::int64_t source = 1; source <= 7; ++source)
    merges.push_back(_createRefreshSourcePostsFromServerOperation(source, addWorkOperation));
  addContinuation(addWorkOperation, merges, [this](const Array&) { complete(Value(true)); });
}

std::shared_ptr<ZBPromiseOperation> ZBTarrowPinboardRefreshOperation::_createRefreshSourcePostsFromServerOperation(
    std::int64_t source, const ZBAddWorkOperation& addWorkOperation) {
  auto request = _client->retrieveFeedWithSource(feedSourceFromSource(source), kFeedResultsCount);
  addWorkOperation(request);
  auto merge = ZBPromiseOperation::promiseOperationWithBlock([this, request, source](NSErrorPtr* error) -> Value {
    Value posts = request->completionProvider()(error);
    if (!posts) return Value();
    return _updatePostsWithServerFeedPostsMetadata(posts.asArray(), ZBTarrowPinboardPostSourceKey, Value(source), error)
               ? Value(true)
               : Value();
  });
  merge->addDependency(request);
  addWorkOperation(merge);
  return merge;
}
