#include "platform/foundation/ZBClock.h"

#include <chrono>
#include <map>
#include <mutex>
#include <vector>

namespace {

class SystemClock final : public ZBClock {
public:
  NSDate now() const override {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return NSDate::dateWithTimeIntervalSince1970(std::chrono::duration<double>(sinceEpoch).count());
  }
};

// A registered listener. Its call lock is held while it runs, so that
// removeChangeListener can wait for a call in progress on another thread;
// recursive so that a listener may remove itself or move time again.
struct Listener {
  std::function<void()> callback;
  std::recursive_mutex callLock;
  bool removed = false;
};

struct ClockState {
  std::mutex lock;
  std::shared_ptr<ZBClock> current;
  std::map<int, std::shared_ptr<Listener>> listeners;
  int nextListenerId = 1;
};

ClockState& state() {
  static ClockState* s = [] {
    auto* created = new ClockState;  // never destroyed: clocks may be read during exit
    created->current = std::make_shared<SystemClock>();
    return created;
  }();
  return *s;
}

void notifyListeners() {
  std::vector<std::shared_ptr<Listener>> listeners;
  {
    std::lock_guard guard(state().lock);
    listeners.reserve(state().listeners.size());
    for (const auto& [id, listener] : state().listeners) listeners.push_back(listener);
  }
  for (const auto& listener : listeners) {
    std::lock_guard callGuard(listener->callLock);
    if (!listener->removed) listener->callback();
  }
}

}  // namespace

std::shared_ptr<ZBClock> ZBClock::current() {
  std::lock_guard guard(state().lock);
  return state().current;
}

void ZBClock::setCurrent(std::shared_ptr<ZBClock> clock) {
  if (!clock) clock = std::make_shared<SystemClock>();
  {
    std::lock_guard guard(state().lock);
    state().current = std::move(clock);
  }
  notifyListeners();
}

int ZBClock::addChangeListener(std::function<void()> listener) {
  auto entry = std::make_shared<Listener>();
  entry->callback = std::move(listener);
  std::lock_guard guard(state().lock);
  const int id = state().nextListenerId++;
  state().listeners.emplace(id, std::move(entry));
  return id;
}

void ZBClock::removeChangeListener(int id) {
  std::shared_ptr<Listener> entry;
  {
    std::lock_guard guard(state().lock);
    auto it = state().listeners.find(id);
    if (it == state().listeners.end()) return;
    entry = std::move(it->second);
    state().listeners.erase(it);
  }
  // Wait for a call in progress elsewhere; none starts after this.
  std::lock_guard callGuard(entry->callLock);
  entry->removed = true;
}

NSDate ZBManualClock::now() const { return NSDate(_now.load()); }

void ZBManualClock::setNow(NSDate date) {
  _now.store(date.timeIntervalSinceReferenceDate());
  if (ZBClock::current().get() == this) notifyListeners();
}

void ZBManualClock::advance(double seconds) {
  _now.fetch_add(seconds);
  if (ZBClock::current().get() == this) notifyListeners();
}
