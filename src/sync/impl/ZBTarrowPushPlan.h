#pragma once
// The plan the batch pushes share: one service request per item; then, for
// the items the service accepted, a confirmation that records its answers in
// the push context (a child of the owner's context); an aggregation of the
// outcomes; a save of the push context into its parent; the owner's
// completion.
//
// At most ZBTarrowPushPlanWidth requests are in flight: that many lanes send
// their items in turn (lane k: items k, k + width, …), each building its next
// request once the previous one is done. A batch of 10 000 items holds a
// handful of operations at any time, and the client's own spacing decides
// the pace.
//
// The confirmations run once every lane has ended, in chunks of up to 500
// items on the push context's queue (one fetch per chunk instead of one per
// item, and no scratch context per item): nothing of the push context reaches
// its parent before the final save, so confirming each item the moment its
// answer arrives would change nothing but the cost.
//
// Cancelling the owner stops every lane before its next request and cancels
// the requests in flight; what the service accepted is still confirmed and
// saved, the rest keeps its flags, and the owner reports the cancellation.
//
// Outcome: true when every item went through (or was skipped); otherwise the
// batch error (code 0, the given texts, the results and the errors in item
// order); a save error only when every item went through.
//
// Lifetime: held by the work operations it hands over; it ends with the last
// of them. Thread-safety: lanes run on work threads at the same time; the
// request callable must allow that.

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/ZBMutex.h"
#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/operations/ZBConcurrentOperation.h"
#include "platform/pinboardkit/ZBPinboardRequestOperation.h"

inline constexpr std::size_t ZBTarrowPushPlanWidth = 8;

class ZBTarrowPushPlan final : public std::enable_shared_from_this<ZBTarrowPushPlan> {
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  // An item the service accepted: its position and the request's result.
  struct Accepted {
    std::size_t index;
    Value result;
  };

  // The request for item index, or nullptr: with *error set the item fails
  // without a request, without it the item is skipped (neither result nor
  // error).
  using Request = std::function<std::shared_ptr<ZBPinboardRequestOperation>(std::size_t index, NSErrorPtr* error)>;
  // Records accepted items in the push context; runs on its queue. False with
  // the error when it could not (a fetch failed): every item of the chunk
  // then fails with that error.
  using Confirm = std::function<bool(std::span<const Accepted> items, NSErrorPtr* error)>;
  // The owner's standard completion.
  using Complete = std::function<void(Value result, NSErrorPtr error)>;

  struct Settings {
    std::size_t count = 0;
    Request request;
    Confirm confirm;
    NSManagedObjectContextPtr pushContext;  // private queue, parent: the owner's context
    std::string failureDescription;         // localised texts of the batch error
    std::string failureRecoverySuggestion;
    Complete complete;
  };

  static std::shared_ptr<ZBTarrowPushPlan> create(const std::shared_ptr<NSOperation>& owner, Settings settings);
  ZBTarrowPushPlan(Passkey, const std::shared_ptr<NSOperation>& owner, Settings settings);

  // Starts the lanes; returns at once. Call once, from the owner's
  // setupOperations().
  void start(const ZBAddWorkOperation& addWorkOperation);

private:
  enum class Outcome : unsigned char { Pending, Skipped, Accepted, Succeeded, Failed };

  bool _isCancelled() const;
  // Sends lane items from index on, until one is handed over or the lane ends.
  void _send(std::size_t index, const ZBAddWorkOperation& addWorkOperation);
  void _record(std::size_t index, Outcome outcome, Value resultOrError);
  void _laneEnded(const ZBAddWorkOperation& addWorkOperation);
  void _finish(const ZBAddWorkOperation& addWorkOperation);
  void _ownerCancelled();
  void _confirm();
  Value _aggregate(NSErrorPtr* error);

  const std::weak_ptr<NSOperation> _owner;
  const Settings _settings;
  const std::size_t _lanes;
  std::atomic<std::size_t> _lanesRunning{0};
  NSKeyValueObservation _cancelObservation;  // set in start, ended in the finishing step

  mutable ZBMutex _mutex;
  bool _cancelled ZB_GUARDED_BY(_mutex) = false;
  std::vector<std::shared_ptr<ZBPinboardRequestOperation>> _inFlight ZB_GUARDED_BY(_mutex);
  std::vector<Outcome> _outcomes ZB_GUARDED_BY(_mutex);
  std::vector<Value> _results ZB_GUARDED_BY(_mutex);  // the item's result, or its error as an object
};
