#include "platform/pinboardkit/impl/ZBPinboardRateLimiter.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace {
constexpr double kNever = std::numeric_limits<double>::infinity();
}  // namespace

ZBPinboardRateLimiter::ZBPinboardRateLimiter(std::shared_ptr<ZBPinboardTimerQueue> timers,
                                             std::shared_ptr<ZBPinboardRateMemory> memory,
                                             std::function<double()> wallNow)
    : _timers(std::move(timers)), _memory(std::move(memory)), _wallNow(std::move(wallNow)) {}

std::vector<ZBPinboardRateMemory::Line> ZBPinboardRateLimiter::_lines(const Turn& turn) {
  std::vector<ZBPinboardRateMemory::Line> lines{{turn.requestClass, turn.classInterval}};
  if (turn.general) lines.push_back({"general", turn.generalInterval});
  return lines;
}

std::uint64_t ZBPinboardRateLimiter::newTicket() { return _nextTicket.fetch_add(1); }

void ZBPinboardRateLimiter::ask(std::uint64_t ticket, const std::string& requestClass, double generalInterval,
                                double classInterval, Given given, const std::string& user, Waiting waiting) {
  {
    ZBMutexLock hold(_mutex);
    Waiter waiter{ticket, requestClass, requestClass != "feeds", std::max(0.0, generalInterval),
                  std::max(0.0, classInterval), std::move(given)};
    waiter.user = user;
    waiter.waiting = std::move(waiting);
    _line.push_back(std::move(waiter));
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
  if (_memory && turn.claimed) _memory->record(turn.user, _lines(turn), _wallNow());
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
  if (_memory && turn.claimed) _memory->release(turn.user, _lines(turn), turn.claimedOver, turn.claimedAt);
  _serve();
}

double ZBPinboardRateLimiter::_readyTime(const Waiter& w) const {
  // Held until the turn given before has left (departed() serves again).
  if (_pendingOf.count(w.requestClass) || (w.general && _generalPending)) return kNever;
  auto it = _nextOf.find(w.requestClass);
  double ready = it == _nextOf.end() ? -kNever : it->second;
  if (w.general) ready = std::max(ready, _nextGeneral);
  return std::max(ready, w.memoryReady);
}

void ZBPinboardRateLimiter::_serve() {
  std::vector<std::pair<Given, Turn>> due;
  std::vector<Given> failed;
  std::vector<std::pair<Waiting, double>> notices;
  NSErrorPtr wakeError;
  {
    ZBMutexLock hold(_mutex);
    const double now = _timers->now();
    double next = kNever;
    auto wait = [&](Waiter& w, double ready) {
      next = std::min(next, ready);
      if (w.waiting && !(w.reported == ready)) {
        w.reported = ready;
        notices.emplace_back(w.waiting, ready);
      }
    };
    // In order of arrival; one held back only by its own class lets the
    // next one through.
    for (auto it = _line.begin(); it != _line.end();) {
      const double ready = _readyTime(*it);
      if (ready > now) {
        wait(*it, ready);
        ++it;
        continue;
      }
      Turn turn;
      turn.ticket = it->ticket;
      turn.requestClass = it->requestClass;
      turn.general = it->general;
      turn.generalInterval = it->generalInterval;
      turn.classInterval = it->classInterval;
      turn.user = it->user;
      if (_memory && !turn.user.empty()) {
        // Due here; the other processes of the data directory may have
        // used the lines since.
        const double offset = _wallNow() - now;
        double readyAt = 0;
        if (!_memory->claim(turn.user, _lines(turn), now + offset, &readyAt, &turn.claimedOver)) {
          it->memoryReady = readyAt - offset;
          wait(*it, it->memoryReady);
          ++it;
          continue;
        }
        turn.claimed = true;
        turn.claimedAt = now + offset;
      }
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
  for (auto& [waiting, readyAt] : notices) waiting(readyAt);
  for (auto& [given, turn] : due) given(&turn, nullptr);
  for (auto& given : failed) given(nullptr, wakeError);
}
