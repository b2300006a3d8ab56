#pragma once
// NSNotificationCenter: named broadcasts within the process. Observers are
// blocks registered for a name (or every name) and an object (or any object);
// post() calls the matching blocks synchronously on the posting thread, in the
// order they were registered.
//
// Thread-safety: every method is thread-safe. Observers may be added and
// removed from inside a block, including the block being run. The center holds
// the filter object weakly; an observer filtering on an object that has since
// been destroyed matches nothing.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/Value.h"

struct NSNotification {
  std::string name;
  std::shared_ptr<NSObject> object;  // the poster, or null
  Dictionary userInfo;
};

using NSNotificationBlock = std::function<void(const NSNotification&)>;

// Removal token: the observer is removed when the token is destroyed or
// invalidate() is called. After that returns the block is never called again,
// and (unless invalidate() was called from inside the block itself) it is not
// running on any other thread either, so whatever the block refers to may be
// destroyed. Hence: do not remove an observer while holding a lock that its
// block may take. Move-only; one token is not for concurrent use.
class NSNotificationObservation {
public:
  NSNotificationObservation() = default;
  NSNotificationObservation(NSNotificationObservation&&) noexcept;
  NSNotificationObservation& operator=(NSNotificationObservation&&) noexcept;
  NSNotificationObservation(const NSNotificationObservation&) = delete;
  NSNotificationObservation& operator=(const NSNotificationObservation&) = delete;
  ~NSNotificationObservation();
  void invalidate();
  bool isValid() const { return static_cast<bool>(_entry); }

  struct Entry;  // private to the implementation
  explicit NSNotificationObservation(std::shared_ptr<Entry> entry) : _entry(std::move(entry)) {}

private:
  std::shared_ptr<Entry> _entry;
};

class NSNotificationCenter {
public:
  // The process-wide center; never destroyed.
  static NSNotificationCenter& defaultCenter();

  NSNotificationCenter();
  ~NSNotificationCenter();
  NSNotificationCenter(const NSNotificationCenter&) = delete;
  NSNotificationCenter& operator=(const NSNotificationCenter&) = delete;

  // Calls block for each notification named name (every name when empty)
  // posted by object (any poster when null). A token outliving its center is
  // harmless.
  [[nodiscard]] NSNotificationObservation addObserver(std::string name, const std::shared_ptr<NSObject>& object,
                                                      NSNotificationBlock block);
  // Same as token.invalidate().
  void removeObserver(NSNotificationObservation& token) { token.invalidate(); }

  void post(const NSNotification& notification);
  void post(std::string name, std::shared_ptr<NSObject> object = nullptr, Dictionary userInfo = {});

  struct Registry;  // private to the implementation

private:
  std::shared_ptr<Registry> _registry;
};
