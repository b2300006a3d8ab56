#include "TarrowInterrupt.h"

#include <csignal>
#include <cstdlib>
#include <ctime>

#include "platform/operations/NSRunLoop.h"

namespace {

sigset_t watchedSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

}  // namespace

TarrowInterrupt::TarrowInterrupt() {
  sigset_t signals = watchedSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  _thread = std::jthread([this](std::stop_token stop) { _watch(stop); });
}

TarrowInterrupt::~TarrowInterrupt() {
  _thread.request_stop();
  if (_thread.joinable()) _thread.join();
}

void TarrowInterrupt::setRestoreHook(std::function<void()> hook) {
  ZBMutexLock lock(_mutex);
  _restoreHook = std::move(hook);
}

void TarrowInterrupt::_restore() {
  std::function<void()> hook;
  {
    ZBMutexLock lock(_mutex);
    hook = _restoreHook;
  }
  if (hook) hook();
}

void TarrowInterrupt::_watch(std::stop_token stop) {
  const sigset_t signals = watchedSignals();
  while (!stop.stop_requested()) {
    timespec wait{0, 100'000'000};
    if (sigtimedwait(&signals, nullptr, &wait) < 0) continue;
    if (_interrupted.exchange(true) || !_waiting.load()) {
      _restore();
      std::_Exit(130);
    }
    NSRunLoop::mainRunLoop()->wakeUp();
  }
}
