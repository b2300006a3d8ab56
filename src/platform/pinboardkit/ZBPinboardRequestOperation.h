#pragma once
// ZBPinboardRequestOperation: what every request of ZBPinboardClient returns.
// A not-yet-started asynchronous operation: started (on any queue, after its
// dependencies), it hands its request to the client and returns at once,
// holding no thread while the request waits for its turn or a back-off; it
// finishes later, from the client's threads, once it has published the
// outcome through its completion provider: the result, or absent and an error
// of ZBPinboardKitErrorDomain. Cancelling it abandons a wait at once and a
// transfer within about a second; it then reports NSCocoaErrorDomain
// NSUserCancelledError, as does one cancelled before it ran.
//
// While it waits for its turn under the service's spacing (or a back-off
// after HTTP 429), secondsUntilTurn (observable, "secondsUntilTurn") counts
// the whole seconds left down on the client's clock; it is 0 when the request
// is not waiting or the time is not known yet.
//
// Lifetime: held by std::shared_ptr; it keeps its client alive until it has
// finished. Thread-safety: as NSOperation; completionProvider() from any
// thread.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/foundation/ZBMutex.h"
#include "platform/operations/NSOperation.h"
#include "platform/operations/ZBCompletionProvider.h"

class ZBPinboardClient;

extern const std::string ZBPinboardRequestOperationSecondsUntilTurnKey;  // "secondsUntilTurn"

class ZBPinboardRequestOperation final : public NSOperation, public ZBCompletionProviding {
public:
  using Pointer = std::shared_ptr<ZBPinboardRequestOperation>;
  // Starts the request; it ends, now or later, with complete().
  using Body = std::function<void(const Pointer& operation)>;

  // method names the request for descriptions and errors ("posts/all",
  // "feed starred").
  static Pointer create(std::string method, Body body);

  const std::string& method() const { return _method; }
  std::int64_t secondsUntilTurn() const;
  Value valueForKey(const std::string& key) const override;
  bool isAsynchronous() const override { return true; }
  ZBCompletionProvider completionProvider() const override;
  std::string className() const override { return "ZBPinboardRequestOperation"; }
  std::string description() const override;

  ZBPinboardRequestOperation(std::string method, Body body);  // use create()

protected:
  void main() override;
  void mainDidThrow(const NSErrorPtr& error) override;

private:
  friend class ZBPinboardClient;

  // Publishes the outcome and finishes; calls after the first are ignored. A
  // failure of a cancelled operation is reported as the cancellation.
  void _complete(Value result, NSErrorPtr error);
  // What a cancel() now should stop (a wait); nullptr for nothing. Runs at
  // most once, on the cancelling thread. False, storing nothing, when the
  // operation is cancelled already.
  bool _setCanceller(std::function<void()> canceller);
  // Announces a change of secondsUntilTurn; called by the client's ticks.
  void _setSecondsUntilTurn(std::int64_t seconds);

  const std::string _method;
  // Whom the request was made for: the token signed in and the client's logout
  // count when it was created. It never leaves for anyone else.
  std::string _madeFor;
  std::uint64_t _session = 0;
  std::atomic<bool> _completed{false};
  mutable ZBMutex _mutex;
  Body _body ZB_GUARDED_BY(_mutex);  // released once run
  ZBCompletionProvider _provider ZB_GUARDED_BY(_mutex);
  std::function<void()> _canceller ZB_GUARDED_BY(_mutex);
  NSKeyValueObservation _cancelObservation ZB_GUARDED_BY(_mutex);
  // The wait shown: when the turn is due (client clock; infinity: unknown)
  // and the pending tick timer (0: none). The client's to manage.
  double _turnAt ZB_GUARDED_BY(_mutex) = 0;
  std::uint64_t _waitTimer ZB_GUARDED_BY(_mutex) = 0;
  std::atomic<std::int64_t> _secondsUntilTurn{0};
};
