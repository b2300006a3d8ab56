#include "platform/foundation/NSNotificationCenter.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

using Entry = NSNotificationObservation::Entry;

struct NSNotificationCenter::Registry {
  std::mutex mutex;
  std::uint64_t nextSequence = 0;                                             // guarded by mutex
  std::unordered_map<std::string, std::vector<std::shared_ptr<Entry>>> byName;  // guarded by mutex
  std::vector<std::shared_ptr<Entry>> anyName;                                // guarded by mutex

  void remove(const Entry& entry);
};

struct NSNotificationObservation::Entry {
  std::uint64_t sequence = 0;
  std::string name;
  bool anyObject = true;
  std::weak_ptr<NSObject> object;  // compared by owner, so a dead object never matches a new one
  NSNotificationBlock block;
  std::weak_ptr<NSNotificationCenter::Registry> registry;

  std::mutex mutex;
  std::condition_variable idle;
  bool valid = true;                      // guarded by mutex
  std::vector<std::thread::id> inFlight;  // threads running block; guarded by mutex

  bool matches(const std::shared_ptr<NSObject>& poster) const {
    if (anyObject) return true;
    return poster && !object.owner_before(poster) && !poster.owner_before(object);
  }

  void deliver(const NSNotification& notification) {
    {
      std::lock_guard lock(mutex);
      if (!valid) return;
      inFlight.push_back(std::this_thread::get_id());
    }
    struct Leave {
      Entry& entry;
      ~Leave() {
        std::lock_guard lock(entry.mutex);
        auto it = std::find(entry.inFlight.begin(), entry.inFlight.end(), std::this_thread::get_id());
        if (it != entry.inFlight.end()) entry.inFlight.erase(it);
        entry.idle.notify_all();
      }
    } leave{*this};
    block(notification);
  }

  // Deliveries on other threads are waited for, unless the caller is itself
  // inside this observer's block.
  void invalidate() {
    if (auto r = registry.lock()) r->remove(*this);
    std::unique_lock lock(mutex);
    valid = false;
    const auto self = std::this_thread::get_id();
    // From inside its own callback the caller cannot wait: another thread's
    // call might be waiting on this one (two calls both removing themselves).
    if (std::find(inFlight.begin(), inFlight.end(), self) != inFlight.end()) return;
    idle.wait(lock, [&] { return inFlight.empty(); });
  }
};

void NSNotificationCenter::Registry::remove(const Entry& entry) {
  std::lock_guard lock(mutex);
  auto erase = [&](std::vector<std::shared_ptr<Entry>>& list) {
    list.erase(std::remove_if(list.begin(), list.end(), [&](const auto& e) { return e.get() == &entry; }),
               list.end());
  };
  if (entry.name.empty()) {
    erase(anyName);
    return;
  }
  auto it = byName.find(entry.name);
  if (it == byName.end()) return;
  erase(it->second);
  if (it->second.empty()) byName.erase(it);
}

NSNotificationObservation::NSNotificationObservation(NSNotificationObservation&& other) noexcept
    : _entry(std::move(other._entry)) {}

NSNotificationObservation& NSNotificationObservation::operator=(NSNotificationObservation&& other) noexcept {
  if (this != &other) {
    invalidate();
    _entry = std::move(other._entry);
  }
  return *this;
}

NSNotificationObservation::~NSNotificationObservation() { invalidate(); }

void NSNotificationObservation::invalidate() {
  if (auto entry = std::move(_entry)) entry->invalidate();
}

NSNotificationCenter& NSNotificationCenter::defaultCenter() {
  // Leaked on purpose: observers may be removed during static destruction.
  static NSNotificationCenter* center = new NSNotificationCenter();
  return *center;
}

NSNotificationCenter::NSNotificationCenter() : _registry(std::make_shared<Registry>()) {}

NSNotificationCenter::~NSNotificationCenter() = default;

NSNotificationObservation NSNotificationCenter::addObserver(std::string name, const std::shared_ptr<NSObject>& object,
                                                            NSNotificationBlock block) {
  auto entry = std::make_shared<Entry>();
  entry->name = std::move(name);
  entry->anyObject = !object;
  entry->object = object;
  entry->block = std::move(block);
  entry->registry = _registry;
  std::lock_guard lock(_registry->mutex);
  entry->sequence = _registry->nextSequence++;
  if (entry->name.empty()) {
    _registry->anyName.push_back(entry);
  } else {
    _registry->byName[entry->name].push_back(entry);
  }
  return NSNotificationObservation(std::move(entry));
}

void NSNotificationCenter::post(const NSNotification& notification) {
  std::vector<std::shared_ptr<Entry>> matching;
  {
    std::lock_guard lock(_registry->mutex);
    auto it = _registry->byName.find(notification.name);
    if (it != _registry->byName.end()) {
      for (const auto& e : it->second) {
        if (e->matches(notification.object)) matching.push_back(e);
      }
    }
    const std::size_t named = matching.size();
    for (const auto& e : _registry->anyName) {
      if (e->matches(notification.object)) matching.push_back(e);
    }
    // Both lists are in registration order; merge them into one.
    std::inplace_merge(matching.begin(), matching.begin() + static_cast<std::ptrdiff_t>(named), matching.end(),
                       [](const auto& a, const auto& b) { return a->sequence < b->sequence; });
  }
  for (const auto& entry : matching) entry->deliver(notification);
}

void NSNotificationCenter::post(std::string name, std::shared_ptr<NSObject> object, Dictionary userInfo) {
  post(NSNotification{std::move(name), std::move(object), std::move(userInfo)});
}
