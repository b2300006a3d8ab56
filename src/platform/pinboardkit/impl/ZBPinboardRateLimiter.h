#pragma once
// Spaces the client's requests as the service asks: a general interval
// between any two API calls, longer ones of their own for some methods
// (posts/all, posts/recent), and a separate one for the feeds host.
//
// Requests wait in a line without holding a thread: each names its class and
// is given its turn, through a callback, once both the general spacing and its
// class's allow it. The line is served in order of arrival, but a request
// held back by its own class does not hold back those behind it: a posts/all
// waiting out its five minutes lets other calls pass, one per general
// interval. A turn is taken only when it is given, so a request withdrawn
// while waiting takes nothing from the next of its class, and a turn given
// but not used (nothing was sent) can be given back.
//
// With a ZBPinboardRateMemory, the spacing is kept together with every other
// process of the data directory: a turn due here is taken only once the
// memory agrees (and records it), else the request waits until the memory's
// time.
//
// Time is the timer queue's clock, so a test moves time instead of waiting.
// Lifetime: held by shared_ptr (a pending wake-up holds it weakly). Turns are
// given on the timer queue's thread, or on the asking thread when due at
// once. Thread-safe.

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "platform/foundation/NSError.h"
#include "platform/foundation/ZBMutex.h"
#include "platform/pinboardkit/impl/ZBPinboardRateMemory.h"
#include "platform/pinboardkit/impl/ZBPinboardThreads.h"

class ZBPinboardRateLimiter : public std::enable_shared_from_this<ZBPinboardRateLimiter> {
public:
  // What a turn took, for giveBack().
  struct Turn {
    std::uint64_t ticket = 0;
    std::string requestClass;
    bool general = false;
    double generalInterval = 0, classInterval = 0;
    double generalBefore = 0, classBefore = 0;  // the next free times it replaced
    double generalAfter = 0, classAfter = 0;    // the next free times it set
    std::string user;                            // whose lines the memory keeps
    bool claimed = false;                        // taken in the memory too
    double claimedAt = 0;                        // memory time of the claim
    std::map<std::string, double> claimedOver;   // what the claim replaced there
  };
  // The turn, or (turn null) the timer queue's error when no wake-up could be
  // scheduled for the requests still waiting, which then leave the line.
  using Given = std::function<void(const Turn* turn, const NSErrorPtr& error)>;
  // While a request waits: when its turn is expected, on the timer queue's
  // clock (infinity: not known yet, behind a turn not yet gone). Called
  // outside the limiter's lock whenever that time changes.
  using Waiting = std::function<void(double readyAt)>;

  // memory: shared with other processes, or nullptr; wallNow: the clock the
  // memory's times are on (seconds since the reference date).
  explicit ZBPinboardRateLimiter(std::shared_ptr<ZBPinboardTimerQueue> timers,
                                 std::shared_ptr<ZBPinboardRateMemory> memory = nullptr,
                                 std::function<double()> wallNow = {});

  // A fresh ticket (never 0) for ask() and withdraw().
  std::uint64_t newTicket();
  // Puts ticket in line for requestClass ("posts/all", "feeds", …). given runs
  // once, outside the limiter's lock, when its turn has come (or it failed).
  // generalInterval applies to every class but "feeds"; classInterval to
  // this class alone (0: none).
  // user names the lines in the shared memory (empty: not shared).
  void ask(std::uint64_t ticket, const std::string& requestClass, double generalInterval, double classInterval,
           Given given, const std::string& user = {}, Waiting waiting = nullptr);
  // Takes ticket out of the line: true when it was waiting (its callback
  // never runs), false when its turn was given already or it never asked.
  bool withdraw(std::uint64_t ticket);
  // Every turn given ends in exactly one of these two. Until it does, no
  // other turn of its class (or of the general line) is given: a request
  // kept from leaving (every transfer thread busy) must not let the next one
  // catch up with it.
  // The request leaves now: the spacing counts from here.
  void departed(const Turn& turn);
  // The turn was not used: the next free times go back to what they were.
  void giveBack(const Turn& turn);

private:
  struct Waiter {
    std::uint64_t ticket;
    std::string requestClass;
    bool general;
    double generalInterval, classInterval;
    Given given;
    std::string user;
    Waiting waiting;
    double memoryReady = -std::numeric_limits<double>::infinity();  // what the memory said, last asked
    double reported = std::numeric_limits<double>::quiet_NaN();    // the last readyAt told to waiting
  };
  static std::vector<ZBPinboardRateMemory::Line> _lines(const Turn& turn);
  double _readyTime(const Waiter& w) const ZB_REQUIRES(_mutex);
  // Gives every turn that is due and arranges a wake-up for the next one.
  void _serve();

  const std::shared_ptr<ZBPinboardTimerQueue> _timers;
  const std::shared_ptr<ZBPinboardRateMemory> _memory;
  const std::function<double()> _wallNow;
  std::atomic<std::uint64_t> _nextTicket{1};
  ZBMutex _mutex;
  std::list<Waiter> _line ZB_GUARDED_BY(_mutex);
  double _nextGeneral ZB_GUARDED_BY(_mutex) = -std::numeric_limits<double>::infinity();
  std::map<std::string, double> _nextOf ZB_GUARDED_BY(_mutex);
  // The tickets of turns given and not yet departed or given back (0: none).
  std::uint64_t _generalPending ZB_GUARDED_BY(_mutex) = 0;
  std::map<std::string, std::uint64_t> _pendingOf ZB_GUARDED_BY(_mutex);
  // Ends turn's hold on the line; false when it held nothing.
  void _release(const Turn& turn) ZB_REQUIRES(_mutex);
  std::uint64_t _wake ZB_GUARDED_BY(_mutex) = 0;  // the pending wake-up timer, 0: none
  double _wakeAt ZB_GUARDED_BY(_mutex) = 0;
};
