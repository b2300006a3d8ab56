#include "platform/pinboardkit/impl/ZBPinboardRateLimiter.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace {
constexpr double kNever = std::numeric_limits<double>::infinity();
}  // namespace

ZBPinboardRateLimiter::ZBPinboardRateLimiter(std::shared_ptr<ZBPinboardTimerQueue> timers)
    : _timers(std::move(timers)) {}

std::uint64_t ZBPinboardRateLimiter::newTicket() { return _nextTicket.fetch_add(1); }

void ZBPinboardRateLimiter::ask(std::uint64_t ticket, const std::string& requestClass, double generalInterval,
                                double classInterval, Given given) {
  {
    ZBMutexLock hold(_mutex);
    _line.push_back(Waiter{ticket, requestClass, requestClass != "feeds", std::max(0.0, generalInterval),
                           std::max(0.0, classInterval), std::move(given)});
  }
  _serve();
}

bool ZBPinboardRateLimiter::withdraw(std::uint64_t ticket) {
  Given dropped;  // let go outside the lock
  ZBMutexLock hold(_mutex);
  auto it = std::find_if(_line.begin(), _line.end(), [ticket](const Waiter& w) { return w.ticket == ticket; });
  if (it == _line.end()) return false;
  dropped = std::move(it->given);
  _line.erase(it);
  return true;
}

void ZBPinboardRateLimiter::_release(const Turn& turn) {
  if (turn.general && _generalPending == turn.ticket) _generalPending = 0;
  auto it = _pendingOf.find(turn.requestClass);
  if (it != _pendingOf.end() && it->second == turn.ticket) _pendingOf.erase(it);
}

void ZBPinboardRateLimiter::departed(const Turn& turn) {
  {
    ZBMutexLock hold(_mutex);
    _release(turn);
    const double now = _timers->now();
    if (turn.general) _nextGeneral = std::max(_nextGeneral, now + turn.generalInterval);
    auto& classNext = _nextOf.try_emplace(turn.requestClass, -kNever).first->second;
    classNext = std::max(classNext, now + turn.classInterval);
  }
  _serve();
}

void ZBPinboardRateLimiter::giveBack(const Turn& turn) {
  {
    ZBMutexLock hold(_mutex);
    _release(turn);
    if (turn.general && _nextGeneral == turn.generalAfter) _nextGeneral = turn.generalBefore;
    auto it = _nextOf.find(turn.requestClass);
    if (it != _nextOf.end() && it->second == turn.classAfter) it->second = turn.classBefore;
  }
  _serve();
}

double ZBPinboardRateLimiter::_readyTime(const Waiter& w) const {
  // Held until the turn given before has left (departed() serves again).
  if (_pendingOf.count(w.requestClass) || (w.general && _generalPending)) return kNever;
  auto it = _nextOf.find(w.requestClass);
  double ready = it == _nextOf.end() ? -kNever : it->second;
  if (w.general) ready = std::max(ready, _nextGeneral);
  return ready;
}

void ZBPinboardRateLimiter::_serve() {
  std::vector<std::pair<Given, Turn>> due;
  std::vector<Given> failed;
  NSErrorPtr wakeError;
  {
    ZBMutexLock hold(_mutex);
    const double now = _timers->now();
    double next = kNever;
    // In order of arrival; one held back only by its own class lets the
    // next one through.
    for (auto it = _line.begin(); it != _line.end();) {
      const double ready = _readyTime(*it);
      if (ready > now) {
        next = std::min(next, ready);
        ++it;
        continue;
      }
      Turn turn;
      turn.ticket = it->ticket;
      turn.requestClass = it->requestClass;
      turn.general = it->general;
      turn.generalInterval = it->generalInterval;
      turn.classInterval = it->classInterval;
      _pendingOf[it->requestClass] = it->ticket;
      if (it->general) _generalPending = it->ticket;
      auto& classNext = _nextOf.try_emplace(it->requestClass, -kNever).first->second;
      turn.classBefore = classNext;
      classNext = turn.classAfter = now + it->classInterval;
      if (it->general) {
        turn.generalBefore = _nextGeneral;
        _nextGeneral = turn.generalAfter = now + it->generalInterval;
      }
      due.emplace_back(std::move(it->given), std::move(turn));
      it = _line.erase(it);
    }
    // Later turns have moved the spacing on: the earliest still waiting may
    // be later than computed, which costs one early wake-up at most.
    if (std::isfinite(next) && (_wake == 0 || next < _wakeAt)) {
      if (_wake) _timers->cancel(_wake);
      const std::uint64_t wake = _timers->newIdentifier();
      auto fire = [weak = weak_from_this(), wake] {
        auto self = weak.lock();
        if (!self) return;
        {
          ZBMutexLock hold(self->_mutex);
          if (self->_wake == wake) self->_wake = 0;
        }
        self->_serve();
      };
      if (_timers->schedule(wake, next, std::move(fire), &wakeError)) {
        _wake = wake;
        _wakeAt = next;
      } else {
        // Nothing would wake the waiting ones: they fail rather than wait
        // for ever.
        _wake = 0;
        for (Waiter& w : _line) failed.push_back(std::move(w.given));
        _line.clear();
      }
    }
  }
  for (auto& [given, turn] : due) given(&turn, nullptr);
  for (auto& given : failed) given(nullptr, wakeError);
}
