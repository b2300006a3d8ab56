#include "platform/foundation/NSObject.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <utility>

// How observation works
//
// An observation of "a.b.c" rooted at X is a tree of nodes. The root node is
// registered on X for key "a"; its child is registered on the current X.a for
// "b.c", and so on. A node also has one dependent node per key path that
// affects its key (keyPathsForValuesAffectingValueForKey), rooted on the same
// object; a change anywhere under a dependent counts as a change of the key.
//
// Each node puts a Listener into the registry (Core) of the object it sits on.
// willChangeValueForKey collects the listeners for the key, captures the old
// value of every affected observation and pushes a pending change on a
// thread-local stack; didChangeValueForKey pops it, rebuilds the part of each
// tree that hangs below the changed key (so the observation follows a replaced
// intermediate object) and calls back with the new value.
//
// Locks: an object's Core mutex is held only for short list operations. An
// observation's own mutex guards its tree; it may be held while taking a Core
// mutex, never the other way round. Neither is held while user code runs,
// except keyPathsForValuesAffectingValueForKey, which must be a pure function.
// Values are read outside the lock, and the tree is rebuilt with optimistic
// versioning: if the tree changed while a value was being read, the read is
// repeated.

using State = NSKeyValueObservation::State;

namespace {

constexpr int kMaxDepth = 32;  // guards against runaway dependency chains

struct Node;

struct Listener {
  std::weak_ptr<State> state;
  Node* node = nullptr;  // guarded by the state's mutex; null once the node is gone
};

struct Core {
  std::mutex mutex;
  std::unordered_map<std::string, std::vector<std::shared_ptr<Listener>>> listeners;  // guarded by mutex
  std::vector<std::weak_ptr<State>> rooted;  // observations rooted at this object; guarded by mutex
  std::size_t pruneRootedAt = 8;             // guarded by mutex
};

// The object a node sits on. Intermediate objects are always held by
// shared_ptr (they come out of a Value); the root of an observation may not be
// (an object observing itself during construction), and is then reached raw.
struct ObjectRef {
  std::weak_ptr<NSObject> weak;
  NSObject* raw = nullptr;

  std::shared_ptr<NSObject> lock() const {
    if (raw) return std::shared_ptr<NSObject>(std::shared_ptr<NSObject>(), raw);  // non-owning
    return weak.lock();
  }
};

struct Node {
  Node* parent = nullptr;
  bool viaDependent = false;  // this node is one of parent's dependents (else parent's child)
  int depth = 0;
  ObjectRef object;
  const NSObject* identity = nullptr;
  std::weak_ptr<Core> core;
  std::string path;  // key + "." + rest
  std::string key;
  std::string rest;
  std::shared_ptr<Listener> listener;
  std::unique_ptr<Node> child;  // on object.key, for rest
  std::vector<std::unique_ptr<Node>> dependents;
  bool needsChild = false;  // child must be (re)built from the current value of key

  Node() = default;
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  // Runs with the owning state's mutex held.
  ~Node() {
    if (!listener) return;
    listener->node = nullptr;
    if (auto c = core.lock()) {
      std::lock_guard lock(c->mutex);
      auto it = c->listeners.find(key);
      if (it != c->listeners.end()) {
        auto& list = it->second;
        list.erase(std::remove(list.begin(), list.end(), listener), list.end());
        if (list.empty()) c->listeners.erase(it);
      }
    }
  }

  bool hopsFurther() const { return !rest.empty() && rest.front() != '@'; }
};

std::pair<std::string_view, std::string_view> splitFirst(std::string_view path) {
  auto dot = path.find('.');
  if (dot == std::string_view::npos) return {path, {}};
  return {path.substr(0, dot), path.substr(dot + 1)};
}

Value safeValueForKey(const NSObject& object, const std::string& key) {
  try {
    return object.valueForKey(key);
  } catch (const std::logic_error&) {
    return {};  // observing a key the object does not know reads as absent
  }
}

Value safeValueForKeyPath(const NSObject& object, std::string_view keyPath) {
  try {
    return object.valueForKeyPath(keyPath);
  } catch (const std::logic_error&) {
    return {};
  }
}

struct PendingObservation {
  std::shared_ptr<State> state;
  std::vector<std::shared_ptr<Listener>> fired;
  Value oldValue;
};

struct PendingChange {
  const Core* core = nullptr;
  std::string key;
  std::vector<PendingObservation> observations;
};

// Changes between willChange and didChange on this thread, innermost last.
thread_local std::vector<PendingChange> tPendingChanges;

}  // namespace

struct NSKeyValueObservation::State {
  std::string keyPath;
  NSKeyValueObservingOptions options = NSKeyValueObservingOptions::None;
  NSKeyValueObserver callback;
  ObjectRef root;

  std::mutex mutex;
  std::condition_variable idle;
  bool valid = true;                       // guarded by mutex
  std::vector<std::thread::id> inFlight;   // threads running callback; guarded by mutex
  std::unique_ptr<Node> tree;              // guarded by mutex
  std::uint64_t version = 0;               // bumped on every change of tree; guarded by mutex

  ~State() {
    std::lock_guard lock(mutex);
    tree.reset();
  }

  bool wants(NSKeyValueObservingOptions option) const { return options & option; }

  Value currentValue() const {
    auto object = root.lock();
    return object ? safeValueForKeyPath(*object, keyPath) : Value();
  }

  // Ends the observation: no callback starts after this returns, and callbacks
  // running on other threads have finished, unless this is called from inside
  // one of this observation's own callbacks.
  void invalidate() {
    std::unique_lock lock(mutex);
    valid = false;
    tree.reset();
    ++version;
    const auto self = std::this_thread::get_id();
    // From inside its own callback the caller cannot wait: another thread's
    // call might be waiting on this one (two calls both removing themselves).
    if (std::find(inFlight.begin(), inFlight.end(), self) != inFlight.end()) return;
    idle.wait(lock, [&] { return inFlight.empty(); });
  }

  void deliver(const NSKeyValueChange& change) {
    auto object = root.lock();
    if (!object) return;
    {
      std::lock_guard lock(mutex);
      if (!valid) return;
      inFlight.push_back(std::this_thread::get_id());
    }
    struct Leave {
      State& state;
      ~Leave() {
        std::lock_guard lock(state.mutex);
        auto it = std::find(state.inFlight.begin(), state.inFlight.end(), std::this_thread::get_id());
        if (it != state.inFlight.end()) state.inFlight.erase(it);
        state.idle.notify_all();
      }
    } leave{*this};
    callback(keyPath, *object, change);
  }
};

struct NSObject::ObservationRegistry {
  std::shared_ptr<Core> core = std::make_shared<Core>();

  static Core* find(const NSObject& object) {
    auto* registry = object._kvo.load(std::memory_order_acquire);
    return registry ? registry->core.get() : nullptr;
  }

  static std::shared_ptr<Core> obtain(const NSObject& object) {
    auto* registry = object._kvo.load(std::memory_order_acquire);
    if (!registry) {
      auto fresh = std::make_unique<ObservationRegistry>();
      if (object._kvo.compare_exchange_strong(registry, fresh.get(), std::memory_order_acq_rel)) {
        registry = fresh.release();
      }
    }
    return registry->core;
  }
};

namespace {

bool formsCycle(const Node* parent, const NSObject* identity, const std::string& path) {
  for (const Node* n = parent; n; n = n->parent) {
    if (n->identity == identity && n->path == path) return true;
  }
  return false;
}

// Builds a node for path on object and registers its listener and its
// dependents. Runs with the state's mutex held; object is alive.
std::unique_ptr<Node> makeNode(const std::shared_ptr<State>& state, const NSObject& object, ObjectRef ref,
                               std::string_view path, Node* parent, bool viaDependent) {
  auto node = std::make_unique<Node>();
  node->parent = parent;
  node->viaDependent = viaDependent;
  node->depth = parent ? parent->depth + 1 : 0;
  node->object = std::move(ref);
  node->identity = &object;
  node->path = std::string(path);
  auto [key, rest] = splitFirst(path);
  node->key = std::string(key);
  node->rest = std::string(rest);
  if (node->key.empty() || node->key.front() == '@') return node;  // nothing to observe here

  auto core = NSObject::ObservationRegistry::obtain(object);
  node->core = core;
  node->listener = std::make_shared<Listener>();
  node->listener->state = state;
  node->listener->node = node.get();
  {
    std::lock_guard lock(core->mutex);
    core->listeners[node->key].push_back(node->listener);
  }
  node->needsChild = node->hopsFurther();
  if (node->depth >= kMaxDepth) return node;
  for (const std::string& dependency : object.keyPathsForValuesAffectingValueForKey(node->key)) {
    if (formsCycle(node.get(), &object, dependency)) continue;
    node->dependents.push_back(makeNode(state, object, node->object, dependency, node.get(), true));
  }
  return node;
}

Node* findNeedingChild(Node* node) {
  if (!node) return nullptr;
  if (node->needsChild) return node;
  for (auto& dependent : node->dependents) {
    if (Node* found = findNeedingChild(dependent.get())) return found;
  }
  return findNeedingChild(node->child.get());
}

// Builds every missing child from the current values. Called and returns with
// lock held; values are read without it. Objects read are parked in keepAlive
// so that no object is destroyed while the lock is held.
void settle(const std::shared_ptr<State>& state, std::unique_lock<std::mutex>& lock,
            std::vector<std::shared_ptr<NSObject>>& keepAlive) {
  for (;;) {
    if (!state->valid) return;
    Node* pending = findNeedingChild(state->tree.get());
    if (!pending) return;
    if (pending->depth >= kMaxDepth) {
      pending->needsChild = false;
      continue;
    }
    const std::uint64_t version = state->version;
    auto object = pending->object.lock();
    const std::string key = pending->key;
    lock.unlock();
    std::shared_ptr<NSObject> next;
    if (object) {
      Value value = safeValueForKey(*object, key);
      if (value.isObject()) next = value.asObject();
    }
    keepAlive.push_back(std::move(object));
    keepAlive.push_back(next);
    lock.lock();
    if (!state->valid) return;
    if (state->version != version) continue;  // the tree changed meanwhile: look again
    pending->needsChild = false;
    if (next) pending->child = makeNode(state, *next, ObjectRef{next, nullptr}, pending->rest, pending, false);
    ++state->version;
  }
}

// The value of node's key changed: what hangs below it must be rebuilt, and so
// must the child of every node whose key depends on it.
void markChanged(Node* node) {
  auto reset = [](Node* n) {
    n->child.reset();
    n->needsChild = n->hopsFurther();
  };
  reset(node);
  for (Node* n = node; n->parent; n = n->parent) {
    if (n->viaDependent) reset(n->parent);
  }
}

// Where an observation's value is read after some of its listeners fired: the
// deepest node on the way from the root to a fired node that is reached by
// child links only (below a dependent, the value is the dependent's owner's).
// Reading there, not at the root, keeps a change of "operation.status" made on
// the operation's thread from reading the root's own properties on it.
// Called with the state's mutex held.
struct ReadPoint {
  ObjectRef object;
  std::string path;

  Value read() const {
    auto target = object.lock();
    return target ? safeValueForKeyPath(*target, path) : Value();
  }
};

ReadPoint readPoint(const State& state, const std::vector<std::shared_ptr<Listener>>& fired) {
  const Node* best = nullptr;
  for (const auto& listener : fired) {
    const Node* node = listener->node;
    if (!node) continue;
    const Node* point = node;
    for (const Node* n = node; n->parent; n = n->parent) {
      if (n->viaDependent) point = n->parent;
    }
    if (!best || point->depth < best->depth) best = point;
  }
  if (!best) return {state.root, state.keyPath};
  return {best->object, best->path};
}

std::vector<PendingObservation> collect(Core& core, const std::string& key) {
  std::vector<std::shared_ptr<Listener>> listeners;
  {
    std::lock_guard lock(core.mutex);
    auto it = core.listeners.find(key);
    if (it == core.listeners.end()) return {};
    listeners = it->second;
  }
  std::vector<PendingObservation> observations;
  for (auto& listener : listeners) {
    auto state = listener->state.lock();
    if (!state) continue;
    auto it = std::find_if(observations.begin(), observations.end(),
                           [&](const PendingObservation& o) { return o.state == state; });
    if (it == observations.end()) {
      observations.push_back({std::move(state), {listener}, Value()});
    } else {
      it->fired.push_back(listener);
    }
  }
  return observations;
}

}  // namespace

// ---------------------------------------------------------------------------
// NSKeyValueObservation

NSKeyValueObservation::NSKeyValueObservation(NSKeyValueObservation&& other) noexcept
    : _state(std::move(other._state)) {}

NSKeyValueObservation& NSKeyValueObservation::operator=(NSKeyValueObservation&& other) noexcept {
  if (this != &other) {
    invalidate();
    _state = std::move(other._state);
  }
  return *this;
}

NSKeyValueObservation::~NSKeyValueObservation() { invalidate(); }

void NSKeyValueObservation::invalidate() {
  if (auto state = std::move(_state)) state->invalidate();
}

// ---------------------------------------------------------------------------
// NSObject

NSObject::NSObject() = default;

NSObject::~NSObject() {
  auto* registry = _kvo.load(std::memory_order_acquire);
  if (!registry) return;
  std::vector<std::shared_ptr<State>> rooted;
  {
    std::lock_guard lock(registry->core->mutex);
    for (auto& weak : registry->core->rooted) {
      if (auto state = weak.lock()) rooted.push_back(std::move(state));
    }
    registry->core->rooted.clear();
  }
  // Observations rooted here cannot outlive the root.
  for (auto& state : rooted) state->invalidate();
  delete registry;
}

Value NSObject::valueForKey(const std::string& key) const {
  throw std::logic_error(className() + " is not key value coding-compliant for the key \"" + key + "\"");
}

void NSObject::setValueForKey(const Value&, const std::string& key) {
  throw std::logic_error(className() + " is not key value coding-compliant for the key \"" + key + "\"");
}

std::vector<std::string> NSObject::keyPathsForValuesAffectingValueForKey(const std::string&) const { return {}; }

std::string NSObject::description() const {
  char address[32];
  std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
  std::string text = "<";  // appended: GCC 12 at -O3 warns falsely on "<" + string
  text.append(className()).append(": ").append(address).append(">");
  return text;
}

Value NSObject::valueForKeyPath(std::string_view keyPath) const {
  auto [first, rest] = splitFirst(keyPath);
  if (first.empty() || first.front() == '@') return {};
  Value value = valueForKey(std::string(first));
  return rest.empty() ? value : ::valueForKeyPath(value, rest);
}

namespace {

void setValueOn(const Value& target, const Value& value, const std::string& key) {
  switch (target.type()) {
    case Value::Type::Absent:
    case Value::Type::Null:
      return;  // nothing along the path: like a message to nil
    case Value::Type::Object:
      target.asObject()->setValueForKey(value, key);
      return;
    case Value::Type::Array:
    case Value::Type::Set:
      for (const Value& element : target.collectionElements()) setValueOn(element, value, key);
      return;
    default:
      throw std::logic_error("cannot set the key \"" + key + "\" on an immutable value");
  }
}

}  // namespace

void NSObject::setValueForKeyPath(const Value& value, std::string_view keyPath) {
  auto dot = keyPath.rfind('.');
  if (dot == std::string_view::npos) {
    setValueForKey(value, std::string(keyPath));
    return;
  }
  setValueOn(valueForKeyPath(keyPath.substr(0, dot)), value, std::string(keyPath.substr(dot + 1)));
}

NSKeyValueObservation NSObject::addObserver(std::string keyPath, NSKeyValueObservingOptions options,
                                            NSKeyValueObserver callback) {
  auto state = std::make_shared<State>();
  state->keyPath = std::move(keyPath);
  state->options = options;
  state->callback = std::move(callback);
  state->root.weak = weak_from_this();
  if (state->root.weak.expired()) state->root.raw = this;

  auto core = ObservationRegistry::obtain(*this);
  {
    std::lock_guard lock(core->mutex);
    if (core->rooted.size() >= core->pruneRootedAt) {
      std::erase_if(core->rooted, [](const std::weak_ptr<State>& w) { return w.expired(); });
      core->pruneRootedAt = std::max<std::size_t>(8, core->rooted.size() * 2);
    }
    core->rooted.push_back(state);
  }

  std::vector<std::shared_ptr<NSObject>> keepAlive;
  {
    std::unique_lock lock(state->mutex);
    state->tree = makeNode(state, *this, state->root, state->keyPath, nullptr, false);
    ++state->version;
    settle(state, lock, keepAlive);
  }
  keepAlive.clear();

  if (state->wants(NSKeyValueObservingOptions::Initial)) {
    NSKeyValueChange change;
    if (state->wants(NSKeyValueObservingOptions::New)) change.newValue = state->currentValue();
    state->deliver(change);
  }
  return NSKeyValueObservation(std::move(state));
}

void NSObject::willChangeValueForKey(const std::string& key) {
  Core* core = ObservationRegistry::find(*this);
  if (!core) return;
  PendingChange pending{core, key, collect(*core, key)};
  if (pending.observations.empty()) return;
  for (auto& observation : pending.observations) {
    const auto& state = observation.state;
    if (state->wants(NSKeyValueObservingOptions::Old)) {
      ReadPoint point;
      {
        std::lock_guard lock(state->mutex);
        point = readPoint(*state, observation.fired);
      }
      observation.oldValue = point.read();
    }
    if (state->wants(NSKeyValueObservingOptions::Prior)) {
      NSKeyValueChange change;
      change.isPrior = true;
      change.oldValue = observation.oldValue;
      state->deliver(change);
    }
  }
  // Pushed only now: prior callbacks may themselves have bracketed changes.
  tPendingChanges.push_back(std::move(pending));
}

void NSObject::didChangeValueForKey(const std::string& key) {
  Core* core = ObservationRegistry::find(*this);
  if (!core) return;
  std::vector<PendingObservation> observations;
  bool matched = false;
  for (std::size_t i = tPendingChanges.size(); i-- > 0;) {
    if (tPendingChanges[i].core == core && tPendingChanges[i].key == key) {
      observations = std::move(tPendingChanges[i].observations);
      tPendingChanges.erase(tPendingChanges.begin() + static_cast<std::ptrdiff_t>(i));
      matched = true;
      break;
    }
  }
  // Without a matching willChange (unbalanced call, or observers added in
  // between) whoever observes now is told, with no old value.
  if (!matched) observations = collect(*core, key);

  for (auto& observation : observations) {
    const auto& state = observation.state;
    std::vector<std::shared_ptr<NSObject>> keepAlive;
    ReadPoint point;
    {
      std::unique_lock lock(state->mutex);
      if (!state->valid) continue;
      bool rewired = false;
      for (auto& listener : observation.fired) {
        if (listener->node) {
          markChanged(listener->node);
          rewired = true;
        }
      }
      if (rewired) {
        ++state->version;
        settle(state, lock, keepAlive);
      }
      point = readPoint(*state, observation.fired);
    }
    keepAlive.clear();
    NSKeyValueChange change;
    if (state->wants(NSKeyValueObservingOptions::New)) change.newValue = point.read();
    if (state->wants(NSKeyValueObservingOptions::Old)) change.oldValue = std::move(observation.oldValue);
    state->deliver(change);
  }
}

// ---------------------------------------------------------------------------
// Key-value coding over values

namespace {

Value aggregate(const Value& collection, std::string_view op, std::string_view rest) {
  if (op == "@count") return Value(static_cast<std::int64_t>(collection.count()));

  std::vector<Value> values;
  for (const Value& element : collection.collectionElements()) {
    Value v = rest.empty() ? element : valueForKeyPath(element, rest);
    if (v && !v.isNull()) values.push_back(std::move(v));
  }
  if (op == "@sum" || op == "@avg") {
    bool integral = true;
    std::int64_t integerSum = 0;
    double sum = 0;
    std::size_t n = 0;
    for (const Value& v : values) {
      if (!v.isNumber() && !v.isString()) continue;
      if (!v.isInteger() && !v.isBool()) integral = false;
      integerSum += v.integerValue();
      sum += v.doubleValue();
      ++n;
    }
    if (op == "@avg") return Value(n ? sum / static_cast<double>(n) : 0.0);
    return integral ? Value(integerSum) : Value(sum);
  }
  if (op == "@min" || op == "@max") {
    const int wanted = op == "@min" ? -1 : 1;
    Value best;
    for (const Value& v : values) {
      if (!best) {
        best = v;
        continue;
      }
      auto order = v.compare(best);
      if (order && *order == wanted) best = v;
    }
    return best;
  }
  if (op == "@unionOfObjects") return Value(Array(values.begin(), values.end()));
  if (op == "@distinctUnionOfObjects") {
    Array distinct;
    Set seen;
    for (Value& v : values) {
      if (seen.insert(v)) distinct.push_back(std::move(v));
    }
    return Value(std::move(distinct));
  }
  return {};
}

}  // namespace

Value valueForKey(const Value& target, const std::string& key) {
  const bool isOperator = !key.empty() && key.front() == '@';
  switch (target.type()) {
    case Value::Type::Object:
      return target.asObject()->valueForKey(key);
    case Value::Type::Dictionary:
      if (key == "@count") return Value(static_cast<std::int64_t>(target.count()));
      return target.asDictionary()[key];
    case Value::Type::Array: {
      if (isOperator) return aggregate(target, key, {});
      Array mapped;
      mapped.reserve(target.asArray().size());
      for (const Value& element : target.asArray()) {
        Value v = valueForKey(element, key);
        mapped.push_back(v ? std::move(v) : Value::null());
      }
      return Value(std::move(mapped));
    }
    case Value::Type::Set: {
      if (isOperator) return aggregate(target, key, {});
      Set mapped;
      for (const Value& element : target.asSet()) {
        Value v = valueForKey(element, key);
        if (v) mapped.insert(std::move(v));
      }
      return Value(std::move(mapped));
    }
    case Value::Type::String:
      if (key == "length") return Value(static_cast<std::int64_t>(ZBStringUTF16Length(target.asString())));
      return {};
    default:
      return {};
  }
}

Value valueForKeyPath(const Value& target, std::string_view keyPath) {
  if (keyPath.empty()) return target;
  auto [first, rest] = splitFirst(keyPath);
  if (!first.empty() && first.front() == '@') {
    if (target.isCollection()) return aggregate(target, first, rest);
    if (target.isDictionary() && first == "@count") return Value(static_cast<std::int64_t>(target.count()));
    return {};
  }
  Value next = valueForKey(target, std::string(first));
  return rest.empty() ? next : valueForKeyPath(next, rest);
}
