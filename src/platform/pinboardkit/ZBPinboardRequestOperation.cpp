#include "platform/pinboardkit/ZBPinboardRequestOperation.h"

const std::string ZBPinboardRequestOperationSecondsUntilTurnKey = "secondsUntilTurn";

ZBPinboardRequestOperation::ZBPinboardRequestOperation(std::string method, Body body)
    : _method(std::move(method)), _body(std::move(body)) {}

ZBPinboardRequestOperation::Pointer ZBPinboardRequestOperation::create(std::string method, Body body) {
  return std::make_shared<ZBPinboardRequestOperation>(std::move(method), std::move(body));
}

ZBCompletionProvider ZBPinboardRequestOperation::completionProvider() const {
  {
    ZBMutexLock hold(_mutex);
    if (_provider) return _provider;
  }
  return ZBMissingCompletionProvider(*this);
}

std::string ZBPinboardRequestOperation::description() const { return "<ZBPinboardRequestOperation " + _method + ">"; }

void ZBPinboardRequestOperation::main() {
  auto self = std::static_pointer_cast<ZBPinboardRequestOperation>(shared_from_this());
  Body body;
  {
    ZBMutexLock hold(_mutex);
    body = std::move(_body);
    _body = nullptr;
  }
  // A cancel() interrupts whatever the request waits for at that moment.
  NSKeyValueObservation observation = addObserver(
      "isCancelled", NSKeyValueObservingOptions::None,
      [weak = std::weak_ptr<ZBPinboardRequestOperation>(self)](const std::string&, NSObject&, const NSKeyValueChange&) {
        auto op = weak.lock();
        if (!op) return;
        std::function<void()> canceller;
        {
          ZBMutexLock hold(op->_mutex);
          canceller = std::move(op->_canceller);
          op->_canceller = nullptr;
        }
        if (canceller) canceller();
      });
  {
    ZBMutexLock hold(_mutex);
    _cancelObservation = std::move(observation);
  }
  if (isCancelled() || !body) return _complete(Value(), ZBUserCancelledError());
  body(self);
}

void ZBPinboardRequestOperation::mainDidThrow(const NSErrorPtr& error) {
  // The operation finishes now; later outcomes of the request are dropped.
  if (_completed.exchange(true)) return;
  NSKeyValueObservation observation;
  {
    ZBMutexLock hold(_mutex);
    _provider = ZBCompletionProviderWithResult(Value(), error);
    observation = std::move(_cancelObservation);
    _canceller = nullptr;
  }
}

void ZBPinboardRequestOperation::_complete(Value result, NSErrorPtr error) {
  if (_completed.exchange(true)) return;
  // A request cut short by cancellation reports it as such, whatever it met.
  if (!result && isCancelled()) error = ZBUserCancelledError();
  NSKeyValueObservation observation;  // ended outside the lock its callback takes
  std::function<void()> canceller;
  {
    ZBMutexLock hold(_mutex);
    _provider = ZBCompletionProviderWithResult(std::move(result), std::move(error));
    observation = std::move(_cancelObservation);
    canceller = std::move(_canceller);
    _canceller = nullptr;
  }
  observation.invalidate();
  finish();
}

bool ZBPinboardRequestOperation::_setCanceller(std::function<void()> canceller) {
  std::function<void()> replaced;
  ZBMutexLock hold(_mutex);
  if (isCancelled()) return false;
  replaced = std::move(_canceller);
  _canceller = std::move(canceller);
  return true;
}

std::int64_t ZBPinboardRequestOperation::secondsUntilTurn() const { return _secondsUntilTurn.load(); }

Value ZBPinboardRequestOperation::valueForKey(const std::string& key) const {
  if (key == ZBPinboardRequestOperationSecondsUntilTurnKey) return Value(secondsUntilTurn());
  return NSOperation::valueForKey(key);
}

void ZBPinboardRequestOperation::_setSecondsUntilTurn(std::int64_t seconds) {
  if (_secondsUntilTurn.load() == seconds) return;
  willChangeValueForKey(ZBPinboardRequestOperationSecondsUntilTurnKey);
  _secondsUntilTurn.store(seconds);
  didChangeValueForKey(ZBPinboardRequestOperationSecondsUntilTurnKey);
}
