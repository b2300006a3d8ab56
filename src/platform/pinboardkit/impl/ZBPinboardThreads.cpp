#include "platform/pinboardkit/impl/ZBPinboardThreads.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <thread>
#include <unordered_map>

#include "platform/foundation/ZBLocalizedString.h"
#include "platform/foundation/ZBMutex.h"

namespace {

// How long an idle thread stays for the next piece of work.
constexpr auto kLinger = std::chrono::seconds(3);
// How often an injected clock is read while a timer waits on it.
constexpr double kInjectedClockPoll = 0.005;

}  // namespace

NSErrorPtr ZBPinboardThreadError(const std::system_error& failure) {
  return NSError::create(NSPOSIXErrorDomain, failure.code().value(),
                         Dictionary{{NSLocalizedDescriptionKey, ZBLocalizedString("No thread could be started for the request.")},
                                    {NSDebugDescriptionErrorKey, std::string(failure.what())}});
}

// ---- Timers ----

struct ZBPinboardTimerQueue::State {
  explicit State(std::shared_ptr<ZBClock> c) : clock(std::move(c)) {}

  double now() const {
    if (clock) return clock->now().timeIntervalSinceReferenceDate();
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
  }

  static void serve(const std::shared_ptr<State>& s);

  const std::shared_ptr<ZBClock> clock;
  std::atomic<std::uint64_t> nextIdentifier{1};
  ZBMutex mutex;
  std::condition_variable wake;
  // Ordered by time, then by identifier (the order they were asked for).
  std::map<std::pair<double, std::uint64_t>, std::function<void()>> timers ZB_GUARDED_BY(mutex);
  std::unordered_map<std::uint64_t, double> whenOf ZB_GUARDED_BY(mutex);
  bool serving ZB_GUARDED_BY(mutex) = false;
  bool closed ZB_GUARDED_BY(mutex) = false;
};

void ZBPinboardTimerQueue::State::serve(const std::shared_ptr<State>& s) {
  ZBMutexLock lock(s->mutex);
  for (;;) {
    if (s->closed) break;
    if (s->timers.empty()) {
      if (lock.waitFor(s->wake, kLinger) == std::cv_status::timeout && s->timers.empty()) break;
      continue;
    }
    auto first = s->timers.begin();
    const double left = first->first.first - s->now();
    if (left <= 0) {
      std::function<void()> fire = std::move(first->second);
      s->whenOf.erase(first->first.second);
      s->timers.erase(first);
      lock.unlock();
      try {
        fire();
      } catch (...) {
        // Nothing to tell: the callbacks report their own failures.
      }
      fire = nullptr;  // what it holds is let go outside the lock
      lock.lock();
      continue;
    }
    const double nap = s->clock ? std::min(left, kInjectedClockPoll) : left;
    lock.waitFor(s->wake, std::chrono::duration<double>(nap));
  }
  s->serving = false;
}

ZBPinboardTimerQueue::ZBPinboardTimerQueue(std::shared_ptr<ZBClock> clock)
    : _state(std::make_shared<State>(std::move(clock))) {}

ZBPinboardTimerQueue::~ZBPinboardTimerQueue() {
  decltype(_state->timers) dropped;
  {
    ZBMutexLock lock(_state->mutex);
    _state->closed = true;
    dropped.swap(_state->timers);
    _state->whenOf.clear();
  }
  _state->wake.notify_all();
}

double ZBPinboardTimerQueue::now() const { return _state->now(); }

std::uint64_t ZBPinboardTimerQueue::newIdentifier() { return _state->nextIdentifier.fetch_add(1); }

bool ZBPinboardTimerQueue::schedule(std::uint64_t identifier, double when, std::function<void()> fire,
                                    NSErrorPtr* error) {
  ZBMutexLock lock(_state->mutex);
  if (!_state->serving) {
    try {
      std::thread([s = _state] { State::serve(s); }).detach();
    } catch (const std::system_error& failure) {
      lock.unlock();
      return ZBSetError(error, ZBPinboardThreadError(failure));
    }
    _state->serving = true;
  }
  const bool first = _state->timers.empty() || when < _state->timers.begin()->first.first;
  _state->timers.emplace(std::make_pair(when, identifier), std::move(fire));
  _state->whenOf[identifier] = when;
  if (first) _state->wake.notify_one();
  return true;
}

bool ZBPinboardTimerQueue::cancel(std::uint64_t identifier) {
  std::function<void()> dropped;
  ZBMutexLock lock(_state->mutex);
  auto it = _state->whenOf.find(identifier);
  if (it == _state->whenOf.end()) return false;
  auto timer = _state->timers.find(std::make_pair(it->second, identifier));
  dropped = std::move(timer->second);
  _state->timers.erase(timer);
  _state->whenOf.erase(it);
  lock.unlock();
  return true;
}

// ---- Transfer threads ----

struct ZBPinboardTransferThreads::State {
  void serve();

  mutable ZBMutex mutex;
  std::condition_variable work;
  std::deque<std::function<void()>> jobs ZB_GUARDED_BY(mutex);
  std::size_t threads ZB_GUARDED_BY(mutex) = 0;
  std::size_t idle ZB_GUARDED_BY(mutex) = 0;
};

void ZBPinboardTransferThreads::State::serve() {
  ZBMutexLock lock(mutex);
  for (;;) {
    while (jobs.empty()) {
      ++idle;
      const bool timedOut = lock.waitFor(work, kLinger) == std::cv_status::timeout;
      --idle;
      if (timedOut && jobs.empty()) {
        --threads;
        return;
      }
    }
    std::function<void()> job = std::move(jobs.front());
    jobs.pop_front();
    lock.unlock();
    try {
      job();
    } catch (...) {
      // Jobs report their own failures.
    }
    job = nullptr;
    lock.lock();
  }
}

ZBPinboardTransferThreads& ZBPinboardTransferThreads::shared() {
  static ZBPinboardTransferThreads threads;
  return threads;
}

ZBPinboardTransferThreads::State& ZBPinboardTransferThreads::_state() const {
  // Never destroyed: its threads may still be inside a transfer at exit.
  static State* state = new State;
  return *state;
}

bool ZBPinboardTransferThreads::submit(std::function<void()> job, NSErrorPtr* error) {
  State& s = _state();
  ZBMutexLock lock(s.mutex);
  s.jobs.push_back(std::move(job));
  if (s.idle >= s.jobs.size()) {
    s.work.notify_one();
    return true;
  }
  if (s.threads >= kMaximumThreads) return true;  // it waits for one of them
  try {
    std::thread([&s] { s.serve(); }).detach();
    ++s.threads;
  } catch (const std::system_error& failure) {
    if (s.threads > 0) return true;  // the running ones will take it
    std::function<void()> dropped = std::move(s.jobs.back());
    s.jobs.pop_back();
    lock.unlock();
    return ZBSetError(error, ZBPinboardThreadError(failure));
  }
  return true;
}

std::size_t ZBPinboardTransferThreads::threadCount() const {
  State& s = _state();
  ZBMutexLock lock(s.mutex);
  return s.threads;
}
