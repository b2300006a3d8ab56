#pragma once
// The client's threads: a timer queue for its waits (rate-limit turns,
// back-offs), so a waiting request holds no thread, and a small shared set of
// transfer threads on which the exchanges themselves block.
//
// Both start their threads when work arrives and let them leave after a few
// idle seconds. A thread the system refuses to start (std::system_error) is
// reported to the caller as an error, never thrown. Thread-safe.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <system_error>

#include "platform/foundation/NSError.h"
#include "platform/foundation/ZBClock.h"

// NSPOSIXErrorDomain, the system's code: no thread could be started.
NSErrorPtr ZBPinboardThreadError(const std::system_error& failure);

// Runs short callbacks when a clock reaches their time. One thread serves the
// queue. With the machine's monotonic clock it sleeps until the next timer is
// due; an injected clock (a test's ZBManualClock) is looked at every few
// milliseconds, since nothing says when it moves. Callbacks run on that
// thread, one at a time, and must not block; an exception escaping one is
// dropped there. Lifetime: held by shared_ptr; timers pending when the last
// owner lets go are dropped unrun.
class ZBPinboardTimerQueue {
public:
  // clock: nullptr for the machine's monotonic clock.
  explicit ZBPinboardTimerQueue(std::shared_ptr<ZBClock> clock = nullptr);
  ~ZBPinboardTimerQueue();
  ZBPinboardTimerQueue(const ZBPinboardTimerQueue&) = delete;
  ZBPinboardTimerQueue& operator=(const ZBPinboardTimerQueue&) = delete;

  // Seconds on the queue's clock.
  double now() const;
  // A fresh timer identifier (never 0), so that a caller can arrange to
  // cancel a timer before scheduling it.
  std::uint64_t newIdentifier();
  // Runs fire once now() reaches when (soon, when it already has). False with
  // ZBPinboardThreadError when the queue's thread could not be started; fire
  // is then dropped unrun.
  [[nodiscard]] bool schedule(std::uint64_t identifier, double when, std::function<void()> fire,
                              NSErrorPtr* error = nullptr);
  // True when the timer was pending: it is removed and never fires. False
  // when it has fired (or is firing), or was never scheduled.
  bool cancel(std::uint64_t identifier);

private:
  struct State;
  std::shared_ptr<State> _state;
};

// Runs blocking jobs (HTTP exchanges) on at most a fixed number of threads
// shared by every client of the process; jobs beyond that wait their turn in
// order. An exception escaping a job is dropped at the thread.
class ZBPinboardTransferThreads {
public:
  static constexpr std::size_t kMaximumThreads = 8;

  static ZBPinboardTransferThreads& shared();
  // Queues job. False with ZBPinboardThreadError when no thread serves the
  // queue and none could be started; job is then dropped unrun.
  [[nodiscard]] bool submit(std::function<void()> job, NSErrorPtr* error = nullptr);
  // Threads alive now (tests and diagnostics).
  std::size_t threadCount() const;

private:
  ZBPinboardTransferThreads() = default;
  struct State;
  State& _state() const;
};
