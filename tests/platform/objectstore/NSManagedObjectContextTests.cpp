#include <gtest/gtest.h>

#include "ObjectStoreTestSupport.h"
#include "platform/objectstore/NSPersistentStore.h"

namespace {

std::shared_ptr<NSManagedObject> only(const Array& objects) {
  EXPECT_EQ(objects.size(), 1u);
  return objects.empty() ? nullptr : objects.front().as<NSManagedObject>();
}

std::vector<std::string> tagTitles(const std::shared_ptr<NSManagedObject>& post) {
  std::vector<std::string> titles;
  for (auto& tag : post->valueForKey("tags").collectionElements()) titles.push_back(valueForKey(tag, "title").asString());
  std::sort(titles.begin(), titles.end());
  return titles;
}

}  // namespace

TEST(NSManagedObjectContext, SavedObjectsReadBackWithEveryTypeAfterReopen) {
  TestStore stack;
  auto context = stack.newContext();
  auto post = insertPost(*context, "a1", "First", {"swift", "c++"});
  post->setValueForKey(Value(NSDate(7200.5)), "date");
  post->setValueForKey(Value(true), "unread");
  post->setValueForKey(Value(42), "source");
  post->setValueForKey(Value(2.25), "rating");
  post->setValueForKey(Value(Data{0, 1, 2, 255}), "payload");
  auto temporaryURI = post->objectID()->URIRepresentation();
  EXPECT_TRUE(post->objectID()->isTemporaryID());
  EXPECT_EQ(temporaryURI.rfind("x-coredata:///Post/t", 0), 0u) << temporaryURI;

  NSErrorPtr error;
  ASSERT_TRUE(context->save(&error)) << error->description();
  EXPECT_FALSE(context->hasChanges());
  EXPECT_FALSE(post->objectID()->isTemporaryID());
  std::string uri = post->objectID()->URIRepresentation();
  EXPECT_EQ(uri, "x-coredata://" + stack.store->identifier() + "/Post/p1");

  // A second coordinator on the same file sees everything, and the URI
  // names the same row there.
  auto other = stack.reopen();
  ASSERT_TRUE(other);
  EXPECT_EQ(other->persistentStores().front()->identifier(), stack.store->identifier());
  auto reader = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  reader->setPersistentStoreCoordinator(other);
  auto objectID = other->managedObjectIDForURIRepresentation(uri);
  ASSERT_TRUE(objectID);
  EXPECT_EQ(objectID, other->managedObjectIDForURIRepresentation(uri)) << "one ID object per row";
  auto read = reader->existingObjectWithID(objectID, &error);
  ASSERT_TRUE(read) << error->description();
  EXPECT_EQ(read->valueForKey("title"), Value("First"));
  EXPECT_EQ(read->valueForKey("url"), Value("https://example.com/a1"));
  EXPECT_EQ(read->valueForKey("date").asDate(), NSDate(7200.5));
  EXPECT_TRUE(read->valueForKey("unread").isBool());
  EXPECT_TRUE(read->valueForKey("unread").boolValue());
  EXPECT_EQ(read->valueForKey("source"), Value(42));
  EXPECT_EQ(read->valueForKey("rating"), Value(2.25));
  EXPECT_EQ(read->valueForKey("payload").asData(), (Data{0, 1, 2, 255}));
  EXPECT_EQ(tagTitles(read), (std::vector<std::string>{"c++", "swift"}));
  for (auto& tag : read->valueForKey("tags").collectionElements()) {
    auto posts = valueForKey(tag, "posts");
    EXPECT_EQ(posts.count(), 1u);
    EXPECT_TRUE(posts.asSet().contains(Value(read)));
  }

  // URIs that name nothing resolve to nothing.
  EXPECT_FALSE(other->managedObjectIDForURIRepresentation(temporaryURI));
  EXPECT_FALSE(other->managedObjectIDForURIRepresentation("x-coredata://" + stack.store->identifier() + "/Nope/p1"));
  EXPECT_FALSE(other->managedObjectIDForURIRepresentation("x-coredata://OTHER-STORE/Post/p1"));
  EXPECT_FALSE(other->managedObjectIDForURIRepresentation("x-coredata://" + stack.store->identifier() + "/Post/p0"));
  EXPECT_FALSE(other->managedObjectIDForURIRepresentation("x-coredata://" + stack.store->identifier() + "/Post/p1x"));
  EXPECT_FALSE(other->managedObjectIDForURIRepresentation("https://example.com"));
  auto missing = other->managedObjectIDForURIRepresentation("x-coredata://" + stack.store->identifier() + "/Post/p99");
  ASSERT_TRUE(missing);
  EXPECT_FALSE(reader->existingObjectWithID(missing, &error));
  EXPECT_EQ(error->code(), NSManagedObjectReferentialIntegrityError);
}

TEST(NSManagedObjectContext, BooleansNeverSetReadAsNoAndDefaultsApply) {
  TestStore stack;
  auto context = stack.newContext();
  auto post = insertPost(*context, "b1");
  EXPECT_EQ(post->valueForKey("unread"), Value(false));
  EXPECT_EQ(post->valueForKey("shared"), Value(true));
  EXPECT_TRUE(post->valueForKey("title").isAbsent());
  auto collection = context->insertNewObjectForEntityForName("Collection");
  EXPECT_EQ(collection->valueForKey("order"), Value(7));
  ASSERT_TRUE(context->save());

  auto reader = stack.newContext();
  auto read = only(fetchAll(*reader, "Post"));
  EXPECT_EQ(read->valueForKey("unread"), Value(false));
  EXPECT_EQ(read->valueForKey("deleting"), Value(false));
  auto request = NSFetchRequest::fetchRequestWithEntityName("Post");
  request->setPredicate(NSPredicate::predicateWithFormat("deleting == NO AND unread == NO AND shared == YES"));
  EXPECT_EQ(reader->countForFetchRequest(request), 1);
}

TEST(NSManagedObjectContext, MissingRequiredAttributeFailsTheSaveAndWritesNothing) {
  TestStore stack;
  auto context = stack.newContext();
  insertPost(*context, "ok");
  auto broken = context->insertNewObjectForEntityForName("Post");
  broken->setValueForKey(Value("no-url"), "identifier");
  NSErrorPtr error;
  EXPECT_FALSE(context->save(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
  EXPECT_EQ(error->code(), NSValidationMissingMandatoryPropertyError);
  EXPECT_EQ(error->userInfo()[NSValidationKeyErrorKey], Value("url"));
  EXPECT_EQ(error->userInfo()[NSValidationObjectErrorKey].as<NSManagedObject>(), broken);
  EXPECT_TRUE(context->hasChanges());
  EXPECT_TRUE(broken->objectID()->isTemporaryID());
  EXPECT_EQ(stack.newContext()->countForFetchRequest(NSFetchRequest::fetchRequestWithEntityName("Post")), 0);

  // Two invalid objects: both are reported.
  auto tag = context->insertNewObjectForEntityForName("Tag");
  error.reset();
  EXPECT_FALSE(context->save(&error));
  EXPECT_EQ(error->code(), NSValidationMultipleErrorsError);
  EXPECT_EQ(error->userInfo()[NSDetailedErrorsKey].count(), 2u);

  // Fixing them lets the same context save everything.
  broken->setValueForKey(Value("https://example.com/fixed"), "url");
  tag->setValueForKey(Value("fixed"), "title");
  ASSERT_TRUE(context->save(&error)) << error->description();
  EXPECT_EQ(stack.newContext()->countForFetchRequest(NSFetchRequest::fetchRequestWithEntityName("Post")), 2);
}

TEST(NSManagedObjectContext, FetchesAndCountsSeeUnsavedInsertsUpdatesAndDeletes) {
  TestStore stack;
  auto context = stack.newContext();
  for (int i = 0; i < 6; ++i) insertPost(*context, "p" + std::to_string(i), "title " + std::to_string(i));
  ASSERT_TRUE(context->save());

  auto work = stack.newContext();
  auto byID = [&](const std::string& id) { return only(fetchAll(*work, "Post", "identifier == %@", {Value(id)})); };
  byID("p1")->setValueForKey(Value(true), "unread");  // now matches
  work->deleteObject(byID("p2"));
  auto fresh = insertPost(*work, "n1", "title new");
  fresh->setValueForKey(Value(true), "unread");
  insertPost(*work, "n2", "title other");  // does not match
  byID("p3")->setValueForKey(Value("renamed"), "identifier");

  EXPECT_EQ(stringsOf(fetchAll(*work, "Post", "unread == YES"), "identifier"), (std::vector<std::string>{"n1", "p1"}));
  auto request = NSFetchRequest::fetchRequestWithEntityName("Post");
  request->setPredicate(NSPredicate::predicateWithFormat("unread == YES"));
  EXPECT_EQ(work->countForFetchRequest(request), 2);
  EXPECT_EQ(work->countForFetchRequest(NSFetchRequest::fetchRequestWithEntityName("Post")), 7);
  EXPECT_TRUE(fetchAll(*work, "Post", "identifier == 'p2'").empty()) << "deleted objects are not found";
  EXPECT_TRUE(fetchAll(*work, "Post", "identifier == 'p3'").empty()) << "changed values are matched";
  EXPECT_EQ(fetchAll(*work, "Post", "identifier == 'renamed'").size(), 1u);

  // Sorted and limited across stored and pending objects.
  request = NSFetchRequest::fetchRequestWithEntityName("Post");
  request->setSortDescriptors({NSSortDescriptor("title", false)});
  request->setFetchLimit(3);
  auto sorted = work->executeFetchRequest(request);
  ASSERT_TRUE(sorted);
  std::vector<std::string> titles;
  for (auto& object : *sorted) titles.push_back(valueForKey(object, "title").asString());
  EXPECT_EQ(titles, (std::vector<std::string>{"title other", "title new", "title 5"}));

  // Dictionaries and IDs see the same state.
  request = NSFetchRequest::fetchRequestWithEntityName("Post");
  request->setResultType(NSDictionaryResultType);
  request->setPropertiesToFetch({"identifier", "unread"});
  request->setSortDescriptors({NSSortDescriptor("identifier", true)});
  auto dictionaries = work->executeFetchRequest(request);
  ASSERT_TRUE(dictionaries);
  std::vector<std::string> ids;
  for (auto& d : *dictionaries) {
    ids.push_back(d.asDictionary()["identifier"].asString());
    EXPECT_EQ(d.asDictionary().size(), 2u);
  }
  EXPECT_EQ(ids, (std::vector<std::string>{"n1", "n2", "p0", "p1", "p4", "p5", "renamed"}));
  request->setResultType(NSManagedObjectIDResultType);
  auto objectIDs = work->executeFetchRequest(request);
  ASSERT_TRUE(objectIDs);
  EXPECT_EQ(objectIDs->size(), 7u);
  EXPECT_EQ(objectIDs->front().as<NSManagedObjectID>(), fresh->objectID());

  // Without pending changes: the stored rows only (as this context's
  // objects, so in their current state).
  request = NSFetchRequest::fetchRequestWithEntityName("Post");
  request->setIncludesPendingChanges(false);
  EXPECT_EQ(work->countForFetchRequest(request), 6);
  auto storedOnly = work->executeFetchRequest(request);
  ASSERT_TRUE(storedOnly);
  EXPECT_EQ(stringsOf(*storedOnly, "identifier"), (std::vector<std::string>{"p0", "p1", "p2", "p4", "p5", "renamed"}));

  // Nothing of it reached the store before the save.
  EXPECT_EQ(stack.newContext()->countForFetchRequest(NSFetchRequest::fetchRequestWithEntityName("Post")), 6);
  ASSERT_TRUE(work->save());
  auto after = stack.newContext();
  EXPECT_EQ(stringsOf(fetchAll(*after, "Post", "unread == YES"), "identifier"), (std::vector<std::string>{"n1", "p1"}));
  EXPECT_EQ(after->countForFetchRequest(NSFetchRequest::fetchRequestWithEntityName("Post")), 7);
}

TEST(NSManagedObjectContext, InversesStayInStepAndDeleteRulesNullify) {
  TestStore stack;
  auto context = stack.newContext();
  auto post = insertPost(*context, "r1", "", {"a", "b"});
  auto a = tagNamed(*context, "a");
  auto b = tagNamed(*context, "b");
  auto c = tagNamed(*context, "c");
  EXPECT_TRUE(a->valueForKey("posts").asSet().contains(Value(post)));

  post->setValueForKey(Value(Set{Value(b), Value(c)}), "tags");
  EXPECT_EQ(tagTitles(post), (std::vector<std::string>{"b", "c"}));
  EXPECT_EQ(a->valueForKey("posts").count(), 0u);
  EXPECT_EQ(c->valueForKey("posts").count(), 1u);
  c->removeObjectFromRelationship(post, "posts");
  EXPECT_EQ(tagTitles(post), (std::vector<std::string>{"b"}));

  auto f1 = context->insertNewObjectForEntityForName("Folder");
  auto f2 = context->insertNewObjectForEntityForName("Folder");
  post->setValueForKey(Value(f1), "folder");
  EXPECT_TRUE(f1->valueForKey("items").asSet().contains(Value(post)));
  f2->addObjectToRelationship(post, "items");
  EXPECT_EQ(post->valueForKey("folder").as<NSManagedObject>(), f2);
  EXPECT_EQ(f1->valueForKey("items").count(), 0u);
  ASSERT_TRUE(context->save());

  auto reader = stack.newContext();
  auto read = only(fetchAll(*reader, "Post"));
  EXPECT_EQ(tagTitles(read), (std::vector<std::string>{"b"}));
  auto folder = read->valueForKey("folder").as<NSManagedObject>();
  ASSERT_TRUE(folder);
  EXPECT_EQ(folder->objectID(), f2->objectID());
  EXPECT_EQ(folder->valueForKey("items").count(), 1u);

  // Deleting the folder nullifies the post's side; deleting the post takes
  // it out of its tags.
  reader->deleteObject(folder);
  reader->processPendingChanges();
  EXPECT_TRUE(read->valueForKey("folder").isAbsent());
  auto tagB = only(fetchAll(*reader, "Tag", "title == 'b'"));
  reader->deleteObject(read);
  reader->processPendingChanges();
  EXPECT_EQ(tagB->valueForKey("posts").count(), 0u);
  EXPECT_EQ(stringsOf(fetchAll(*reader, "Tag", "posts.@count == 0"), "title"),
            (std::vector<std::string>{"a", "b", "c"}));
  ASSERT_TRUE(reader->save());

  auto last = stack.newContext();
  EXPECT_TRUE(fetchAll(*last, "Post").empty());
  EXPECT_TRUE(fetchAll(*last, "Folder").size() == 1u);
  EXPECT_EQ(stringsOf(fetchAll(*last, "Tag", "posts.@count == 0"), "title"), (std::vector<std::string>{"a", "b", "c"}));
}

TEST(NSManagedObjectContext, DidSaveNotificationCarriesTheSavedObjects) {
  TestStore stack;
  auto context = stack.newContext();
  auto keep = insertPost(*context, "keep");
  auto drop = insertPost(*context, "drop");
  ASSERT_TRUE(context->save());

  std::vector<NSNotification> seen;
  auto token = NSNotificationCenter::defaultCenter().addObserver(
      NSManagedObjectContextDidSaveNotification, context, [&](const NSNotification& n) { seen.push_back(n); });
  keep->setValueForKey(Value("changed"), "title");
  context->deleteObject(drop);
  auto added = insertPost(*context, "added");
  auto untouched = insertPost(*context, "untouched-then-reverted");
  ASSERT_TRUE(context->save());
  ASSERT_EQ(seen.size(), 1u);
  auto& info = seen[0].userInfo;
  EXPECT_EQ(seen[0].object.get(), context.get());
  EXPECT_EQ(info[NSInsertedObjectsKey].asSet(), (Set{Value(added), Value(untouched)}));
  EXPECT_EQ(info[NSUpdatedObjectsKey].asSet(), (Set{Value(keep)}));
  EXPECT_EQ(info[NSDeletedObjectsKey].asSet(), (Set{Value(drop)}));
  EXPECT_FALSE(added->objectID()->isTemporaryID());

  // A value set back to what was saved is no change at all.
  keep->setValueForKey(Value("other"), "title");
  keep->setValueForKey(Value("changed"), "title");
  EXPECT_FALSE(keep->hasChanges());
  EXPECT_FALSE(context->hasChanges());
  ASSERT_TRUE(context->save());
  EXPECT_EQ(seen.size(), 1u) << "a save with nothing to write posts nothing";
}

TEST(NSManagedObjectContext, ChangedAndCommittedValuesTrackTheLastSave) {
  TestStore stack;
  auto context = stack.newContext();
  auto post = insertPost(*context, "c1", "before", {"x"});
  EXPECT_TRUE(post->isInserted());
  EXPECT_EQ(post->changedValues()["title"], Value("before"));
  EXPECT_TRUE(post->committedValuesForKeys().empty());
  ASSERT_TRUE(context->save());
  EXPECT_FALSE(post->isInserted());
  EXPECT_TRUE(post->changedValues().empty());

  post->setValueForKey(Value("after"), "title");
  post->setValueForKey(Value(Set{}), "tags");
  EXPECT_TRUE(post->isUpdated());
  auto changed = post->changedValues();
  EXPECT_EQ(changed.size(), 2u);
  EXPECT_EQ(changed["title"], Value("after"));
  EXPECT_EQ(changed["tags"].count(), 0u);
  auto committed = post->committedValuesForKeys({"title", "tags", "identifier"});
  EXPECT_EQ(committed["title"], Value("before"));
  EXPECT_EQ(committed["tags"].count(), 1u);
  EXPECT_EQ(committed["identifier"], Value("c1"));

  // Key-value observers hear about every change, primitive sets are silent.
  std::vector<Value> heard;
  auto observation = post->addObserver("title", NSKeyValueObservingOptions::New,
                                       [&](const std::string&, NSObject&, const NSKeyValueChange& change) {
                                         heard.push_back(change.newValue);
                                       });
  post->setValueForKey(Value("observed"), "title");
  post->setPrimitiveValueForKey(Value("silent"), "title");
  EXPECT_EQ(heard, (std::vector<Value>{Value("observed")}));
  EXPECT_EQ(post->valueForKey("title"), Value("silent"));
  ASSERT_TRUE(context->save());
  EXPECT_EQ(only(fetchAll(*stack.newContext(), "Post"))->valueForKey("title"), Value("silent"));

  // Programming errors are loud.
  EXPECT_THROW(post->valueForKey("nope"), std::logic_error);
  EXPECT_THROW(post->setValueForKey(Value(1), "nope"), std::logic_error);
  EXPECT_THROW(context->insertNewObjectForEntityForName("Nope"), std::logic_error);
}

// Outside data may hold anything: a value of the wrong kind is refused
// without a throw, a change or a notification, and dictionaries apply the
// rest of their entries and say what they skipped.
TEST(NSManagedObjectContext, ValuesOfTheWrongKindAreRefusedAndTheRestApplies) {
  TestStore stack;
  auto context = stack.newContext();
  auto post = insertPost(*context, "w1", "kept", {"t"});
  auto folder = context->insertNewObjectForEntityForName("Folder");
  post->setValueForKey(Value(folder), "folder");
  ASSERT_TRUE(context->save());
  const Dictionary before = post->committedValuesForKeys();
  auto tag = post->valueForKey("tags").collectionElements().front();

  int heard = 0;
  std::vector<NSKeyValueObservation> observations;
  for (const char* key : {"title", "date", "unread", "tags", "folder"}) {
    observations.push_back(post->addObserver(key, NSKeyValueObservingOptions::New,
                                             [&](const std::string&, NSObject&, const NSKeyValueChange&) { ++heard; }));
  }
  struct Case {
    const char* key;
    Value value;
  };
  for (const Case& wrong : std::vector<Case>{{"title", Value(12)},
                                             {"date", Value("yesterday")},
                                             {"unread", Value("yes")},
                                             {"tags", Value("a b")},
                                             {"tags", Value(Dictionary{{"t", Value(true)}})},
                                             {"tags", tag},
                                             {"tags", Value(Set{tag, Value(folder)})},
                                             {"tags", Value(Array{tag, Value::null()})},
                                             {"folder", tag}}) {
    SCOPED_TRACE(std::string(wrong.key) + " = " + wrong.value.description());
    NSErrorPtr error;
    EXPECT_FALSE(post->validateValueForKey(wrong.value, wrong.key, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSManagedObjectValidationError);
    EXPECT_EQ(error->userInfo()[NSValidationKeyErrorKey], Value(wrong.key));
    EXPECT_EQ(error->userInfo()[NSValidationObjectErrorKey], Value(post));
    post->setValueForKey(wrong.value, wrong.key);
    post->setPrimitiveValueForKey(wrong.value, wrong.key);
    EXPECT_FALSE(post->hasChanges());
    EXPECT_EQ(post->committedValuesForKeys(), before);
  }
  EXPECT_EQ(heard, 0);
  EXPECT_FALSE(context->hasChanges());

  // A dictionary: the entries that fit are set, the others listed.
  NSErrorPtr error;
  EXPECT_FALSE(post->setValuesForKeysWithDictionary(
      {{"title", Value("changed")}, {"date", Value("yesterday")}, {"shared", Value(1)}, {"tags", Value("a b")}},
      &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSValidationMultipleErrorsError);
  std::vector<std::string> skipped;
  for (auto& detail : error->userInfo()[NSDetailedErrorsKey].collectionElements()) {
    skipped.push_back(detail.as<NSError>()->userInfo()[NSValidationKeyErrorKey].asString());
  }
  EXPECT_EQ(skipped, (std::vector<std::string>{"date", "tags"}));
  EXPECT_EQ(post->valueForKey("title"), Value("changed"));
  EXPECT_EQ(post->valueForKey("shared"), Value(true));
  EXPECT_EQ(tagTitles(post), std::vector<std::string>{"t"});
  EXPECT_TRUE(post->setValuesForKeysWithDictionary({{"title", Value("again")}}));

  // An unknown key is a programming error, found before anything is set.
  EXPECT_THROW(post->setValuesForKeysWithDictionary({{"title", Value("never")}, {"zzz", Value(1)}}), std::logic_error);
  EXPECT_EQ(post->valueForKey("title"), Value("again"));
  ASSERT_TRUE(context->save());
}

TEST(NSManagedObjectContext, FaultsLoadOnFirstUseAndVanishedRowsReadEmpty) {
  TestStore stack;
  auto context = stack.newContext();
  auto post = insertPost(*context, "f1", "faulted", {"t"});
  ASSERT_TRUE(context->save());
  auto objectID = post->objectID();

  auto reader = stack.newContext();
  auto fault = reader->objectWithID(objectID);
  EXPECT_TRUE(fault->isFault());
  EXPECT_EQ(reader->objectWithID(objectID), fault);
  EXPECT_EQ(fault->valueForKey("title"), Value("faulted"));
  EXPECT_FALSE(fault->isFault());
  EXPECT_EQ(tagTitles(fault), (std::vector<std::string>{"t"}));

  // Deleted by someone else before this fault fired.
  auto ghost = stack.newContext()->objectWithID(objectID);
  context->deleteObject(post);
  ASSERT_TRUE(context->save());
  EXPECT_TRUE(ghost->valueForKey("title").isAbsent());
  EXPECT_EQ(ghost->valueForKey("unread"), Value(false));
  NSErrorPtr error;
  EXPECT_FALSE(stack.newContext()->existingObjectWithID(objectID, &error));
  EXPECT_EQ(error->code(), NSManagedObjectReferentialIntegrityError);
}

namespace {

class HookedPost : public NSManagedObject {
public:
  void awakeFromInsert() override {
    NSManagedObject::awakeFromInsert();
    ++inserts;
    setPrimitiveValueForKey(Value(NSDate(1000)), "date");
  }
  void awakeFromFetch() override {
    NSManagedObject::awakeFromFetch();
    ++fetches;
  }
  void willTurnIntoFault() override {
    ++faults;
    NSManagedObject::willTurnIntoFault();
  }
  bool validateForInsert(NSErrorPtr* error) override {
    if (!NSManagedObject::validateForInsert(error)) return false;
    if (primitiveValueForKey("identifier").isAbsent()) setPrimitiveValueForKey(Value("derived"), "identifier");
    return true;
  }
  Value valueForKey(const std::string& key) const override {
    if (key == "shout") return Value(valueForKey("title").asString() + "!");
    return NSManagedObject::valueForKey(key);
  }
  int inserts = 0, fetches = 0, faults = 0;
};

}  // namespace

TEST(NSManagedObjectContext, SubclassHooksRunAtTheirMoments) {
  // The class is set before the model is built (entities freeze then), so
  // rebuild the test model with the subclass registered on Post.
  auto base = makeTestModel();
  std::vector<std::shared_ptr<NSEntityDescription>> fresh;
  for (auto& entity : base->entities()) {
    auto copy = NSEntityDescription::create(entity->name());
    for (auto& attribute : entity->attributes()) {
      copy->addAttribute(attribute->name(), attribute->attributeType(),
                         {.optional = attribute->isOptional(), .indexed = attribute->isIndexed(),
                          .defaultValue = attribute->defaultValue()});
    }
    for (auto& relationship : entity->relationships()) {
      copy->addRelationship(relationship->name(), relationship->destinationEntityName(),
                            {.toMany = relationship->isToMany(), .inverseName = relationship->inverseName()});
    }
    if (copy->name() == "Post") copy->setManagedObjectClass<HookedPost>("HookedPost");
    fresh.push_back(copy);
  }
  TestStore stack(NSManagedObjectModel::create(fresh));
  auto context = stack.newContext();
  auto object = std::dynamic_pointer_cast<HookedPost>(context->insertNewObjectForEntityForName("Post"));
  ASSERT_TRUE(object);
  EXPECT_EQ(object->className(), "HookedPost");
  EXPECT_EQ(object->inserts, 1);
  EXPECT_EQ(object->valueForKey("date").asDate(), NSDate(1000));
  object->setValueForKey(Value("https://example.com/x"), "url");
  object->setValueForKey(Value("hi"), "title");
  EXPECT_EQ(object->valueForKey("shout"), Value("hi!"));
  EXPECT_EQ(object->valueForKeyPath("shout"), Value("hi!"));
  ASSERT_TRUE(context->save());
  EXPECT_EQ(object->valueForKey("identifier"), Value("derived"));

  auto reader = stack.newContext();
  auto fetched = std::dynamic_pointer_cast<HookedPost>(only(fetchAll(*reader, "Post")));
  ASSERT_TRUE(fetched);
  EXPECT_EQ(fetched->fetches, 1);
  EXPECT_EQ(fetched->inserts, 0);
  EXPECT_EQ(fetched->valueForKey("identifier"), Value("derived"));
  reader->refreshObject(fetched, false);
  EXPECT_EQ(fetched->faults, 1);
  EXPECT_TRUE(fetched->isFault());
  EXPECT_EQ(fetched->valueForKey("title"), Value("hi"));
  EXPECT_EQ(fetched->fetches, 2);
}

TEST(NSManagedObjectContext, RefreshAndResetDropOrKeepChanges) {
  TestStore stack;
  auto context = stack.newContext();
  auto post = insertPost(*context, "x", "saved");
  ASSERT_TRUE(context->save());

  auto other = stack.newContext();
  auto theirs = only(fetchAll(*other, "Post"));
  theirs->setValueForKey(Value(5), "source");
  ASSERT_TRUE(other->save());

  post->setValueForKey(Value("mine"), "title");
  context->refreshObject(post, true);
  EXPECT_EQ(post->valueForKey("title"), Value("mine")) << "own change kept";
  EXPECT_EQ(post->valueForKey("source"), Value(5)) << "stored change read";
  EXPECT_EQ(post->committedValuesForKeys({"title"})["title"], Value("saved"));
  ASSERT_TRUE(context->save()) << "the refreshed version does not conflict";

  post->setValueForKey(Value("dropped"), "title");
  context->refreshObject(post, false);
  EXPECT_FALSE(context->hasChanges());
  EXPECT_EQ(post->valueForKey("title"), Value("mine"));

  insertPost(*context, "y");
  context->reset();
  EXPECT_FALSE(context->hasChanges());
  EXPECT_TRUE(context->registeredObjects().empty());
  EXPECT_FALSE(post->managedObjectContext());
  EXPECT_EQ(context->countForFetchRequest(NSFetchRequest::fetchRequestWithEntityName("Post")), 1);
}

TEST(NSManagedObjectContext, StaleRowsFailTheSaveWithAConflictAndWriteNothing) {
  TestStore stack;
  auto context = stack.newContext();
  insertPost(*context, "k", "original");
  ASSERT_TRUE(context->save());

  // A second process reads the row, the first changes it, the second saves.
  auto otherCoordinator = stack.reopen();
  auto theirs = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  theirs->setPersistentStoreCoordinator(otherCoordinator);
  auto stale = only(fetchAll(*theirs, "Post"));
  auto mine = only(fetchAll(*context, "Post"));
  mine->setValueForKey(Value("first"), "title");
  ASSERT_TRUE(context->save());

  stale->setValueForKey(Value("second"), "title");
  auto extra = insertPost(*theirs, "extra");
  NSErrorPtr error;
  EXPECT_FALSE(theirs->save(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSManagedObjectMergeError);
  auto conflicts = error->userInfo()["conflictList"].asArray();
  ASSERT_EQ(conflicts.size(), 1u);
  EXPECT_EQ(conflicts[0].asDictionary()["objectID"].as<NSManagedObjectID>(), stale->objectID());
  EXPECT_TRUE(extra->objectID()->isTemporaryID());
  auto check = stack.newContext();
  EXPECT_EQ(only(fetchAll(*check, "Post"))->valueForKey("title"), Value("first"));

  // Deleting a row that changed underneath conflicts too.
  theirs->refreshObject(stale, false);
  EXPECT_EQ(stale->valueForKey("title"), Value("first"));
  theirs->deleteObject(extra);
  mine->setValueForKey(Value("third"), "title");
  ASSERT_TRUE(context->save());
  theirs->deleteObject(stale);
  EXPECT_FALSE(theirs->save(&error));
  EXPECT_EQ(error->code(), NSManagedObjectMergeError);
  EXPECT_EQ(check->countForFetchRequest(NSFetchRequest::fetchRequestWithEntityName("Post")), 1);
}

TEST(NSManagedObjectContext, CascadeAndDenyDeleteRules) {
  auto parent = NSEntityDescription::create("Parent");
  parent->addRelationship("children", "Child",
                          {.toMany = true, .inverseName = "parent", .deleteRule = NSDeleteRule::Cascade});
  parent->addRelationship("keys", "Child", {.toMany = true, .inverseName = "lock", .deleteRule = NSDeleteRule::Deny});
  auto child = NSEntityDescription::create("Child");
  child->addAttribute("name", NSAttributeType::String);
  child->addRelationship("parent", "Parent", {.inverseName = "children"});
  child->addRelationship("lock", "Parent", {.inverseName = "keys"});
  TestStore stack(NSManagedObjectModel::create({parent, child}));
  auto context = stack.newContext();
  auto family = context->insertNewObjectForEntityForName("Parent");
  for (auto* name : {"a", "b"}) {
    auto kid = context->insertNewObjectForEntityForName("Child");
    kid->setValueForKey(Value(name), "name");
    kid->setValueForKey(Value(family), "parent");
  }
  auto lock = context->insertNewObjectForEntityForName("Parent");
  auto key = context->insertNewObjectForEntityForName("Child");
  key->setValueForKey(Value("key"), "name");
  lock->addObjectToRelationship(key, "keys");
  EXPECT_EQ(key->valueForKey("lock").as<NSManagedObject>(), lock);
  ASSERT_TRUE(context->save());

  context->deleteObject(family);
  context->deleteObject(lock);
  NSErrorPtr error;
  EXPECT_FALSE(context->save(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSValidationRelationshipDeniedDeleteError);
  EXPECT_EQ(error->userInfo()[NSValidationKeyErrorKey], Value("keys"));
  EXPECT_EQ(stringsOf(fetchAll(*context, "Child"), "name"), (std::vector<std::string>{"key"}))
      << "the cascade already took the children out of this context's view";

  context->deleteObject(key);
  ASSERT_TRUE(context->save(&error)) << error->description();
  auto check = stack.newContext();
  EXPECT_TRUE(fetchAll(*check, "Child").empty());
  EXPECT_TRUE(fetchAll(*check, "Parent").empty());
}
