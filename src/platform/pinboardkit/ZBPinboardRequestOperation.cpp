#include "platform/pinboardkit/ZBPinboardRequestOperation.h"

ZBPinboardRequestOperation::ZBPinboardRequestOperation(std::string method, Body body)
    : _method(std::move(method)), _body(std::move(body)) {}

std::shared_ptr<ZBPinboardRequestOperation> ZBPinboardRequestOperation::create(std::string method, Body body) {
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
  Body body;
  {
    ZBMutexLock hold(_mutex);
    body = std::move(_body);
    _body = nullptr;
  }
  NSErrorPtr error;
  Value result;
  if (isCancelled()) error = ZBUserCancelledError();
  else if (body) result = body(*this, &error);
  body = nullptr;  // lets go of the client before the operation finishes
  // A body cut short by cancellation reports it as such, whatever it met.
  if (!result && isCancelled()) error = ZBUserCancelledError();
  ZBMutexLock hold(_mutex);
  _provider = ZBCompletionProviderWithResult(std::move(result), std::move(error));
}
