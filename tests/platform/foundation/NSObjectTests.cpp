#include "platform/foundation/NSObject.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include "support/TogetherThreads.h"

// Readable failure messages (TU-local, found by argument-dependent lookup).
static void PrintTo(const Value& value, std::ostream* os) { *os << value.description(); }

namespace {

// An observable object with a fixed set of keys and declared dependencies.
// Setters bracket the change the way every observable property does.
class Box : public NSObject {
public:
  static std::shared_ptr<Box> create(std::set<std::string> keys,
                                     std::map<std::string, std::vector<std::string>> dependencies = {}) {
    return std::make_shared<Box>(std::move(keys), std::move(dependencies));
  }
  Box(std::set<std::string> keys, std::map<std::string, std::vector<std::string>> dependencies)
      : _keys(std::move(keys)), _dependencies(std::move(dependencies)) {}

  Value valueForKey(const std::string& key) const override {
    if (!_keys.count(key)) return NSObject::valueForKey(key);
    if (_derived.count(key)) return _derived.at(key)(*this);
    std::lock_guard lock(_mutex);
    ++_reads[key];
    auto it = _values.find(key);
    return it == _values.end() ? Value() : it->second;
  }
  void setValueForKey(const Value& value, const std::string& key) override {
    if (!_keys.count(key)) return NSObject::setValueForKey(value, key);
    willChangeValueForKey(key);
    {
      std::lock_guard lock(_mutex);
      _values[key] = value;
    }
    didChangeValueForKey(key);
  }
  std::vector<std::string> keyPathsForValuesAffectingValueForKey(const std::string& key) const override {
    auto it = _dependencies.find(key);
    return it == _dependencies.end() ? std::vector<std::string>{} : it->second;
  }
  void derive(const std::string& key, std::function<Value(const Box&)> getter) { _derived[key] = std::move(getter); }
  std::string className() const override { return "Box"; }
  int reads(const std::string& key) const {
    std::lock_guard lock(_mutex);
    auto it = _reads.find(key);
    return it == _reads.end() ? 0 : it->second;
  }

private:
  std::set<std::string> _keys;
  std::map<std::string, std::vector<std::string>> _dependencies;
  std::map<std::string, std::function<Value(const Box&)>> _derived;
  mutable std::mutex _mutex;
  std::map<std::string, Value> _values;
  mutable std::map<std::string, int> _reads;
};

struct Seen {
  Value newValue, oldValue;
  bool isPrior;
};

// Records every notification; thread-safe.
struct Recorder {
  std::mutex mutex;
  std::vector<Seen> seen;
  NSKeyValueObserver observer() {
    return [this](const std::string&, NSObject&, const NSKeyValueChange& change) {
      std::lock_guard lock(mutex);
      seen.push_back({change.newValue, change.oldValue, change.isPrior});
    };
  }
  std::size_t count() {
    std::lock_guard lock(mutex);
    return seen.size();
  }
};

constexpr auto New = NSKeyValueObservingOptions::New;
constexpr auto Old = NSKeyValueObservingOptions::Old;
constexpr auto Initial = NSKeyValueObservingOptions::Initial;
constexpr auto Prior = NSKeyValueObservingOptions::Prior;

}  // namespace

TEST(NSObjectKeyValueCoding, KeyPathsThroughObjectsDictionariesAndCollections) {
  auto post1 = Box::create({"title", "price", "tags"});
  post1->setValueForKey("one", "title");
  post1->setValueForKey(3, "price");
  post1->setValueForKey(Array{"a", "b"}, "tags");
  auto post2 = Box::create({"title", "price", "tags"});
  post2->setValueForKey("two", "title");
  post2->setValueForKey(4.5, "price");
  auto post3 = Box::create({"title", "price", "tags"});  // no title, no price

  auto owner = Box::create({"posts", "postSet", "info"});
  owner->setValueForKey(Array{Value(post1), Value(post2), Value(post3)}, "posts");
  owner->setValueForKey(Set{Value(post1), Value(post2)}, "postSet");
  owner->setValueForKey(Dictionary{{"name", "x"}, {"nested", Dictionary{{"deep", 7}}}}, "info");

  EXPECT_EQ(owner->valueForKeyPath("info.nested.deep"), Value(7));
  EXPECT_TRUE(owner->valueForKeyPath("info.missing.deep").isAbsent());
  EXPECT_EQ(owner->valueForKeyPath("info.@count"), Value(2));

  // Arrays map, with the null marker for elements lacking the value; sets map to sets.
  EXPECT_EQ(owner->valueForKeyPath("posts.title"), Value(Array{"one", "two", Value::null()}));
  EXPECT_EQ(owner->valueForKeyPath("postSet.title"), Value(Set{"one", "two"}));
  EXPECT_EQ(owner->valueForKeyPath("posts.@count"), Value(3));
  EXPECT_EQ(owner->valueForKeyPath("postSet.@count"), Value(2));
  EXPECT_EQ(owner->valueForKeyPath("posts.@sum.price"), Value(7.5));
  EXPECT_EQ(owner->valueForKeyPath("posts.@avg.price"), Value(3.75));  // absent prices don't count
  EXPECT_EQ(owner->valueForKeyPath("posts.@min.price"), Value(3));
  EXPECT_EQ(owner->valueForKeyPath("postSet.@max.price"), Value(4.5));
  EXPECT_EQ(owner->valueForKeyPath("posts.@max.title"), Value("two"));
  EXPECT_TRUE(owner->valueForKeyPath("posts.@bogus.price").isAbsent());
  // A string answers its length in UTF-16 units, and no other key.
  EXPECT_EQ(owner->valueForKeyPath("posts.title.length"), Value(Array{3, 3, Value::null()}));
  EXPECT_EQ(valueForKeyPath(Value("Tea 🍵é"), "length"), Value(7));
  EXPECT_TRUE(valueForKeyPath(Value("abc"), "count").isAbsent());
  // Integral sums stay integral.
  EXPECT_TRUE(valueForKeyPath(Value(Array{1, 2, 3}), "@sum").isInteger());
  EXPECT_EQ(valueForKeyPath(Value(Array{1, 2, 3}), "@sum"), Value(6));
  // Empty collections: no minimum, zero sum.
  EXPECT_TRUE(valueForKeyPath(Value(Array{}), "@max").isAbsent());
  EXPECT_EQ(valueForKeyPath(Value(Array{}), "@sum"), Value(0));
  EXPECT_EQ(owner->valueForKeyPath("posts.tags.@count"), Value(3));  // counts the mapped array
  EXPECT_EQ(valueForKeyPath(Value(Array{1, 1, 2}), "@distinctUnionOfObjects"), Value(Array{1, 2}));

  // Scalars and absent values have no keys.
  EXPECT_TRUE(valueForKeyPath(Value(5), "x.y").isAbsent());
  EXPECT_TRUE(valueForKeyPath(Value(), "x").isAbsent());
  EXPECT_EQ(valueForKeyPath(Value(5), ""), Value(5));

  // An unknown key is a programming error.
  EXPECT_THROW(owner->valueForKey("nope"), std::logic_error);
  EXPECT_THROW(owner->valueForKeyPath("posts.nope"), std::logic_error);
  EXPECT_THROW(owner->setValueForKey(1, "nope"), std::logic_error);
}

TEST(NSObjectKeyValueCoding, SetValueForKeyPathReachesTheLastObject) {
  auto leaf1 = Box::create({"v"});
  auto leaf2 = Box::create({"v"});
  auto middle = Box::create({"leaf", "leaves"});
  middle->setValueForKey(leaf1, "leaf");
  middle->setValueForKey(Array{Value(leaf1), Value(leaf2)}, "leaves");
  auto root = Box::create({"middle", "info"});
  root->setValueForKey(middle, "middle");

  root->setValueForKeyPath(1, "middle.leaf.v");
  EXPECT_EQ(leaf1->valueForKey("v"), Value(1));
  root->setValueForKeyPath(2, "middle.leaves.v");  // every element of a collection
  EXPECT_EQ(leaf1->valueForKey("v"), Value(2));
  EXPECT_EQ(leaf2->valueForKey("v"), Value(2));

  // A missing object along the path is like a message to nil; an immutable value is not.
  root->setValueForKey(Value(), "middle");
  EXPECT_NO_THROW(root->setValueForKeyPath(3, "middle.leaf.v"));
  root->setValueForKey(Dictionary{{"a", 1}}, "info");
  EXPECT_THROW(root->setValueForKeyPath(3, "info.a"), std::logic_error);
}

TEST(NSObjectObservation, OptionsNewOldInitialPrior) {
  auto box = Box::create({"status"});
  box->setValueForKey("idle", "status");

  Recorder all, initialOnly, priorOnly, none;
  auto t1 = box->addObserver("status", New | Old | Initial | Prior, all.observer());
  auto t2 = box->addObserver("status", Initial, initialOnly.observer());
  auto t3 = box->addObserver("status", Prior | Old, priorOnly.observer());
  auto t4 = box->addObserver("status", NSKeyValueObservingOptions::None, none.observer());

  ASSERT_EQ(all.count(), 1u);  // the initial callback ran before addObserver returned
  EXPECT_EQ(all.seen[0].newValue, Value("idle"));
  EXPECT_TRUE(all.seen[0].oldValue.isAbsent());
  ASSERT_EQ(initialOnly.count(), 1u);
  EXPECT_TRUE(initialOnly.seen[0].newValue.isAbsent());  // New was not asked for
  EXPECT_EQ(none.count(), 0u);

  box->setValueForKey("busy", "status");
  ASSERT_EQ(all.count(), 3u);
  EXPECT_TRUE(all.seen[1].isPrior);
  EXPECT_EQ(all.seen[1].oldValue, Value("idle"));
  EXPECT_TRUE(all.seen[1].newValue.isAbsent());
  EXPECT_FALSE(all.seen[2].isPrior);
  EXPECT_EQ(all.seen[2].oldValue, Value("idle"));
  EXPECT_EQ(all.seen[2].newValue, Value("busy"));
  ASSERT_EQ(priorOnly.count(), 2u);
  EXPECT_TRUE(priorOnly.seen[0].isPrior);
  EXPECT_TRUE(priorOnly.seen[1].newValue.isAbsent());
  EXPECT_EQ(priorOnly.seen[1].oldValue, Value("idle"));
  ASSERT_EQ(none.count(), 1u);
  EXPECT_TRUE(none.seen[0].newValue.isAbsent() && none.seen[0].oldValue.isAbsent());

  // Setting the same value still notifies, as the platform does.
  box->setValueForKey("busy", "status");
  EXPECT_EQ(none.count(), 2u);

  // Invalidate, destroy and move-assign all end observations.
  t1.invalidate();
  EXPECT_FALSE(t1.isValid());
  { auto gone = std::move(t2); }
  EXPECT_FALSE(t2.isValid());
  t3 = NSKeyValueObservation();
  box->setValueForKey("done", "status");
  EXPECT_EQ(all.count(), 5u);
  EXPECT_EQ(initialOnly.count(), 3u);
  EXPECT_EQ(priorOnly.count(), 4u);
  EXPECT_EQ(none.count(), 3u);
  // A moved token keeps the observation.
  NSKeyValueObservation moved = std::move(t4);
  box->setValueForKey("again", "status");
  EXPECT_EQ(none.count(), 4u);
}

TEST(NSObjectObservation, ChainFollowsReplacedIntermediateObjects) {
  auto status1 = Box::create({"text"});
  status1->setValueForKey("first", "text");
  auto op1 = Box::create({"status"});
  op1->setValueForKey(status1, "status");
  auto op2 = Box::create({"status"});
  auto status2 = Box::create({"text"});
  status2->setValueForKey("second", "text");
  op2->setValueForKey(status2, "status");
  auto controller = Box::create({"operation"});
  controller->setValueForKey(op1, "operation");

  Recorder r;
  auto token = controller->addObserver("operation.status.text", New | Old, r.observer());

  const int rootReads = controller->reads("operation");
  status1->setValueForKey("first'", "text");
  ASSERT_EQ(r.count(), 1u);
  EXPECT_EQ(r.seen[0].oldValue, Value("first"));
  EXPECT_EQ(r.seen[0].newValue, Value("first'"));
  // A change at the end of the chain is read there: the root's properties are
  // not touched on whatever thread the leaf changed.
  EXPECT_EQ(controller->reads("operation"), rootReads);

  // Replace the operation: the observation moves to op2 and its status.
  controller->setValueForKey(op2, "operation");
  ASSERT_EQ(r.count(), 2u);
  EXPECT_EQ(r.seen[1].oldValue, Value("first'"));
  EXPECT_EQ(r.seen[1].newValue, Value("second"));
  status1->setValueForKey("stale", "text");
  op1->setValueForKey(Value(), "status");
  EXPECT_EQ(r.count(), 2u) << "changes of a replaced object must not be reported";
  status2->setValueForKey("second'", "text");
  ASSERT_EQ(r.count(), 3u);
  EXPECT_EQ(r.seen[2].newValue, Value("second'"));

  // Replace a middle object on the current operation.
  auto status3 = Box::create({"text"});
  status3->setValueForKey("third", "text");
  op2->setValueForKey(status3, "status");
  ASSERT_EQ(r.count(), 4u);
  EXPECT_EQ(r.seen[3].oldValue, Value("second'"));
  EXPECT_EQ(r.seen[3].newValue, Value("third"));
  status2->setValueForKey("stale", "text");
  EXPECT_EQ(r.count(), 4u);

  // The operation going away reads absent; coming back re-attaches.
  controller->setValueForKey(Value(), "operation");
  ASSERT_EQ(r.count(), 5u);
  EXPECT_EQ(r.seen[4].oldValue, Value("third"));
  EXPECT_TRUE(r.seen[4].newValue.isAbsent());
  status3->setValueForKey("unobserved", "text");
  EXPECT_EQ(r.count(), 5u);
  controller->setValueForKey(op2, "operation");
  status3->setValueForKey("observed", "text");
  ASSERT_EQ(r.count(), 7u);
  EXPECT_EQ(r.seen[6].newValue, Value("observed"));

  // Dropping the last reference to an intermediate object while observed.
  std::weak_ptr<Box> weakOp = op1;
  op1.reset();
  status1.reset();
  EXPECT_TRUE(weakOp.expired()) << "the observation must not keep intermediate objects alive";
  controller->setValueForKey(Value(), "operation");
  EXPECT_EQ(r.count(), 8u);
}

TEST(NSObjectObservation, DependentKeysIncludingChainsAndCollectionCounts) {
  auto coordinator1 = Box::create({"context"});
  coordinator1->setValueForKey("ctx1", "context");
  auto coordinator2 = Box::create({"context"});
  coordinator2->setValueForKey("ctx2", "context");
  auto client = Box::create({"credentials"});  // knows no "credentialsusername"

  auto controller = Box::create({"refreshing", "checking", "working", "coordinator", "mainContext", "client",
                                 "username", "posts", "postCount"},
                                {{"working", {"refreshing", "checking"}},
                                 {"mainContext", {"coordinator.context"}},
                                 {"username", {"client.credentialsusername"}},
                                 {"postCount", {"posts.@count"}}});
  controller->derive("working", [](const Box& b) {
    return Value(b.valueForKey("refreshing").boolValue() || b.valueForKey("checking").boolValue());
  });
  controller->derive("mainContext", [](const Box& b) { return b.valueForKeyPath("coordinator.context"); });
  controller->derive("username", [](const Box& b) { return b.valueForKeyPath("client.credentials"); });
  controller->derive("postCount", [](const Box& b) { return b.valueForKeyPath("posts.@count"); });
  controller->setValueForKey(coordinator1, "coordinator");

  Recorder working, context, username, count;
  auto t1 = controller->addObserver("working", New | Old, working.observer());
  auto t2 = controller->addObserver("mainContext", New | Old, context.observer());
  auto t3 = controller->addObserver("username", New, username.observer());
  auto t4 = controller->addObserver("postCount", New | Old, count.observer());

  controller->setValueForKey(true, "refreshing");
  controller->setValueForKey(true, "checking");
  controller->setValueForKey(false, "refreshing");
  ASSERT_EQ(working.count(), 3u);
  EXPECT_EQ(working.seen[0].oldValue, Value(false));
  EXPECT_EQ(working.seen[0].newValue, Value(true));
  EXPECT_EQ(working.seen[2].newValue, Value(true));

  coordinator1->setValueForKey("ctx1'", "context");
  ASSERT_EQ(context.count(), 1u);
  EXPECT_EQ(context.seen[0].oldValue, Value("ctx1"));
  EXPECT_EQ(context.seen[0].newValue, Value("ctx1'"));
  controller->setValueForKey(coordinator2, "coordinator");
  ASSERT_EQ(context.count(), 2u);
  EXPECT_EQ(context.seen[1].oldValue, Value("ctx1'"));
  EXPECT_EQ(context.seen[1].newValue, Value("ctx2"));
  coordinator1->setValueForKey("stale", "context");
  EXPECT_EQ(context.count(), 2u);
  coordinator2->setValueForKey("ctx2'", "context");
  EXPECT_EQ(context.count(), 3u);

  // A dependency through a key the intermediate object does not know must
  // neither throw nor go quiet when the intermediate object is replaced.
  client->setValueForKey("alice", "credentials");
  EXPECT_EQ(username.count(), 0u);
  EXPECT_NO_THROW(controller->setValueForKey(client, "client"));
  ASSERT_EQ(username.count(), 1u);
  EXPECT_EQ(username.seen[0].newValue, Value("alice"));
  controller->setValueForKey(Value(), "client");
  ASSERT_EQ(username.count(), 2u);
  EXPECT_TRUE(username.seen[1].newValue.isAbsent());

  controller->setValueForKey(Array{1, 2}, "posts");
  ASSERT_EQ(count.count(), 1u);
  EXPECT_TRUE(count.seen[0].oldValue.isAbsent());  // no collection: no count
  EXPECT_EQ(count.seen[0].newValue, Value(2));
  controller->setValueForKey(Array{1}, "posts");
  ASSERT_EQ(count.count(), 2u);
  EXPECT_EQ(count.seen[1].oldValue, Value(2));
  EXPECT_EQ(count.seen[1].newValue, Value(1));

  // Observing a derived key through a chain.
  auto app = Box::create({"controller"});
  app->setValueForKey(controller, "controller");
  Recorder chained;
  auto t5 = app->addObserver("controller.working", New, chained.observer());
  controller->setValueForKey(false, "checking");
  ASSERT_EQ(chained.count(), 1u);
  EXPECT_EQ(chained.seen[0].newValue, Value(false));
}

TEST(NSObjectObservation, DependencyOnAChainMovesWithTheChain) {
  // "current" depends on "holder.item.name": replacing holder, or the holder's
  // item, must both be followed.
  auto itemA = Box::create({"name"});
  itemA->setValueForKey("A", "name");
  auto itemB = Box::create({"name"});
  itemB->setValueForKey("B", "name");
  auto holder1 = Box::create({"item"});
  holder1->setValueForKey(itemA, "item");
  auto holder2 = Box::create({"item"});
  holder2->setValueForKey(itemB, "item");
  auto root = Box::create({"holder", "current"}, {{"current", {"holder.item.name"}}});
  root->derive("current", [](const Box& b) { return b.valueForKeyPath("holder.item.name"); });
  root->setValueForKey(holder1, "holder");

  Recorder r;
  auto token = root->addObserver("current", New | Old, r.observer());
  itemA->setValueForKey("A'", "name");
  holder1->setValueForKey(itemB, "item");
  itemA->setValueForKey("stale", "name");
  root->setValueForKey(holder2, "holder");
  holder1->setValueForKey(itemA, "item");
  itemB->setValueForKey("B'", "name");
  ASSERT_EQ(r.count(), 4u);
  EXPECT_EQ(r.seen[0].newValue, Value("A'"));
  EXPECT_EQ(r.seen[1].oldValue, Value("A'"));
  EXPECT_EQ(r.seen[1].newValue, Value("B"));
  EXPECT_EQ(r.seen[2].newValue, Value("B"));
  EXPECT_EQ(r.seen[3].oldValue, Value("B"));
  EXPECT_EQ(r.seen[3].newValue, Value("B'"));

  // Observing through a derived key: "selected" is holder.item, so when the
  // holder's item changes, "selected.name" must move to the new item.
  auto chooser = Box::create({"holder", "selected"}, {{"selected", {"holder.item"}}});
  chooser->derive("selected", [](const Box& b) { return b.valueForKeyPath("holder.item"); });
  chooser->setValueForKey(holder2, "holder");  // holds itemB
  Recorder names;
  auto nameToken = chooser->addObserver("selected.name", New | Old, names.observer());
  holder2->setValueForKey(itemA, "item");
  ASSERT_EQ(names.count(), 1u);
  EXPECT_EQ(names.seen[0].oldValue, Value("B'"));
  EXPECT_EQ(names.seen[0].newValue, Value("stale"));
  itemB->setValueForKey("B''", "name");
  EXPECT_EQ(names.count(), 1u) << "the previous item is no longer selected";
  itemA->setValueForKey("A''", "name");
  ASSERT_EQ(names.count(), 2u);
  EXPECT_EQ(names.seen[1].newValue, Value("A''"));
}

TEST(NSObjectObservation, DependencyCyclesTerminate) {
  auto box = Box::create({"a", "b", "c"}, {{"a", {"b"}}, {"b", {"a", "c"}}, {"c", {"c.x", "a"}}});
  Recorder r;
  auto token = box->addObserver("a", New, r.observer());
  box->setValueForKey(1, "c");
  EXPECT_GE(r.count(), 1u);
}

TEST(NSObjectObservation, NestedAndReentrantChanges) {
  auto box = Box::create({"x", "y"});
  box->setValueForKey(0, "x");
  Recorder r;
  auto token = box->addObserver("x", New | Old, r.observer());

  // Nested brackets of the same key: each did pairs with its own will.
  box->willChangeValueForKey("x");
  box->willChangeValueForKey("x");
  box->setValueForKey(5, "x");  // a full bracket inside
  box->didChangeValueForKey("x");
  box->didChangeValueForKey("x");
  ASSERT_EQ(r.count(), 3u);
  EXPECT_EQ(r.seen[0].oldValue, Value(0));
  EXPECT_EQ(r.seen[0].newValue, Value(5));
  EXPECT_EQ(r.seen[1].oldValue, Value(0));
  EXPECT_EQ(r.seen[2].oldValue, Value(0));

  // A callback that changes observed values again, including its own key.
  Recorder yChanges;
  auto yToken = box->addObserver("y", New, yChanges.observer());
  int depth = 0;
  auto reentrant = box->addObserver("x", New, [&](const std::string&, NSObject& object, const NSKeyValueChange& c) {
    if (c.newValue.integerValue() < 8) {
      ++depth;
      object.setValueForKey(c.newValue.integerValue() + 1, "x");
      object.setValueForKey(c.newValue, "y");
    }
  });
  box->setValueForKey(6, "x");
  EXPECT_EQ(box->valueForKey("x"), Value(8));
  EXPECT_EQ(depth, 2);
  ASSERT_EQ(yChanges.count(), 2u);
  EXPECT_EQ(yChanges.seen[0].newValue, Value(7));  // the innermost change is reported first
  EXPECT_EQ(yChanges.seen[1].newValue, Value(6));
}

TEST(NSObjectObservation, RemovalDuringCallbacks) {
  auto box = Box::create({"x"});
  int selfCalls = 0, victimCalls = 0, laterCalls = 0;
  NSKeyValueObservation selfRemoving, victim, later;
  selfRemoving = box->addObserver("x", New, [&](const std::string&, NSObject&, const NSKeyValueChange&) {
    ++selfCalls;
    selfRemoving.invalidate();  // removing itself
    box->removeObserver(victim);  // and another observer of the same change, not yet called
  });
  victim = box->addObserver("x", New, [&](const std::string&, NSObject&, const NSKeyValueChange&) { ++victimCalls; });
  later = box->addObserver("x", New, [&](const std::string&, NSObject&, const NSKeyValueChange&) { ++laterCalls; });
  box->setValueForKey(1, "x");
  box->setValueForKey(2, "x");
  EXPECT_EQ(selfCalls, 1);
  EXPECT_EQ(victimCalls, 0) << "an observer removed before its turn must not be called";
  EXPECT_EQ(laterCalls, 2);

  // Adding an observer from inside a callback.
  std::vector<NSKeyValueObservation> added;
  int addedCalls = 0;
  auto adder = box->addObserver("x", New, [&](const std::string&, NSObject& object, const NSKeyValueChange&) {
    added.push_back(object.addObserver("x", New, [&](const std::string&, NSObject&, const NSKeyValueChange&) {
      ++addedCalls;
    }));
  });
  box->setValueForKey(3, "x");
  box->setValueForKey(4, "x");
  EXPECT_EQ(added.size(), 2u);
  EXPECT_EQ(addedCalls, 1);

  // Ending an observation from a getter it is reading while it follows a
  // replaced object (regression: the rebuild went on with a freed tree).
  auto leaf = Box::create({"v"});
  auto holder = Box::create({"leaf"});
  NSKeyValueObservation reading;
  bool endWhileReading = false;
  int readingCalls = 0;
  holder->derive("leaf", [&](const Box&) {
    if (endWhileReading) reading.invalidate();
    return Value(leaf);
  });
  reading = holder->addObserver("leaf.v", New, [&](const std::string&, NSObject&, const NSKeyValueChange&) {
    ++readingCalls;
  });
  endWhileReading = true;
  holder->setValueForKey(leaf, "leaf");
  leaf->setValueForKey(1, "v");
  EXPECT_FALSE(reading.isValid());
  EXPECT_EQ(readingCalls, 0);
}

TEST(NSObjectObservation, RootLifetime) {
  // An observation outliving its root is inert and can still be invalidated.
  NSKeyValueObservation token;
  int calls = 0;
  {
    auto box = Box::create({"x"});
    token = box->addObserver("x", New, [&](const std::string&, NSObject&, const NSKeyValueChange&) { ++calls; });
    box->setValueForKey(1, "x");
  }
  EXPECT_EQ(calls, 1);
  token.invalidate();

  // An object that observes itself from its constructor, before it is owned by
  // a shared_ptr, and keeps the token as a member.
  struct SelfObserver : Box {
    SelfObserver() : Box({"x", "y"}, {}) {
      token = addObserver("x", New, [this](const std::string&, NSObject&, const NSKeyValueChange& c) {
        seen.push_back(c.newValue);
      });
    }
    std::vector<Value> seen;
    NSKeyValueObservation token;
  };
  {
    SelfObserver onStack;
    onStack.setValueForKey(4, "x");
    ASSERT_EQ(onStack.seen.size(), 1u);
    EXPECT_EQ(onStack.seen[0], Value(4));
  }
  auto owned = std::make_shared<SelfObserver>();
  owned->setValueForKey(5, "x");
  EXPECT_EQ(owned->seen.size(), 1u);
  owned.reset();  // the member token is destroyed with its root
}

TEST(NSObjectObservation, ConcurrentRegistrationRemovalAndChanges) {
  // Writers change the observed key and swap the intermediate object while
  // other threads keep adding and removing observers. A steady observer must
  // see every change exactly once, and no callback may run after its token
  // was invalidated.
  auto leaf1 = Box::create({"v"});
  auto leaf2 = Box::create({"v"});
  auto root = Box::create({"leaf", "count"}, {{"count", {"leaf.v"}}});
  root->setValueForKey(leaf1, "leaf");

  std::atomic<int> steadyLeaf{0}, steadyRoot{0};
  auto steady = leaf1->addObserver("v", NSKeyValueObservingOptions::None,
                                   [&](const std::string&, NSObject&, const NSKeyValueChange&) { ++steadyLeaf; });
  auto steadyCount = root->addObserver("leaf", NSKeyValueObservingOptions::None,
                                       [&](const std::string&, NSObject&, const NSKeyValueChange&) { ++steadyRoot; });

  constexpr int kWriters = 3, kChurners = 3, kChanges = 400, kSwaps = 100;
  std::atomic<int> lateCallbacks{0};
  std::atomic<int> working{kWriters + 1};  // churners go on until the writers and the swapper are done
  RunTogether(kWriters + 1 + kChurners, [&](int t) {
    if (t < kWriters) {
      for (int i = 0; i < kChanges; ++i) leaf1->setValueForKey(t * kChanges + i, "v");
      --working;
    } else if (t == kWriters) {
      for (int i = 0; i < kSwaps; ++i) root->setValueForKey(i % 2 ? leaf1 : leaf2, "leaf");
      --working;
    } else {
      const int c = t - kWriters - 1;
      int round = 0;
      while (working.load() > 0) {
        auto removed = std::make_shared<std::atomic<bool>>(false);
        auto check = [&lateCallbacks, removed](const std::string&, NSObject&, const NSKeyValueChange&) {
          std::this_thread::yield();  // widen the window between the validity check and the call's end
          if (removed->load()) ++lateCallbacks;
        };
        auto a = root->addObserver("leaf.v", New | Old | Prior, check);
        auto b = root->addObserver("count", New | Initial, check);
        auto d = leaf1->addObserver("v", Old, check);
        if ((round++ + c) % 2) {
          a.invalidate();
          b.invalidate();
          d.invalidate();
        } else {
          d = NSKeyValueObservation();
          b = std::move(a);
          b.invalidate();
        }
        removed->store(true);
      }
    }
  });

  EXPECT_EQ(steadyLeaf.load(), kWriters * kChanges);
  EXPECT_EQ(steadyRoot.load(), kSwaps);
  EXPECT_EQ(lateCallbacks.load(), 0);
}

TEST(NSObjectObservation, ChainRewiresConsistentlyUnderConcurrentSwaps) {
  // Two threads replace the intermediate object while a third changes both
  // candidates; afterwards the observation must sit on whichever object is
  // current, and only there.
  auto a = Box::create({"v"});
  auto b = Box::create({"v"});
  auto root = Box::create({"leaf"});
  root->setValueForKey(a, "leaf");
  std::atomic<int> calls{0};
  auto token = root->addObserver("leaf.v", NSKeyValueObservingOptions::None,
                                 [&](const std::string&, NSObject&, const NSKeyValueChange&) { ++calls; });
  RunTogether(3, [&](int t) {
    for (int i = 0; i < 300; ++i) {
      if (t < 2) {
        root->setValueForKey(t == 0 ? a : b, "leaf");
      } else {
        a->setValueForKey(i, "v");
        b->setValueForKey(i, "v");
      }
    }
  });
  auto current = root->valueForKey("leaf").as<Box>();
  auto other = current == a ? b : a;
  calls = 0;
  other->setValueForKey(-1, "v");
  EXPECT_EQ(calls.load(), 0);
  current->setValueForKey(-1, "v");
  EXPECT_EQ(calls.load(), 1);
}
