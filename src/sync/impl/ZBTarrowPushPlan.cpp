#include "sync/impl/ZBTarrowPushPlan.h"

#include <algorithm>

#include "platform/operations/NSBlockOperation.h"
#include "platform/operations/ZBPromiseOperation.h"
#include "store/NSManagedObjectContext+ZBTarrowCancellableSave.h"
#include "sync/ZBTarrowDataError.h"

namespace {

constexpr std::size_t kConfirmChunk = 500;

}  // namespace

std::shared_ptr<ZBTarrowPushPlan> ZBTarrowPushPlan::create(const std::shared_ptr<NSOperation>& owner,
                                                           Settings settings) {
  return std::make_shared<ZBTarrowPushPlan>(Passkey(), owner, std::move(settings));
}

ZBTarrowPushPlan::ZBTarrowPushPlan(Passkey, const std::shared_ptr<NSOperation>& owner, Settings settings)
    : _owner(owner),
      _settings(std::move(settings)),
      _lanes(std::min(_settings.count, ZBTarrowPushPlanWidth)),
      _outcomes(_settings.count, Outcome::Pending),
      _results(_settings.count) {}

void ZBTarrowPushPlan::start(const ZBAddWorkOperation& addWorkOperation) {
  if (auto owner = _owner.lock()) {
    std::weak_ptr<ZBTarrowPushPlan> weakSelf = shared_from_this();
    _cancelObservation = owner->addObserver("isCancelled", NSKeyValueObservingOptions::None,
                                            [weakSelf](const std::string&, NSObject&, const NSKeyValueChange&) {
                                              if (auto plan = weakSelf.lock()) plan->_ownerCancelled();
                                            });
  }
  if (_lanes == 0) {
    _finish(addWorkOperation);
    return;
  }
  _lanesRunning.store(_lanes);
  for (std::size_t lane = 0; lane < _lanes; ++lane) _send(lane, addWorkOperation);
}

bool ZBTarrowPushPlan::_isCancelled() const {
  auto owner = _owner.lock();
  return !owner || owner->isCancelled();
}

void ZBTarrowPushPlan::_ownerCancelled() {
  std::vector<std::shared_ptr<ZBPinboardRequestOperation>> inFlight;
  {
    ZBMutexLock lock(_mutex);
    _cancelled = true;
    inFlight = _inFlight;
  }
  for (const auto& request : inFlight) request->cancel();
}

void ZBTarrowPushPlan::_send(std::size_t index, const ZBAddWorkOperation& addWorkOperation) {
  for (; index < _settings.count; index += _lanes) {
    if (_isCancelled()) break;
    NSErrorPtr error;
    auto request = _settings.request(index, &error);
    if (!request) {
      _record(index, error ? Outcome::Failed : Outcome::Skipped, Value(error));
      continue;
    }
    bool cancelled;
    {
      ZBMutexLock lock(_mutex);
      cancelled = _cancelled;
      _inFlight.push_back(request);
    }
    if (cancelled) request->cancel();  // cancelled between the check above and the registration
    addWorkOperation(request);

    auto next = NSBlockOperation::blockOperationWithBlock([self = shared_from_this(), index, request,
                                                           addWorkOperation] {
      NSErrorPtr error;
      Value result = request->completionProvider()(&error);
      {
        ZBMutexLock lock(self->_mutex);
        std::erase(self->_inFlight, request);
      }
      self->_record(index, result ? Outcome::Accepted : Outcome::Failed, result ? result : Value(error));
      self->_send(index + self->_lanes, addWorkOperation);
    });
    next->addDependency(request);
    addWorkOperation(next);
    return;
  }
  _laneEnded(addWorkOperation);
}

void ZBTarrowPushPlan::_record(std::size_t index, Outcome outcome, Value resultOrError) {
  ZBMutexLock lock(_mutex);
  _outcomes[index] = outcome;
  _results[index] = std::move(resultOrError);
}

void ZBTarrowPushPlan::_laneEnded(const ZBAddWorkOperation& addWorkOperation) {
  if (_lanesRunning.fetch_sub(1) == 1) _finish(addWorkOperation);
}

void ZBTarrowPushPlan::_confirm() {
  std::vector<Accepted> accepted;
  {
    ZBMutexLock lock(_mutex);
    for (std::size_t i = 0; i < _outcomes.size(); ++i) {
      if (_outcomes[i] == Outcome::Accepted) accepted.push_back({i, _results[i]});
    }
  }
  const auto& context = _settings.pushContext;
  for (std::size_t first = 0; first < accepted.size(); first += kConfirmChunk) {
    std::span<const Accepted> chunk(accepted.data() + first, std::min(kConfirmChunk, accepted.size() - first));
    NSErrorPtr error;
    bool confirmed = false;
    context->performBlockAndWait([&] { confirmed = _settings.confirm(chunk, &error); });
    ZBMutexLock lock(_mutex);
    for (const auto& item : chunk) {
      _outcomes[item.index] = confirmed ? Outcome::Succeeded : Outcome::Failed;
      _results[item.index] = confirmed ? Value(true) : Value(error);
    }
  }
}

Value ZBTarrowPushPlan::_aggregate(NSErrorPtr* error) {
  Array succeeded, errors;
  {
    ZBMutexLock lock(_mutex);
    for (std::size_t i = 0; i < _outcomes.size(); ++i) {
      if (_outcomes[i] == Outcome::Succeeded) succeeded.push_back(_results[i]);
      // A failure without an error object still counts (and still shows).
      if (_outcomes[i] == Outcome::Failed) errors.push_back(_results[i] ? _results[i] : Value::null());
    }
  }
  if (errors.empty()) return Value(true);
  ZBSetError(error, ZBTarrowDataBatchErrorWith(_settings.failureDescription, _settings.failureRecoverySuggestion,
                                               std::move(succeeded), std::move(errors)));
  return Value();
}

void ZBTarrowPushPlan::_finish(const ZBAddWorkOperation& addWorkOperation) {
  auto self = shared_from_this();
  auto aggregation = ZBPromiseOperation::promiseOperationWithBlock([self](NSErrorPtr* error) {
    self->_confirm();
    return self->_aggregate(error);
  });
  addWorkOperation(aggregation);

  // Runs whatever the aggregation says, so the items that went through keep
  // their cleared flags when others failed.
  auto save = ZBPromiseOperation::promiseOperationWithBlock([self](NSErrorPtr* error) {
    const auto& context = self->_settings.pushContext;
    return ZBTarrowSaveContextUnlessCancelled(context, [&] { return self->_isCancelled(); }, error) ? Value(true)
                                                                                                : Value();
  });
  save->addDependency(aggregation);
  addWorkOperation(save);

  auto finishing = NSBlockOperation::blockOperationWithBlock([self, aggregation, save] {
    self->_cancelObservation.invalidate();
    bool unsent = false;
    {
      ZBMutexLock lock(self->_mutex);
      unsent = std::any_of(self->_outcomes.begin(), self->_outcomes.end(),
                           [](Outcome o) { return o == Outcome::Pending; });
    }
    NSErrorPtr aggregationError, saveError;
    Value aggregated = aggregation->completionProvider()(&aggregationError);
    Value saved = save->completionProvider()(&saveError);
    // Items left unsent, or requests cut short, by a cancellation: that is the
    // outcome, not the failures it caused.
    if (self->_isCancelled() && (unsent || !aggregated)) {
      self->_settings.complete(Value(), ZBUserCancelledError());
    } else if (!aggregated) {
      self->_settings.complete(Value(), aggregationError);
    } else if (!saved) {
      self->_settings.complete(Value(), saveError);
    } else {
      self->_settings.complete(Value(true), nullptr);
    }
  });
  finishing->addDependency(aggregation);
  finishing->addDependency(save);
  addWorkOperation(finishing);
}
