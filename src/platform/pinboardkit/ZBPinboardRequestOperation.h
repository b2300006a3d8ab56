#pragma once
// ZBPinboardRequestOperation: what every request of ZBPinboardClient returns.
// A not-yet-started operation that, when run (on any queue, after its
// dependencies), performs the request on its own thread, waiting out rate
// limits and back-offs, and publishes the outcome through its completion
// provider: the result, or absent and an error of ZBPinboardKitErrorDomain.
// Cancelling it stops a wait or a transfer in progress; it then reports
// NSCocoaErrorDomain NSUserCancelledError, as does one cancelled before it ran.
//
// Lifetime: held by std::shared_ptr; it keeps its client alive until it has
// run. Thread-safety: as NSOperation; completionProvider() from any thread.

#include <functional>
#include <memory>
#include <string>

#include "platform/foundation/ZBMutex.h"
#include "platform/operations/NSOperation.h"
#include "platform/operations/ZBCompletionProvider.h"

class ZBPinboardRequestOperation final : public NSOperation, public ZBCompletionProviding {
public:
  using Body = std::function<Value(const ZBPinboardRequestOperation& operation, NSErrorPtr* error)>;

  // method names the request for descriptions and errors ("posts/all",
  // "feed starred"); body does the work and may read isCancelled().
  static std::shared_ptr<ZBPinboardRequestOperation> create(std::string method, Body body);

  const std::string& method() const { return _method; }
  ZBCompletionProvider completionProvider() const override;
  std::string className() const override { return "ZBPinboardRequestOperation"; }
  std::string description() const override;

  ZBPinboardRequestOperation(std::string method, Body body);  // use create()

protected:
  void main() override;

private:
  const std::string _method;
  mutable ZBMutex _mutex;
  Body _body ZB_GUARDED_BY(_mutex);  // released once run
  ZBCompletionProvider _provider ZB_GUARDED_BY(_mutex);
};
