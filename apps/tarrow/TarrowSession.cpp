#include "TarrowSession.h"

#include <optional>

#include "TarrowErrors.h"
#include "TarrowProgress.h"
#include "TarrowText.h"
#include "platform/operations/NSRunLoop.h"

namespace {

// Bound of the wait for cancelled jobs: they stop at their next phase, so
// this only guards against a hang.
constexpr double kWindDownSeconds = 120;

}  // namespace

ZBTarrowDataController::CompletionHandler TarrowSession::Outcome::handler() {
  return [this](bool ok, NSErrorPtr error) {
    done = true;
    success = ok;
    this->error = std::move(error);
  };
}

TarrowSession::TarrowSession(TarrowInterrupt& interrupt, std::ostream& out, std::ostream& err)
    : _interrupt(interrupt), _out(out), _err(err),
      _controller(ZBTarrowDataController::create(NSUserDefaults::standardUserDefaults())) {}

TarrowSession::~TarrowSession() {
  _windDown();
  _controller.reset();
  NSRunLoop::mainRunLoop()->runUntil([] { return NSOperationQueue::mainQueue()->operationCount() == 0; },
                                     kWindDownSeconds);
  NSUserDefaults::standardUserDefaults()->synchronize();
}

void TarrowSession::_windDown() {
  auto queue = _controller->operationQueue();
  queue->cancelAllOperations();
  NSRunLoop::mainRunLoop()->runUntil([&] { return queue->operationCount() == 0; }, kWindDownSeconds);
}

NSErrorPtr TarrowSession::waitUntil(const std::function<bool()>& done, bool showProgress) {
  std::optional<TarrowProgress> progress;
  if (showProgress) progress.emplace(*this);
  _interrupt.setWaiting(true);
  NSRunLoop::mainRunLoop()->runUntil([&] { return done() || _interrupt.interrupted(); });
  _interrupt.setWaiting(false);
  if (!_interrupt.interrupted()) return nullptr;
  _windDown();
  if (progress) progress->finish();
  return TarrowMakeError(TarrowInterruptedError, TarrowLocalized("Interrupted"),
                         TarrowLocalized("The job was cancelled; nothing was half-saved."));
}

NSErrorPtr TarrowSession::wait(const Outcome& outcome, bool showProgress) {
  if (NSErrorPtr interrupted = waitUntil([&] { return outcome.done; }, showProgress)) return interrupted;
  if (outcome.success) return nullptr;
  return outcome.error ? outcome.error
                       : TarrowMakeError(TarrowInvalidInputError, TarrowLocalized("The job failed without a reason."));
}
