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

class ZBPinboardRequestOperation final : public NSOperation, public ZBCompletionProviding {
public:
  using Pointer = std::shared_ptr<ZBPinboardRequestOperation>;
  // Starts the request; it ends, now or later, with complete().
  using Body = std::function<void(const Pointer& operation)>;

  // method names the request for descriptions and errors ("posts/all",
  // "feed starred").
  static Pointer create(std::string method, Body body);

  const std::string& method() const { return _method; }
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
};
