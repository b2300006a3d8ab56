#pragma once
// ZBTarrowPinboardRefreshOperation: one synchronisation of the local store
// with the user's account. It pushes the local edits, tidies the store, then
// (unless refreshLocalChangesOnly) asks the service what changed since the
// last refresh and merges it: the bookmarks changed since then, the whole
// list (which also removes what the service no longer has), starred
// bookmarks, and the source of each bookmark.
//
// Phases, each with its status text: 1 "Retrieving local changes…",
// 2 "Sending local changes to Pinboard…", 3 "Cleanup local data…" (tags no
// post uses), 4 "Retrieving last update date…", 5 "Refreshing latest
// bookmarks…" (ends the run when the service's date equals the stored one),
// 6 "Refreshing all bookmarks from Pinboard…", 7 "Retrieving starred bookmarks
// from Pinboard…", 8 "Retrieving bookmark sources from Pinboard…" (seven
// source feeds at once). Phases 2 to 8 first check for cancellation.
//
// Result: true; or the first error met, unchanged (a cancellation at a phase
// boundary is NSUserCancelledError). What was saved before stays saved: the
// context is saved after the pushes even when one failed, and the service's
// date is stored (ZBTarrowPinboardRefreshOperationLastUpdateTimestampDefaultKey
// in the standard user defaults) as soon as phase 5 has merged.
//
// Merges never overwrite a dirty or deleting post, skip every bookmark whose
// meta is unchanged (a refresh of an unchanged account writes no row), never
// empty the store on an empty answer, and keep a dirty post the service does
// not have (a local creation). Their cost is linear in the account's size: a
// hash map of the local identifiers and metas, fetches and deletes in
// batches, a tag cache instead of a lookup per tag.
//
// One refresh at a time per store, across processes: before phase 1 the
// refresh takes a lock beside the store file. When another refresh holds it,
// the refresh fails with ZBTarrowDataRefreshElsewhereError naming the other
// process, or, with waitsForOtherRefresh, shows "Waiting for another refresh
// to finish…" and waits (cancellable) until it ends. Edits other processes
// save meanwhile are not lost: a post that is dirty when merged is never
// overwritten, and a save that meets a row changed since it was read keeps
// the stored values of what changed there (the root context's merge policy),
// so such posts stay dirty and go out with the next refresh.
//
// While a request of the refresh waits five seconds or more for its turn
// under the service's rate limits (or a back-off), the status says so with
// the time left: "Waiting for Pinboard’s rate limit… 4:12".
//
// Lifetime: held by std::shared_ptr (create). managedObjectContext is a
// private-queue or main-queue context (the coordinator's root context): the
// refresh saves it on its own queue and reads and writes it only through child
// contexts. `status` may be read and observed from any thread; it changes on
// work threads.

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/ZBMutex.h"
#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/operations/ZBConcurrentOperation.h"
#include "platform/pinboardkit/ZBPinboardClient.h"
#include "sync/impl/ZBTarrowRefreshLock.h"

// "pinboardLastUpdateTimestamp": the service's date of the last merged change.
extern const std::string ZBTarrowPinboardRefreshOperationLastUpdateTimestampDefaultKey;
// "status"
extern const std::string ZBTarrowPinboardRefreshOperationStatusKey;

class ZBTarrowPinboardRefreshOperation final : public ZBConcurrentOperation {
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  static std::shared_ptr<ZBTarrowPinboardRefreshOperation> create(std::shared_ptr<ZBPinboardClient> pinboardClient,
                                                                  NSManagedObjectContextPtr managedObjectContext);
  ZBTarrowPinboardRefreshOperation(Passkey, std::shared_ptr<ZBPinboardClient> pinboardClient,
                                   NSManagedObjectContextPtr managedObjectContext);

  const std::shared_ptr<ZBPinboardClient>& pinboardClient() const { return _client; }
  const NSManagedObjectContextPtr& managedObjectContext() const { return _context; }
  // The localised text of the phase that started last; empty before.
  std::string status() const;
  // Set before the operation is queued.
  bool refreshLocalChangesOnly() const { return _localOnly.load(); }
  void setRefreshLocalChangesOnly(bool value) { _localOnly.store(value); }
  // Set before the operation is queued; false by default.
  bool waitsForOtherRefresh() const { return _waitsForOther.load(); }
  void setWaitsForOtherRefresh(bool value) { _waitsForOther.store(value); }

  // The source number stored in a post (1 to 7) → the feed's source name
  // ("twitter", …), or empty for any other number.
  static std::string feedSourceFromSource(std::int64_t source);

  // "status", plus the base's keys.
  Value valueForKey(const std::string& key) const override;
  std::string className() const override { return "ZBTarrowPinboardRefreshOperation"; }

protected:
  void setupOperations(const ZBAddWorkOperation& addWorkOperation) override;

private:
  void _setStatus(std::string status);
  // Phases.
  void _processStaleLocalData(const ZBAddWorkOperation& addWorkOperation);
  void _processDirtyLocalPosts(Array dirtyPosts, Array dirtyTags, const ZBAddWorkOperation& addWorkOperation);
  void _cleanupLocalData(const ZBAddWorkOperation& addWorkOperation);
  void _fetchLastUpdateDateAndRefreshPostsFromServer(const ZBAddWorkOperation& addWorkOperation);
  void _refreshPostsFromDate(const Value& fromDate, const Value& toDate, const ZBAddWorkOperation& addWorkOperation);
  void _refreshAllPostsFromServer(const ZBAddWorkOperation& addWorkOperation);
  void _refreshStarredPostsFromServer(const ZBAddWorkOperation& addWorkOperation);
  void _refreshSourcePostsFromServer(const ZBAddWorkOperation& addWorkOperation);
  std::shared_ptr<ZBPromiseOperation> _createRefreshSourcePostsFromServerOperation(
      std::int64_t source, const ZBAddWorkOperation& addWorkOperation);

  // Merges (ZBTarrowPinboardRefreshOperation+Merge.cpp). Each works in a
  // child context of the refresh's context, saves it, then saves the
  // refresh's context; false with the error of the fetch or save that failed.
  bool _updatePostsWithServerPostsMetadata(const Array& serverPosts, bool checkStaleLocalData, NSErrorPtr* error);
  bool _updatePostsWithServerFeedPostsMetadata(const Array& feedPosts, const std::string& attribute,
                                               const Value& value, NSErrorPtr* error);
  // A child context of the refresh's context: confinement type, no undo.
  NSManagedObjectContextPtr _childContext() const;
  // Saves the child, then the refresh's context on its own queue.
  bool _saveChildAndContext(const NSManagedObjectContextPtr& child, NSErrorPtr* error);
  // Saves the refresh's context on its own queue, waiting for it.
  bool _saveContext(NSErrorPtr* error);

  const std::shared_ptr<ZBPinboardClient> _client;
  const NSManagedObjectContextPtr _context;
  std::atomic<bool> _localOnly{false};
  std::atomic<bool> _waitsForOther{false};
  // Takes the store's refresh lock (waiting for it when asked to); false
  // with the error when another refresh has it or we were cancelled.
  bool _takeRefreshLock(NSErrorPtr* error);
  std::unique_ptr<ZBTarrowRefreshLock> _refreshLock;  // held from phase 1 until finished
  NSKeyValueObservation _lockRelease;
  // Cancels the requests and pushes handed over (_outgoing) when we are
  // cancelled.
  NSKeyValueObservation _cancelForwarding;
  ZBMutex _outgoingMutex;
  std::vector<std::shared_ptr<NSOperation>> _outgoing ZB_GUARDED_BY(_outgoingMutex);
  mutable ZBMutex _statusMutex;
  std::string _status ZB_GUARDED_BY(_statusMutex);       // what is shown
  std::string _phaseStatus ZB_GUARDED_BY(_statusMutex);  // the phase's own text
  // The seconds each of our requests has yet to wait for its turn.
  std::map<const NSOperation*, std::int64_t> _waits ZB_GUARDED_BY(_statusMutex);
  // Shows the phase's text, or the longest wait of a request when it is
  // long enough to tell of.
  void _showStatus(std::string phaseStatus, const NSOperation* waiting, std::int64_t seconds);
  // Declared after what their callbacks use, so that they end first.
  std::vector<NSKeyValueObservation> _waitObservations ZB_GUARDED_BY(_outgoingMutex);
};
