#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/valid.h>

#include <map>
#include <memory>
#include <set>
#include <string>

#include "model/ZBTarrowCollection.h"
#include "model/ZBTarrowPinboardPost.h"
#include "model/ZBTarrowSearch.h"
#include "platform/archive/NSKeyedArchiver.h"
#include "platform/archive/NSKeyedUnarchiver.h"
#include "platform/foundation/NSPropertyListSerialization.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "store/StoreTestSupport.h"
#include "store/ZBTarrowDataStoreBackupGenerator.h"
#include "store/ZBTarrowDataStoreCoordinator.h"
#include "support/RunLoopTestHelper.h"

namespace {

const std::string kVersion = "version";
const std::string kCollections = "collections";
const std::string kSearches = "searches";

std::string describe(const NSErrorPtr& error) { return error ? error->description() : "no error"; }

// One item as the store holds it: its dictionary form without the archive,
// and the predicate object itself (archives are compared by what they hold).
struct Item {
  Dictionary values;
  NSPredicatePtr predicate;
  bool predicateHasRelativeDate = false;
};
using Items = std::map<std::string, Item>;

// A coordinator set up in a container of its own (built-in items included).
// Only one may exist at a time: the container is chosen by the environment.
class BackupStore {
public:
  BackupStore() : _coordinator(ZBTarrowDataStoreCoordinator::create()) {
    NSErrorPtr error;
    EXPECT_TRUE(_coordinator->setup(&error)) << describe(error);
  }
  ~BackupStore() { DrainMainLoop(); }  // the merges into the main context

  const ZBTarrowDataStoreCoordinatorPtr& coordinator() const { return _coordinator; }
  const NSManagedObjectContextPtr& context() const { return _coordinator->rootManagedObjectContext(); }
  void perform(const std::function<void()>& block) const { context()->performBlockAndWait(block); }

  std::optional<Data> backup(NSErrorPtr* error = nullptr) const {
    std::optional<Data> data;
    perform([&] { data = ZBTarrowDataStoreBackupGenerator().createBackupFromContext(context(), error); });
    return data;
  }
  bool restore(const Data& data, NSErrorPtr* error = nullptr) const {
    bool restored = false;
    perform([&] { restored = ZBTarrowDataStoreBackupGenerator().restoreBackup(data, context(), error); });
    return restored;
  }

  // Every item of the entity by identifier, read back from the store.
  Items items(const std::string& entityName) const {
    Items result;
    perform([&] {
      context()->reset();
      NSErrorPtr error;
      auto fetched = context()->executeFetchRequest(NSFetchRequest::fetchRequestWithEntityName(entityName), &error);
      ASSERT_TRUE(fetched) << describe(error);
      for (const Value& value : *fetched) {
        auto exporting = value.as<ZBTarrowManagedObjectExporting>();
        Item item{exporting->dictionaryRepresentation(), nullptr};
        if (auto collection = value.as<ZBTarrowCollection>()) {
          item.values.remove(ZBTarrowCollectionPredicateKey);
          item.predicate = collection->predicate();
          item.predicateHasRelativeDate = collection->predicateHasRelativeDate();
        }
        std::string identifier = item.values[ZBTarrowCollectionIdentifierKey].asString();
        EXPECT_FALSE(result.contains(identifier)) << entityName << " " << identifier << " twice";
        result[identifier] = std::move(item);
      }
    });
    return result;
  }
  Items collections() const { return items(ZBTarrowCollectionEntityName); }
  Items searches() const { return items(ZBTarrowSearchEntityName); }

private:
  StoreEnvironment _environment;
  ZBTarrowDataStoreCoordinatorPtr _coordinator;
};

void expectSameItems(const Items& actual, const Items& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  for (const auto& [identifier, item] : expected) {
    auto found = actual.find(identifier);
    ASSERT_NE(found, actual.end()) << identifier;
    EXPECT_EQ(found->second.values, item.values)
        << identifier << "\n  actual:   " << Value(found->second.values).description()
        << "\n  expected: " << Value(item.values).description();
    ASSERT_EQ(bool(found->second.predicate), bool(item.predicate)) << identifier;
    if (item.predicate) {
      EXPECT_TRUE(found->second.predicate->isEqual(*item.predicate)) << identifier;
      EXPECT_EQ(found->second.predicate->predicateFormat(), item.predicate->predicateFormat()) << identifier;
    }
    EXPECT_EQ(found->second.predicateHasRelativeDate, item.predicateHasRelativeDate) << identifier;
  }
}

// The user's own sidebar: collections with relative dates and compound
// predicates, one without a predicate, and two feed searches. Also edits a
// built-in collection, which must stay out of backups all the same.
void addUserItems(const BackupStore& store) {
  store.perform([&] {
    auto& context = *store.context();
    struct CollectionEntry {
      const char* identifier;
      const char* title;
      const char* format;
      std::vector<Value> arguments;
      std::int64_t order;
      bool hidden;
    };
    for (const CollectionEntry& entry : std::vector<CollectionEntry>{
             {"LAST-WEEK", "Unread this week", "relative_date < $7__days AND unread == YES", {}, 10, false},
             {"CAFES",
              "Cafés of two months",
              "NOT (shared == NO OR relative_date >= $2__months) AND ANY tags.title ==[cd] %@",
              {Value("café")},
              -3,
              true},
             {"MIXED",
              "Today's reading",
              "(ANY tags.title IN %@ OR url BEGINSWITH[c] \"https://\") AND NOT dead == YES AND "
              "relative_date > $12__hours AND tags.@count > 1",
              {Value(Array{Value("c++"), Value("sqlite")})},
              7,
              false},
             {"EVERYTHING", "Everything I keep", nullptr, {}, 0, false}}) {
      auto collection = context.insertNewObject<ZBTarrowCollection>(ZBTarrowCollectionEntityName);
      collection->setValueForKey(entry.identifier, ZBTarrowCollectionIdentifierKey);
      collection->setValueForKey(entry.title, ZBTarrowCollectionTitleKey);
      collection->setValueForKey(true, ZBTarrowCollectionEditableKey);
      collection->setValueForKey(entry.order, ZBTarrowCollectionOrderKey);
      collection->setValueForKey(entry.hidden, ZBTarrowCollectionHiddenKey);
      if (entry.format) {
        NSErrorPtr error;
        auto predicate = NSPredicate::predicateWithFormat(entry.format, entry.arguments, &error);
        ASSERT_TRUE(predicate) << entry.format << ": " << describe(error);
        collection->setPredicate(predicate);
      }
    }
    auto wikipedia = context.insertNewObject<ZBTarrowSearch>(ZBTarrowSearchEntityName);
    wikipedia->updateWithDictionaryRepresentation({{ZBTarrowSearchTitleKey, Value("Maciej on C++")},
                                                   {ZBTarrowSearchEditableKey, Value(true)},
                                                   {ZBTarrowSearchOrderKey, Value(4)},
                                                   {ZBTarrowSearchHiddenKey, Value(true)},
                                                   {ZBTarrowSearchMethodKey, Value("popular/wikipedia")},
                                                   {ZBTarrowSearchUsernameKey, Value("maciej")},
                                                   {ZBTarrowSearchTagsKey, Value("c++ sqlite")},
                                                   {ZBTarrowSearchAuthenticatedKey, Value(true)}});
    auto bare = context.insertNewObject<ZBTarrowSearch>(ZBTarrowSearchEntityName);
    bare->updateWithDictionaryRepresentation({{ZBTarrowSearchTitleKey, Value("Recent")},
                                              {ZBTarrowSearchEditableKey, Value(true)},
                                              {ZBTarrowSearchMethodKey, Value("recent")}});

    auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowCollectionEntityName);
    request->setPredicate(NSPredicate::predicateWithFormat("identifier == \"UNREAD\""));
    auto unread = context.executeFetchRequest(request);
    ASSERT_TRUE(unread && unread->size() == 1);
    unread->front().as<NSManagedObject>()->setValueForKey("To Read", ZBTarrowCollectionTitleKey);
    NSErrorPtr error;
    ASSERT_TRUE(context.save(&error)) << describe(error);
  });
}

Items editableOnly(const Items& items) {
  Items result;
  for (const auto& [identifier, item] : items) {
    if (item.values[ZBTarrowCollectionEditableKey].boolValue()) result[identifier] = item;
  }
  return result;
}

Dictionary documentOf(const Data& data) {
  NSErrorPtr error;
  Value document = NSPropertyListSerialization::propertyListWithData(data, nullptr, &error);
  EXPECT_TRUE(document.isDictionary()) << describe(error);
  return document.asDictionary();
}

Data xmlData(const Value& plist) {
  NSErrorPtr error;
  Data data = NSPropertyListSerialization::dataWithPropertyList(plist, NSPropertyListFormat::XML_v1_0, &error);
  EXPECT_FALSE(data.empty()) << describe(error);
  return data;
}

// The document with the entry of kind at index changed by edit.
Data withEntry(const Dictionary& document, const std::string& kind, std::size_t index,
               const std::function<void(Dictionary&)>& edit) {
  Array entries = document[kind].asArray();
  Dictionary entry = entries.at(index).asDictionary();
  edit(entry);
  entries[index] = Value(entry);
  Dictionary changed = document;
  changed.set(kind, Value(entries));
  return xmlData(Value(changed));
}

std::size_t indexOfIdentifier(const Dictionary& document, const std::string& kind, const std::string& identifier) {
  const Array& entries = document[kind].asArray();
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (entries[i].asDictionary()[ZBTarrowCollectionIdentifierKey] == Value(identifier)) return i;
  }
  ADD_FAILURE() << identifier << " is not in " << kind;
  return 0;
}

// The backup of a store with the user's items, with what they were.
struct Snapshot {
  Data backup;
  Items collections;
  Items searches;
};

Snapshot userBackup() {
  BackupStore store;
  addUserItems(store);
  NSErrorPtr error;
  auto backup = store.backup(&error);
  EXPECT_TRUE(backup) << describe(error);
  return {backup.value_or(Data{}), editableOnly(store.collections()), editableOnly(store.searches())};
}

}  // namespace

TEST(ZBTarrowDataStoreBackupGenerator, RoundTripRestoresTheUserItemsIntoAFreshContainer) {
  Snapshot original;
  {
    BackupStore store;
    // Built-in items only: an empty document.
    auto empty = store.backup();
    ASSERT_TRUE(empty);
    EXPECT_EQ(Value(documentOf(*empty)),
              Value(Dictionary{{kVersion, Value(1)}, {kCollections, Value(Array{})}, {kSearches, Value(Array{})}}));
  }
  original = userBackup();
  ASSERT_EQ(original.collections.size(), 4u);
  ASSERT_EQ(original.searches.size(), 2u);

  // The document holds the editable items only, each in its dictionary form.
  Dictionary document = documentOf(original.backup);
  EXPECT_EQ(document.size(), 3u);
  EXPECT_TRUE(document[kVersion].isInteger());
  EXPECT_EQ(document[kVersion], Value(1));
  std::set<std::string> written;
  for (const std::string& kind : {kCollections, kSearches}) {
    for (const Value& entry : document[kind].asArray()) {
      const Dictionary& values = entry.asDictionary();
      written.insert(values[ZBTarrowCollectionIdentifierKey].asString());
      EXPECT_TRUE(values[ZBTarrowCollectionEditableKey].isBool());
      EXPECT_TRUE(values[ZBTarrowCollectionOrderKey].isInteger());
      EXPECT_EQ(values[ZBTarrowCollectionPredicateKey].isData(), kind == kCollections);
    }
  }
  const std::string bareSearch = [&] {
    for (const auto& [identifier, item] : original.searches) {
      if (!item.values.contains(ZBTarrowSearchUsernameKey)) return identifier;
    }
    return std::string();
  }();
  ASSERT_FALSE(bareSearch.empty());
  EXPECT_EQ(written,
            (std::set<std::string>{"LAST-WEEK", "CAFES", "MIXED", "EVERYTHING", original.searches.begin()->first,
                                   std::next(original.searches.begin())->first}));
  const Dictionary& bareEntry =
      document[kSearches].asArray()[indexOfIdentifier(document, kSearches, bareSearch)].asDictionary();
  EXPECT_FALSE(bareEntry.contains(ZBTarrowSearchUsernameKey));
  EXPECT_FALSE(bareEntry.contains(ZBTarrowSearchTagsKey));

  // A fresh container with a few posts: the restored items equal the
  // originals, the built-in items are the fresh ones, and the restored
  // relative-date collection counts against the posts it finds.
  BackupStore fresh;
  Items builtInCollections = fresh.collections();
  Items builtInSearches = fresh.searches();
  fresh.perform([&] {
    auto& context = *fresh.context();
    struct PostEntry {
      const char* url;
      double daysAgo;
      bool unread;
    };
    for (const PostEntry& entry :
         {PostEntry{"https://example.com/3", 3, true}, PostEntry{"https://example.com/10", 10, true},
          PostEntry{"https://example.com/1", 1, false}}) {
      auto post = context.insertNewObjectForEntityForName(ZBTarrowPinboardPostEntityName);
      post->setValueForKey(entry.url, ZBTarrowPinboardPostURLKey);
      post->setValueForKey(NSDate::date().dateByAddingTimeInterval(-entry.daysAgo * 86400), ZBTarrowPinboardPostDateKey);
      post->setValueForKey(entry.unread, ZBTarrowPinboardPostUnreadKey);
    }
    ASSERT_TRUE(context.save());
  });
  NSErrorPtr error;
  ASSERT_TRUE(fresh.restore(original.backup, &error)) << describe(error);

  Items collections = fresh.collections();
  Items searches = fresh.searches();
  expectSameItems(editableOnly(collections), original.collections);
  expectSameItems(editableOnly(searches), original.searches);
  EXPECT_EQ(collections.size(), builtInCollections.size() + 4);
  EXPECT_EQ(searches.size(), builtInSearches.size() + 2);
  for (const auto& [identifier, item] : builtInCollections) EXPECT_EQ(collections[identifier].values, item.values);
  EXPECT_EQ(collections["UNREAD"].values[ZBTarrowCollectionTitleKey], Value("Unread"));

  fresh.perform([&] {
    auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowCollectionEntityName);
    request->setPredicate(NSPredicate::predicateWithFormat("identifier == \"LAST-WEEK\""));
    auto found = fresh.context()->executeFetchRequest(request);
    ASSERT_TRUE(found && found->size() == 1);
    auto lastWeek = found->front().as<ZBTarrowCollection>();
    lastWeek->refreshPostCount();
    EXPECT_EQ(lastWeek->postCount(), 1u);
  });

  // Backing up the restored store writes the same items again.
  auto again = fresh.backup();
  ASSERT_TRUE(again);
  Dictionary second = documentOf(*again);
  for (const std::string& kind : {kCollections, kSearches}) {
    ASSERT_EQ(second[kind].count(), document[kind].count()) << kind;
    for (const Value& entry : second[kind].asArray()) {
      Dictionary values = entry.asDictionary();
      const std::string identifier = values[ZBTarrowCollectionIdentifierKey].asString();
      Dictionary before = document[kind].asArray()[indexOfIdentifier(document, kind, identifier)].asDictionary();
      if (kind == kCollections) {
        Value archived =
            NSKeyedUnarchiver::unarchivedObjectOfClass("NSPredicate", values[ZBTarrowCollectionPredicateKey].asData());
        Value archivedBefore =
            NSKeyedUnarchiver::unarchivedObjectOfClass("NSPredicate", before[ZBTarrowCollectionPredicateKey].asData());
        EXPECT_EQ(archived, archivedBefore) << identifier;
        values.remove(ZBTarrowCollectionPredicateKey);
        before.remove(ZBTarrowCollectionPredicateKey);
      }
      EXPECT_EQ(values, before) << identifier;
    }
  }
}

TEST(ZBTarrowDataStoreBackupGenerator, RestoringAgainReplacesByIdentifierAndNeverDuplicates) {
  Snapshot original = userBackup();
  BackupStore store;
  const std::size_t builtInCollections = store.collections().size();
  const std::size_t builtInSearches = store.searches().size();
  ASSERT_TRUE(store.restore(original.backup));

  // The user edits a restored collection and adds one of their own.
  store.perform([&] {
    auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowCollectionEntityName);
    request->setPredicate(NSPredicate::predicateWithFormat("identifier == \"CAFES\""));
    auto found = store.context()->executeFetchRequest(request);
    ASSERT_TRUE(found && found->size() == 1);
    auto cafes = found->front().as<ZBTarrowCollection>();
    cafes->setValueForKey("Coffee", ZBTarrowCollectionTitleKey);
    cafes->setValueForKey(99, ZBTarrowCollectionOrderKey);
    cafes->setPredicate(NSPredicate::predicateWithFormat("starred == YES"));
    auto local = store.context()->insertNewObject<ZBTarrowCollection>(ZBTarrowCollectionEntityName);
    local->setValueForKey("LOCAL", ZBTarrowCollectionIdentifierKey);
    local->setValueForKey("Only here", ZBTarrowCollectionTitleKey);
    local->setValueForKey(true, ZBTarrowCollectionEditableKey);
    ASSERT_TRUE(store.context()->save());
  });

  // Twice more: the backup's values come back, the local item stays, nothing doubles.
  for (int round = 0; round < 2; ++round) {
    NSErrorPtr error;
    ASSERT_TRUE(store.restore(original.backup, &error)) << describe(error);
    Items collections = store.collections();
    EXPECT_EQ(collections.size(), builtInCollections + 5) << round;
    EXPECT_EQ(store.searches().size(), builtInSearches + 2) << round;
    ASSERT_TRUE(collections.contains("LOCAL"));
    EXPECT_EQ(collections["LOCAL"].values[ZBTarrowCollectionTitleKey], Value("Only here"));
    collections.erase("LOCAL");
    expectSameItems(editableOnly(collections), original.collections);
    expectSameItems(editableOnly(store.searches()), original.searches);
  }

  // One document naming the same new identifier twice makes one item, with
  // the later entry's values.
  Dictionary document = documentOf(original.backup);
  Array entries = document[kCollections].asArray();
  Dictionary twin = entries[indexOfIdentifier(document, kCollections, "MIXED")].asDictionary();
  twin.set(ZBTarrowCollectionIdentifierKey, Value("TWIN"));
  twin.set(ZBTarrowCollectionTitleKey, Value("First"));
  entries.push_back(Value(twin));
  twin.set(ZBTarrowCollectionTitleKey, Value("Second"));
  entries.push_back(Value(twin));
  document.set(kCollections, Value(entries));
  ASSERT_TRUE(store.restore(xmlData(Value(document))));
  Items collections = store.collections();
  EXPECT_EQ(collections.size(), builtInCollections + 6);
  EXPECT_EQ(collections["TWIN"].values[ZBTarrowCollectionTitleKey], Value("Second"));

  // Entries without an identifier match nothing: each becomes an item of its
  // own and keeps the identifier it was given.
  twin.remove(ZBTarrowCollectionIdentifierKey);
  Array nameless;
  for (const char* title : {"Nameless", "Still nameless"}) {
    twin.set(ZBTarrowCollectionTitleKey, Value(title));
    nameless.push_back(Value(twin));
  }
  Dictionary search = document[kSearches].asArray().at(0).asDictionary();
  search.remove(ZBTarrowSearchIdentifierKey);
  ASSERT_TRUE(store.restore(xmlData(
      Value(Dictionary{{kCollections, Value(nameless)}, {kSearches, Value(Array{Value(search), Value(search)})}}))));
  collections = store.collections();
  Items searches = store.searches();
  EXPECT_EQ(collections.size(), builtInCollections + 8);
  EXPECT_EQ(searches.size(), builtInSearches + 4);
  EXPECT_FALSE(collections.contains("") || searches.contains(""));
  std::multiset<std::string> titles;
  for (const auto& [identifier, item] : collections) titles.insert(item.values[ZBTarrowCollectionTitleKey].asString());
  EXPECT_EQ(titles.count("Nameless"), 1u);
  EXPECT_EQ(titles.count("Still nameless"), 1u);
}

TEST(ZBTarrowDataStoreBackupGenerator, OtherVersionsAndDamagedPredicatesRestoreWhatTheyCan) {
  Snapshot original = userBackup();
  const Dictionary document = documentOf(original.backup);
  BackupStore store;
  ASSERT_TRUE(store.restore(original.backup));
  const std::size_t collectionCount = store.collections().size();

  // "version" is not read: 7, a text, or none at all restore like 1. A
  // missing kind restores nothing of that kind; keys the entities do not
  // store are ignored.
  for (const Value& version : {Value(7), Value("seven"), Value()}) {
    Dictionary changed = document;
    changed.set(kVersion, version);
    Array searches = changed[kSearches].asArray();
    Dictionary search = searches.at(0).asDictionary();
    search.set(ZBTarrowSearchTitleKey, Value("Version " + version.description()));
    search.set("color", Value("red"));
    searches[0] = Value(search);
    changed.set(kSearches, Value(searches));
    Array collections = changed[kCollections].asArray();
    Dictionary collection = collections.at(0).asDictionary();
    collection.set(ZBTarrowCollectionPostCountKey, Value(12));
    collection.set(ZBTarrowCollectionDisplayPredicateKey, Value(Data{1, 2, 3}));
    collection.set("smartness", Value(Dictionary{{"level", Value(3)}}));
    collections[0] = Value(collection);
    changed.set(kCollections, Value(collections));
    NSErrorPtr error;
    ASSERT_TRUE(store.restore(xmlData(Value(changed)), &error)) << version.description() << ": " << describe(error);
    Items restored = store.searches();
    const std::string identifier = search[ZBTarrowSearchIdentifierKey].asString();
    EXPECT_EQ(restored[identifier].values[ZBTarrowSearchTitleKey], search[ZBTarrowSearchTitleKey]);
    EXPECT_FALSE(restored[identifier].values.contains("color"));
  }
  Dictionary collectionsOnly = document;
  collectionsOnly.remove(kSearches);
  collectionsOnly.set(kCollections, Value(Array{document[kCollections].asArray()[0]}));
  const std::size_t searchCount = store.searches().size();
  ASSERT_TRUE(store.restore(xmlData(Value(collectionsOnly))));
  EXPECT_EQ(store.searches().size(), searchCount);
  EXPECT_EQ(store.collections().size(), collectionCount);

  // Damaged predicate data: the other values apply and the stored predicate
  // stays; a new collection comes without one. Any plist format will do.
  const Data archive = document[kCollections]
                           .asArray()[indexOfIdentifier(document, kCollections, "CAFES")]
                           .asDictionary()[ZBTarrowCollectionPredicateKey]
                           .asData();
  const Data truncated(archive.begin(), archive.begin() + static_cast<std::ptrdiff_t>(archive.size() / 2));
  Data flipped = archive;
  for (std::size_t i = flipped.size() / 3; i < flipped.size(); i += 7) flipped[i] ^= 0x5a;
  int round = 0;
  for (const Data& damaged : {truncated, flipped, Data{}, Data{'b', 'p', 'l', 'i', 's', 't', '0', '0'},
                              NSKeyedArchiver::archivedDataWithRootObject(Value("unread == YES"))}) {
    const std::string title = "Damaged " + std::to_string(++round);
    Dictionary changed = document;
    Array collections = changed[kCollections].asArray();
    Dictionary cafes = collections[indexOfIdentifier(document, kCollections, "CAFES")].asDictionary();
    cafes.set(ZBTarrowCollectionPredicateKey, Value(damaged));
    cafes.set(ZBTarrowCollectionTitleKey, Value(title));
    cafes.set(ZBTarrowCollectionHiddenKey, Value(false));
    collections[indexOfIdentifier(document, kCollections, "CAFES")] = Value(cafes);
    Dictionary newcomer = cafes;
    newcomer.set(ZBTarrowCollectionIdentifierKey, Value("NEW-" + std::to_string(round)));
    collections.push_back(Value(newcomer));
    changed.set(kCollections, Value(collections));
    NSErrorPtr error;
    Data binary = NSPropertyListSerialization::dataWithPropertyList(Value(changed), NSPropertyListFormat::Binary_v1_0);
    ASSERT_TRUE(store.restore(binary, &error)) << title << ": " << describe(error);

    Items restored = store.collections();
    const Item& stored = restored["CAFES"];
    EXPECT_EQ(stored.values[ZBTarrowCollectionTitleKey], Value(title));
    EXPECT_EQ(stored.values[ZBTarrowCollectionHiddenKey], Value(false));
    ASSERT_TRUE(stored.predicate) << title;
    EXPECT_TRUE(stored.predicate->isEqual(*original.collections["CAFES"].predicate)) << title;
    const Item& added = restored["NEW-" + std::to_string(round)];
    EXPECT_EQ(added.values[ZBTarrowCollectionTitleKey], Value(title));
    EXPECT_EQ(added.values[ZBTarrowCollectionOrderKey], Value(-3));
    EXPECT_FALSE(added.predicate) << title;
  }
}

TEST(ZBTarrowDataStoreBackupGenerator, HostileDocumentsAreRefusedAndTheStoreKeepsEverything) {
  Snapshot original = userBackup();
  const Dictionary document = documentOf(original.backup);
  BackupStore store;
  ASSERT_TRUE(store.restore(original.backup));
  const Items collections = store.collections();
  const Items searches = store.searches();

  auto expectRefused = [&](const Data& data, std::int64_t code, const std::string& what) {
    NSErrorPtr error;
    EXPECT_FALSE(store.restore(data, &error)) << what;
    ASSERT_TRUE(error) << what;
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain) << what;
    EXPECT_EQ(error->code(), code) << what << ": " << describe(error);
    EXPECT_FALSE(error->localizedDescription().empty());
    EXPECT_FALSE(store.restore(data)) << what;  // without an error slot
    bool changed = true;
    store.perform([&] { changed = store.context()->hasChanges(); });
    EXPECT_FALSE(changed) << what;
    expectSameItems(store.collections(), collections);
    expectSameItems(store.searches(), searches);
  };

  // Not a property list.
  const std::string half(original.backup.begin(), original.backup.begin() + original.backup.size() / 2);
  for (const std::string& bytes : {std::string(), std::string("collections = ()"), half,
                                   std::string("bplist00\xff\xff\xff\xff", 12), std::string("\0\0\0", 3)}) {
    expectRefused(Data(bytes.begin(), bytes.end()), NSPropertyListReadCorruptError, "bytes: " + bytes.substr(0, 16));
  }

  // A property list but not a backup. Every title of the document is
  // changed, so that applying the entries before the bad one would show.
  Dictionary renamed = document;
  for (const std::string& kind : {kCollections, kSearches}) {
    Array entries;
    for (const Value& entry : document[kind].asArray()) {
      Dictionary values = entry.asDictionary();
      values.set(ZBTarrowCollectionTitleKey, Value("Renamed"));
      entries.push_back(Value(values));
    }
    renamed.set(kind, Value(entries));
  }
  const std::size_t lastCollection = renamed[kCollections].count() - 1;
  const std::size_t lastSearch = renamed[kSearches].count() - 1;
  auto setting = [](const std::string& key, Value value) {
    return [key, value](Dictionary& entry) { entry.set(key, value); };
  };
  const std::vector<std::pair<std::string, Data>> shapes = {
      {"array at the top", xmlData(Value(Array{Value(renamed)}))},
      {"string at the top", xmlData(Value("backup"))},
      {"collections a dictionary", xmlData(Value(Dictionary{{kCollections, Value(renamed)}}))},
      {"searches a string",
       xmlData(Value(Dictionary{{kCollections, renamed[kCollections]}, {kSearches, Value("all")}}))},
      {"entry a string",
       xmlData(Value(Dictionary{{kCollections, Value(Array{renamed[kCollections].asArray()[0], Value("x")})}}))},
      {"title a number", withEntry(renamed, kCollections, lastCollection, setting(ZBTarrowCollectionTitleKey, 5))},
      {"order a text", withEntry(renamed, kCollections, lastCollection, setting(ZBTarrowCollectionOrderKey, "ten"))},
      {"identifier a number",
       withEntry(renamed, kCollections, lastCollection, setting(ZBTarrowCollectionIdentifierKey, 42))},
      {"predicate a text",
       withEntry(renamed, kCollections, lastCollection, setting(ZBTarrowCollectionPredicateKey, "unread == YES"))},
      {"predicate an array",
       withEntry(renamed, kCollections, lastCollection, setting(ZBTarrowCollectionPredicateKey, Value(Array{})))},
      {"hidden a date", withEntry(renamed, kSearches, lastSearch, setting(ZBTarrowSearchHiddenKey, NSDate::date()))},
      {"tags an array",
       withEntry(renamed, kSearches, lastSearch, setting(ZBTarrowSearchTagsKey, Value(Array{Value("a"), Value("b")})))},
  };
  for (const auto& [what, data] : shapes) expectRefused(data, NSFileReadCorruptFileError, what);
}

TEST(ZBTarrowDataStoreBackupGenerator, StoreFailuresReachTheCaller) {
  Snapshot original = userBackup();
  BackupStore store;
  ASSERT_TRUE(store.coordinator()->teardown());

  // No store to read from: no document rather than an empty one.
  NSErrorPtr error;
  EXPECT_FALSE(store.backup(&error));
  EXPECT_TRUE(error);

  // No store to save into: NO with the save's error; the restored items
  // wait in the context for the caller to decide.
  error = nullptr;
  EXPECT_FALSE(store.restore(original.backup, &error));
  EXPECT_TRUE(error);
  store.perform([&] {
    EXPECT_TRUE(store.context()->hasChanges());
    EXPECT_EQ(store.context()->insertedObjects().size(), 6u);
    store.context()->reset();
  });
}

TEST(ZBTarrowDataStoreBackupGenerator, DocumentIsAValidXMLPropertyList) {
  Snapshot original = userBackup();
  const Data& bytes = original.backup;

  // The property-list document type, checked by libxml2 against its DTD.
  static const char kPlistDTD[] =
      "<!ENTITY % plistObject \"(array | data | date | dict | real | integer | string | true | false )\" >\n"
      "<!ELEMENT plist %plistObject;>\n"
      "<!ATTLIST plist version CDATA \"1.0\" >\n"
      "<!ELEMENT array (%plistObject;)*>\n"
      "<!ELEMENT dict (key, %plistObject;)*>\n"
      "<!ELEMENT key (#PCDATA)>\n"
      "<!ELEMENT string (#PCDATA)>\n"
      "<!ELEMENT data (#PCDATA)>\n"
      "<!ELEMENT date (#PCDATA)>\n"
      "<!ELEMENT true EMPTY>\n"
      "<!ELEMENT false EMPTY>\n"
      "<!ELEMENT real (#PCDATA)>\n"
      "<!ELEMENT integer (#PCDATA)>\n";
  std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> doc(
      xmlReadMemory(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()), "backup.plist",
                    nullptr, XML_PARSE_NONET),
      &xmlFreeDoc);
  ASSERT_TRUE(doc) << "not well-formed XML";
  xmlParserInputBufferPtr input =
      xmlParserInputBufferCreateMem(kPlistDTD, sizeof kPlistDTD - 1, XML_CHAR_ENCODING_UTF8);
  std::unique_ptr<xmlDtd, decltype(&xmlFreeDtd)> dtd(xmlIOParseDTD(nullptr, input, XML_CHAR_ENCODING_UTF8),
                                                     &xmlFreeDtd);
  ASSERT_TRUE(dtd);
  std::unique_ptr<xmlValidCtxt, decltype(&xmlFreeValidCtxt)> validation(xmlNewValidCtxt(), &xmlFreeValidCtxt);
  EXPECT_EQ(xmlValidateDtd(validation.get(), doc.get(), dtd.get()), 1);

  xmlDtdPtr declared = xmlGetIntSubset(doc.get());
  ASSERT_TRUE(declared);
  EXPECT_STREQ(reinterpret_cast<const char*>(declared->name), "plist");
  EXPECT_STREQ(reinterpret_cast<const char*>(declared->ExternalID), "-//Apple//DTD PLIST 1.0//EN");
  xmlNodePtr root = xmlDocGetRootElement(doc.get());
  std::unique_ptr<xmlChar, decltype(xmlFree)> version(xmlGetProp(root, BAD_CAST "version"), xmlFree);
  ASSERT_TRUE(version);
  EXPECT_STREQ(reinterpret_cast<const char*>(version.get()), "1.0");
  ASSERT_TRUE(xmlFirstElementChild(root));
  EXPECT_STREQ(reinterpret_cast<const char*>(xmlFirstElementChild(root)->name), "dict");

  // And the platform reads it back as XML, to the same document.
  NSPropertyListFormat format = NSPropertyListFormat::Binary_v1_0;
  NSErrorPtr error;
  Value reread = NSPropertyListSerialization::propertyListWithData(bytes, &format, &error);
  ASSERT_TRUE(reread.isDictionary()) << describe(error);
  EXPECT_EQ(format, NSPropertyListFormat::XML_v1_0);
  EXPECT_EQ(reread.asDictionary()[kCollections].count(), 4u);
  EXPECT_EQ(reread.asDictionary()[kSearches].count(), 2u);
  EXPECT_EQ(xmlData(reread), bytes);
}
