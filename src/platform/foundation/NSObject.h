#pragma once
// NSObject: the base of every object with identity. Key-value coding
// (valueForKey / setValueForKey / valueForKeyPath) and key-value observation
// with chained key paths ("refreshOperation.status" follows a replaced
// operation), dependent keys, and New/Old/Initial/Prior options.
//
// Objects are held by std::shared_ptr. Objects along an observed key path are
// held weakly: observing never keeps them alive. The root of an observation
// may be an object not (yet) owned by a shared_ptr (one observing itself from
// its constructor); such an object must end its observations before it dies,
// typically by owning the tokens.
// Thread-safety: registering and removing observers is thread-safe, also from
// inside a callback. Change notifications run synchronously on the thread that
// made the change, with no lock of ours held, so callbacks may change values
// and add or remove observers.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/Value.h"

enum class NSKeyValueObservingOptions : unsigned {
  None = 0,
  New = 1 << 0,
  Old = 1 << 1,
  Initial = 1 << 2,  // the callback runs once at registration, before addObserver returns
  Prior = 1 << 3,    // an extra callback before each change (isPrior set)
};
constexpr NSKeyValueObservingOptions operator|(NSKeyValueObservingOptions a, NSKeyValueObservingOptions b) {
  return static_cast<NSKeyValueObservingOptions>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}
constexpr bool operator&(NSKeyValueObservingOptions a, NSKeyValueObservingOptions b) {
  return (static_cast<unsigned>(a) & static_cast<unsigned>(b)) != 0;
}

// What one notification carries. newValue/oldValue are filled only when the
// matching option was asked for; a missing object along the path reads absent.
struct NSKeyValueChange {
  Value newValue;
  Value oldValue;
  bool isPrior = false;
};

class NSObject;
using NSKeyValueObserver =
    std::function<void(const std::string& keyPath, NSObject& object, const NSKeyValueChange& change)>;

// Removal token: the observation ends when the token is destroyed or
// invalidate() is called, whichever comes first. After that returns the
// callback is never called again, and (unless invalidate() was called from
// inside the callback itself) it is not running on any other thread either, so
// whatever the callback refers to may be destroyed. Hence: do not end an
// observation while holding a lock its callback may take. Move-only; one
// token is not for concurrent use.
class NSKeyValueObservation {
public:
  NSKeyValueObservation() = default;
  NSKeyValueObservation(NSKeyValueObservation&&) noexcept;
  NSKeyValueObservation& operator=(NSKeyValueObservation&&) noexcept;
  NSKeyValueObservation(const NSKeyValueObservation&) = delete;
  NSKeyValueObservation& operator=(const NSKeyValueObservation&) = delete;
  ~NSKeyValueObservation();
  void invalidate();
  bool isValid() const { return static_cast<bool>(_state); }

  struct State;  // private to the implementation
  explicit NSKeyValueObservation(std::shared_ptr<State> state) : _state(std::move(state)) {}

private:
  std::shared_ptr<State> _state;
};

class NSObject : public std::enable_shared_from_this<NSObject> {
public:
  NSObject();
  virtual ~NSObject();
  NSObject(const NSObject&) = delete;
  NSObject& operator=(const NSObject&) = delete;

  // Key-value coding. The base knows no keys: both throw std::logic_error for
  // an unknown key (a programming error). Subclasses override and call the
  // base for keys they do not know.
  virtual Value valueForKey(const std::string& key) const;
  virtual void setValueForKey(const Value& value, const std::string& key);
  // Follows dots; collection operators (@count, @sum, @avg, @min, @max) apply
  // to the collection reached so far.
  Value valueForKeyPath(std::string_view keyPath) const;
  void setValueForKeyPath(const Value& value, std::string_view keyPath);

  // Key-value observation of a key path rooted at this object. Each change
  // bracketed by willChange/didChange of a key on the path (or of a key path
  // the path depends on) calls back once, even when the value is unchanged.
  // Values are read through valueForKeyPath; a key an object does not know
  // reads as absent here instead of throwing.
  [[nodiscard]] NSKeyValueObservation addObserver(std::string keyPath, NSKeyValueObservingOptions options,
                                                  NSKeyValueObserver callback);
  // Same as token.invalidate().
  void removeObserver(NSKeyValueObservation& token) { token.invalidate(); }
  // Bracket a change of a key; setters of observable properties call both,
  // outside any lock the getter takes. Old values are read in willChange, new
  // ones in didChange, which notifies observers of the key, of key paths
  // through it and of keys depending on it. Brackets nest (each did pairs with
  // the latest unmatched will of the same key on the same thread). Cheap when
  // nobody observes the object.
  void willChangeValueForKey(const std::string& key);
  void didChangeValueForKey(const std::string& key);
  // Key paths whose change is reported as a change of key (derived keys).
  // Called while observations are set up: must only return constants.
  virtual std::vector<std::string> keyPathsForValuesAffectingValueForKey(const std::string& key) const;

  virtual bool isEqual(const NSObject& other) const { return this == &other; }
  virtual std::size_t hash() const { return std::hash<const void*>()(this); }
  virtual std::string className() const { return "NSObject"; }
  virtual std::string description() const;

  struct ObservationRegistry;  // private to the implementation

private:
  // Created on first observation, so the many objects nobody observes carry
  // one null pointer and pay nothing in willChange/didChange.
  mutable std::atomic<ObservationRegistry*> _kvo{nullptr};
};

// Key-value coding over any Value: objects use valueForKey, dictionaries look
// the key up, arrays and sets map the rest of the path over their elements
// (sets give sets), and collection operators (@count, @sum, @avg, @min, @max)
// aggregate. A string answers "length" (in UTF-16 units). Anything else yields
// absent.
Value valueForKeyPath(const Value& target, std::string_view keyPath);
Value valueForKey(const Value& target, const std::string& key);

