#include "TarrowSession.h"

#include <optional>

#include "TarrowErrors.h"
#include "TarrowProgress.h"
#include "TarrowText.h"
#include "platform/operations/NSRunLoop.h"
#include "store/ZBTarrowDataStoreCoordinator.h"

namespace {

// Bounds of the wait for cancelled jobs. They stop at their next phase, but a
// request already in flight may take until its time-out; a cancelled job
// saves nothing more, so after an interrupt the process need not wait for it.
constexpr double kWindDownSeconds = 120;
constexpr double kInterruptedWindDownSeconds = 5;

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
      _controller(ZBTarrowDataController::create(NSUserDefaults::standardUserDefaults())) {
  // From here on an interrupt is a request to wind down: a job may start
  // before the main loop is turned for it.
  _interrupt.setWaiting(true);
}

TarrowSession::~TarrowSession() {
  _interrupt.setWaiting(false);
  // After an interrupt the jobs were cancelled and given their time already.
  const bool interrupted = _interrupt.interrupted();
  if (!interrupted) _windDown();
  // A save's merge into the root context runs on a pool thread: let it end
  // before the process does.
  if (!interrupted && _controller) {
    if (auto coordinator = _controller->pinboardStoreCoordinator())
      coordinator->rootManagedObjectContext()->performBlockAndWait([] {});
  }
  _controller.reset();
  if (!interrupted)
    NSRunLoop::mainRunLoop()->runUntil([] { return NSOperationQueue::mainQueue()->operationCount() == 0; },
                                       kWindDownSeconds);
  NSUserDefaults::standardUserDefaults()->synchronize();
}

void TarrowSession::_windDown() {
  auto queue = _controller->operationQueue();
  queue->cancelAllOperations();
  NSRunLoop::mainRunLoop()->runUntil([&] { return queue->operationCount() == 0; },
                                     _interrupt.interrupted() ? kInterruptedWindDownSeconds : kWindDownSeconds);
}

NSErrorPtr TarrowSession::waitUntil(const std::function<bool()>& done, bool showProgress) {
  std::optional<TarrowProgress> progress;
  if (showProgress) progress.emplace(*this);
  NSRunLoop::mainRunLoop()->runUntil([&] { return done() || _interrupt.interrupted(); });
  if (!_interrupt.interrupted()) return nullptr;
  _windDown();
  if (progress) progress->finish();
  return interruption();
}

NSErrorPtr TarrowSession::interruption() const {
  if (!_interrupt.interrupted()) return nullptr;
  return TarrowMakeError(TarrowInterruptedError, TarrowLocalized("Interrupted"),
                         TarrowLocalized("The job was cancelled; nothing was half-saved."));
}

NSErrorPtr TarrowSession::wait(const Outcome& outcome, bool showProgress) {
  if (NSErrorPtr interrupted = waitUntil([&] { return outcome.done; }, showProgress)) return interrupted;
  if (outcome.success) return nullptr;
  return outcome.error ? outcome.error
                       : TarrowMakeError(TarrowInvalidInputError, TarrowLocalized("The job failed without a reason."));
}
