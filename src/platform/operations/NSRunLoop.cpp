#include "platform/operations/NSRunLoop.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>

#include "platform/foundation/ZBClock.h"
#include "platform/operations/NSTimer.h"

namespace {
// Longest single wait; a manual clock's deadline may be far in real terms, and
// the clock's change listener wakes the loop when time moves anyway.
constexpr double kMaximumWait = 3600;
constexpr double kConditionPoll = 0.001;

NSDate now() { return ZBClock::current()->now(); }
}  // namespace

// Marks the calling thread as the one running the loop for the scope's life.
class NSRunLoop::RunScope {
public:
  explicit RunScope(NSRunLoop& loop) : _loop(loop) {
    auto self = std::this_thread::get_id();
    std::thread::id nobody;
    if (_loop._runningThread.load() != self &&
        !_loop._runningThread.compare_exchange_strong(nobody, self)) {
      throw std::logic_error("NSRunLoop: the main run loop is already running on another thread");
    }
    ++_loop._depth;
  }
  ~RunScope() {
    if (--_loop._depth == 0) {
      _loop._lastThread.store(std::this_thread::get_id());
      _loop._runningThread.store(std::thread::id());
    }
  }
  RunScope(const RunScope&) = delete;
  RunScope& operator=(const RunScope&) = delete;

private:
  NSRunLoop& _loop;
};

NSRunLoop::NSRunLoop() = default;

const std::shared_ptr<NSRunLoop>& NSRunLoop::mainRunLoop() {
  // Never destroyed: background threads may post to it while the process exits.
  static const std::shared_ptr<NSRunLoop>* loop = [] {
    auto* created = new std::shared_ptr<NSRunLoop>(std::make_shared<NSRunLoop>());
    NSRunLoop* raw = created->get();
    ZBClock::addChangeListener([raw] { raw->wakeUp(); });
    return created;
  }();
  return *loop;
}

bool NSRunLoop::isMainThread() {
  const auto& loop = mainRunLoop();
  auto self = std::this_thread::get_id();
  auto running = loop->_runningThread.load();
  if (running != std::thread::id()) return running == self;
  auto last = loop->_lastThread.load();
  if (last != std::thread::id()) return last == self;
  return ::gettid() == ::getpid();
}

void NSRunLoop::performBlock(std::function<void()> block) {
  if (!block) return;
  ZBMutexLock lock(_mutex);
  _blocks.push_back(std::move(block));
  _wake.notify_one();
}

void NSRunLoop::wakeUp() {
  ZBMutexLock lock(_mutex);
  _signalled = true;
  _wake.notify_one();
}

void NSRunLoop::stop() {
  _stopRequested.store(true);
  wakeUp();
}

void NSRunLoop::addTimer(const std::shared_ptr<NSTimer>& timer) {
  if (!timer) return;
  {
    ZBMutexLock timerLock(timer->_mutex);
    if (!timer->_valid || timer->_scheduled) return;
    timer->_scheduled = true;
  }
  ZBMutexLock lock(_mutex);
  _timers.push_back(timer);
  _signalled = true;
  _wake.notify_one();
}

void NSRunLoop::_timerChanged() { wakeUp(); }

std::uint64_t NSRunLoop::addTurnObserver(std::function<void()> observer) {
  ZBMutexLock lock(_mutex);
  std::uint64_t id = _nextObserverID++;
  _observers.push_back(std::make_shared<TurnObserver>(TurnObserver{id, std::move(observer)}));
  return id;
}

void NSRunLoop::removeTurnObserver(std::uint64_t observerID) {
  ZBMutexLock lock(_mutex);
  std::erase_if(_observers, [&](const auto& o) { return o->id == observerID; });
  if (_runningThread.load() == std::this_thread::get_id()) return;
  lock.wait(_observerDone, [&] {
    _mutex.assertHeld();
    return std::find(_callingObservers.begin(), _callingObservers.end(), observerID) == _callingObservers.end();
  });
}

void NSRunLoop::_notifyTurnObservers() {
  std::vector<std::shared_ptr<TurnObserver>> snapshot;
  {
    ZBMutexLock lock(_mutex);
    snapshot = _observers;
  }
  for (const auto& observer : snapshot) {
    {
      ZBMutexLock lock(_mutex);
      // Skip observers removed by an earlier observer of this turn.
      if (std::none_of(_observers.begin(), _observers.end(), [&](const auto& o) { return o == observer; })) continue;
      _callingObservers.push_back(observer->id);
    }
    observer->callback();
    {
      ZBMutexLock lock(_mutex);
      _callingObservers.pop_back();  // nested turns push and pop above the outer ones
    }
    _observerDone.notify_all();
  }
}

bool NSRunLoop::_fireTimers() {
  std::vector<std::shared_ptr<NSTimer>> timers;
  {
    ZBMutexLock lock(_mutex);
    if (_timers.empty()) return false;
    timers = _timers;
  }
  NSDate current = now();
  std::vector<std::pair<NSDate, std::shared_ptr<NSTimer>>> due;
  for (auto& timer : timers) {
    NSDate fireDate = timer->_nextFireDate();
    if (fireDate <= current) due.emplace_back(fireDate, std::move(timer));
  }
  std::stable_sort(due.begin(), due.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  bool fired = false;
  for (auto& [fireDate, timer] : due) fired |= timer->_fireIfDue(current);
  {
    ZBMutexLock lock(_mutex);
    std::erase_if(_timers, [](const auto& t) { return !t->isValid(); });
  }
  return fired;
}

bool NSRunLoop::_turn(NSDate limitDate, double realWaitCap) {
  bool did = _fireTimers();
  std::size_t count;
  {
    ZBMutexLock lock(_mutex);
    count = _blocks.size();
  }
  // Blocks are taken one at a time from the shared queue so that a nested run
  // started by one of them goes on with the rest.
  for (std::size_t i = 0; i < count; ++i) {
    std::function<void()> block;
    {
      ZBMutexLock lock(_mutex);
      if (_blocks.empty()) break;
      block = std::move(_blocks.front());
      _blocks.pop_front();
    }
    block();
    did = true;
  }
  if (did) {
    _notifyTurnObservers();
    return true;
  }

  ZBMutexLock lock(_mutex);
  if (!_blocks.empty() || _stopRequested.load()) return false;
  if (_signalled) {
    _signalled = false;
    return false;
  }
  NSDate current = now();
  double wait = std::min(realWaitCap, limitDate.timeIntervalSinceDate(current));
  for (const auto& timer : _timers) wait = std::min(wait, timer->_nextFireDate().timeIntervalSinceDate(current));
  wait = std::min(wait, kMaximumWait);
  if (!(wait > 0)) return false;
  lock.waitFor(_wake, std::chrono::duration<double>(wait), [&] {
    _mutex.assertHeld();
    return _signalled || !_blocks.empty();
  });
  _signalled = false;
  return false;
}

void NSRunLoop::run() {
  RunScope scope(*this);
  for (;;) {
    _turn(NSDate(std::numeric_limits<double>::infinity()), kMaximumWait);
    if (_stopRequested.exchange(false)) return;
  }
}

void NSRunLoop::runUntilDate(NSDate limitDate) {
  RunScope scope(*this);
  while (now() < limitDate) {
    _turn(limitDate, kMaximumWait);
    if (_stopRequested.exchange(false)) return;
  }
}

bool NSRunLoop::runUntil(const std::function<bool()>& condition, double timeoutSeconds) {
  RunScope scope(*this);
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  for (;;) {
    if (condition()) return true;
    double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    if (elapsed >= timeoutSeconds) return false;
    _turn(NSDate(std::numeric_limits<double>::infinity()), std::min(kConditionPoll, timeoutSeconds - elapsed));
    if (_stopRequested.exchange(false)) return condition();
  }
}

bool NSRunLoop::runMode(NSDate limitDate) {
  RunScope scope(*this);
  if (_turn(limitDate, kMaximumWait)) return true;
  return _turn(NSDate(-std::numeric_limits<double>::infinity()), 0);
}
