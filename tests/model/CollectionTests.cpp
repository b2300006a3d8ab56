#include <gtest/gtest.h>

#include "model/ModelTestSupport.h"
#include "platform/archive/NSKeyedArchiver.h"
#include "platform/predicate/NSComparisonPredicate.h"
#include "platform/predicate/NSCompoundPredicate.h"

namespace {

NSPredicatePtr parse(const std::string& format, std::vector<Value> arguments = {}) {
  NSErrorPtr error;
  auto predicate = NSPredicate::predicateWithFormat(format, std::move(arguments), &error);
  EXPECT_TRUE(predicate) << format << ": " << (error ? error->description() : "");
  return predicate;
}

NSPredicatePtr onOrAfter(NSDate date) {
  return parse("%K >= %@", {Value(ZBTarrowPinboardPostDateKey), Value(date)});
}

// Records every value a collection announces for "postCount".
struct CountRecorder {
  explicit CountRecorder(ZBTarrowCollection& collection)
      : observation(collection.addObserver(ZBTarrowCollectionPostCountKey, NSKeyValueObservingOptions::New,
                                           [this](const std::string&, NSObject&, const NSKeyValueChange& change) {
                                             counts.push_back(change.newValue.integerValue());
                                           })) {}
  std::vector<std::int64_t> counts;
  NSKeyValueObservation observation;
};

}  // namespace

TEST(Collection, DisplayPredicateMakesEveryRelativeDateConcreteWhateverTheOperator) {
  InjectedTime time("Europe/Berlin");
  const NSDate now = wallClock(2024, 3, 31, 12);
  time.setNow(now);
  ModelStore store;
  auto context = store.newContext();

  auto collection = insertCollection(*context, "relative_date < $7__days AND unread == YES");
  EXPECT_TRUE(collection->predicateHasRelativeDate());
  auto expected = NSCompoundPredicate::andPredicateWithSubpredicates(
      {onOrAfter(wallClock(2024, 3, 24, 12)), parse("unread == YES")});
  EXPECT_TRUE(collection->displayPredicate()->isEqual(*expected)) << collection->displayPredicate()->predicateFormat();
  // The stored predicate keeps its token.
  EXPECT_TRUE(collection->predicate()->isEqual(*parse("relative_date < $7__days AND unread == YES")));

  // Nested conditions, variable on the left, and an unknown unit (date on or after now).
  collection->setPredicate(parse("NOT (shared == NO OR $2__months == relative_date) AND relative_date > $3__Days"));
  expected = NSCompoundPredicate::andPredicateWithSubpredicates(
      {NSCompoundPredicate::notPredicateWithSubpredicate(NSCompoundPredicate::orPredicateWithSubpredicates(
           {parse("shared == NO"), onOrAfter(wallClock(2024, 1, 31, 12))})),
       onOrAfter(now)});
  EXPECT_TRUE(collection->displayPredicate()->isEqual(*expected)) << collection->displayPredicate()->predicateFormat();
  // The date follows the clock on every read.
  time.clock->advance(3600);
  EXPECT_FALSE(collection->displayPredicate()->isEqual(*expected));

  // Without relative dates the display predicate is the stored one.
  auto plain = parse("ANY tags.title ==[cd] 'swift' AND date < %@", {Value(now)});
  collection->setPredicate(plain);
  EXPECT_FALSE(collection->predicateHasRelativeDate());
  EXPECT_EQ(collection->displayPredicate(), plain);
  collection->setPredicate(nullptr);
  EXPECT_FALSE(collection->predicateHasRelativeDate());
  EXPECT_FALSE(collection->displayPredicate());
  EXPECT_TRUE(collection->valueForKey(ZBTarrowCollectionDisplayPredicateKey).isAbsent());
}

TEST(Collection, DisplayPredicateObserversHearOfPredicateChanges) {
  ModelStore store;
  auto context = store.newContext();
  auto collection = insertCollection(*context, "unread == YES");
  std::vector<Value> seen;
  auto observation = collection->addObserver(ZBTarrowCollectionDisplayPredicateKey, NSKeyValueObservingOptions::New,
                                             [&](const std::string&, NSObject&, const NSKeyValueChange& change) {
                                               seen.push_back(change.newValue);
                                             });
  collection->setPredicate(parse("starred == YES"));
  ASSERT_EQ(seen.size(), 1u);
  ASSERT_TRUE(seen[0].as<NSPredicate>());
  EXPECT_TRUE(seen[0].as<NSPredicate>()->isEqual(*parse("starred == YES")));
}

TEST(Collection, LiveCountFollowsInsertsDeletesDeletingFlagsAndPredicateChanges) {
  ModelStore store;
  {
    auto seed = store.newContext();
    for (int i = 0; i < 6; ++i) {
      auto post = insertPost(*seed, "https://example.org/" + std::to_string(i));
      post->setUnread(i % 2 == 0);  // 0, 2, 4 unread
      post->setDeleting(i == 4);
    }
    NSErrorPtr error;
    ASSERT_TRUE(seed->save(&error)) << error->description();
  }
  auto context = store.newContext();
  auto posts = fetchAll(*context, ZBTarrowPinboardPostEntityName);
  auto post = [&](int i) {
    for (auto& object : posts) {
      auto candidate = object.as<ZBTarrowPinboardPost>();
      if (candidate->url() == "https://example.org/" + std::to_string(i)) return candidate;
    }
    ADD_FAILURE() << "no post " << i;
    return std::shared_ptr<ZBTarrowPinboardPost>();
  };

  auto unread = insertCollection(*context, "%K == YES", {Value(ZBTarrowPinboardPostUnreadKey)});
  auto all = insertCollection(*context, "");
  // Counted at once, deleting posts left out.
  EXPECT_EQ(unread->postCount(), 2u);
  EXPECT_EQ(all->postCount(), 5u);
  CountRecorder unreadCounts(*unread), allCounts(*all);

  auto added = insertPost(*context, "https://example.org/new");
  added->setUnread(true);
  context->processPendingChanges();
  EXPECT_EQ(unreadCounts.counts, (std::vector<std::int64_t>{3}));
  EXPECT_EQ(allCounts.counts, (std::vector<std::int64_t>{6}));

  post(0)->setDeleting(true);
  context->processPendingChanges();
  EXPECT_EQ(unread->postCount(), 2u);
  post(4)->setDeleting(false);
  context->deleteObject(post(1));
  context->processPendingChanges();
  EXPECT_EQ(unread->postCount(), 3u);  // 2, 4, new
  EXPECT_EQ(all->postCount(), 5u);     // 2, 3, 4, 5, new
  context->deleteObject(added);
  context->processPendingChanges();
  EXPECT_EQ(unread->postCount(), 2u);
  EXPECT_EQ(all->postCount(), 4u);

  // An edit of a stored post moves it in or out.
  post(3)->setUnread(true);
  context->processPendingChanges();
  EXPECT_EQ(unread->postCount(), 3u);
  NSErrorPtr error;
  ASSERT_TRUE(context->save(&error)) << error->description();
  EXPECT_EQ(unread->postCount(), 3u);  // 2, 3, 4
  post(5)->setUnread(true);
  post(3)->setUnread(false);
  ASSERT_TRUE(context->save(&error)) << error->description();
  EXPECT_EQ(unread->postCount(), 3u);  // 2, 4, 5
  post(5)->setUnread(false);
  context->processPendingChanges();
  EXPECT_EQ(unread->postCount(), 2u);

  // A change that matters to neither announces nothing.
  const auto before = unreadCounts.counts.size();
  post(3)->setTitle("retitled");
  context->processPendingChanges();
  EXPECT_EQ(unreadCounts.counts.size(), before);

  // The predicate drives the count at once, without a notification.
  unread->setPredicate(parse("%K == NO", {Value(ZBTarrowPinboardPostUnreadKey)}));
  EXPECT_EQ(unread->postCount(), 2u);  // 3, 5
  unread->setPredicate(nullptr);
  EXPECT_EQ(unread->postCount(), 4u);
  EXPECT_EQ(unreadCounts.counts.back(), 4);
}

TEST(Collection, CountFollowsSavedDeletions) {
  ModelStore store;
  auto context = store.newContext();
  auto kept = insertPost(*context, "https://example.org/kept");
  auto gone = insertPost(*context, "https://example.org/gone");
  // Without a predicate: every post that is not being deleted.
  auto all = insertCollection(*context, "");
  NSErrorPtr error;
  ASSERT_TRUE(context->save(&error)) << error->description();
  EXPECT_EQ(all->postCount(), 2u);
  context->deleteObject(gone);
  ASSERT_TRUE(context->save(&error)) << error->description();
  EXPECT_EQ(all->postCount(), 1u);
  kept->setDeleting(true);
  ASSERT_TRUE(context->save(&error)) << error->description();
  EXPECT_EQ(all->postCount(), 0u);
}

TEST(Collection, RelativeDateCountIgnoresTheStoredOperatorAndFollowsTheClock) {
  InjectedTime time("Europe/Berlin");
  time.setNow(wallClock(2024, 4, 10, 12));
  ModelStore store;
  auto context = store.newContext();
  for (int daysAgo : {0, 1, 6, 8, 30}) {
    insertPost(*context, "https://example.org/" + std::to_string(daysAgo), wallClock(2024, 4, 10 - daysAgo, 11));
  }
  insertPost(*context, "https://example.org/deleting", wallClock(2024, 4, 10, 11))->setDeleting(true);
  NSErrorPtr error;
  ASSERT_TRUE(context->save(&error)) << error->description();

  auto recent = insertCollection(*context, "relative_date < $7__days");
  EXPECT_EQ(recent->postCount(), 3u);  // 0, 1, 6 days ago
  time.clock->advance(2 * 86400);      // 12 April: the 6-day-old post is now 8 days old
  recent->refreshPostCount();
  EXPECT_EQ(recent->postCount(), 2u);
  recent->setPredicate(parse("relative_date == $1__months"));
  EXPECT_EQ(recent->postCount(), 4u);  // all but the 30-day-old one
}

TEST(Collection, CountsInSQLAndStopsObservingAsAFault) {
  ModelStore store;
  {
    auto seed = store.newContext();
    for (int i = 0; i < 20; ++i) {
      auto post = insertPost(*seed, "https://example.org/" + std::to_string(i));
      post->setStarred(i < 8);
      post->setDeleting(i >= 5 && i < 10);
    }
    auto starred = insertCollection(*seed, "%K == YES", {Value(ZBTarrowPinboardPostStarredKey)});
    starred->updateWithDictionaryRepresentation({{ZBTarrowCollectionIdentifierKey, Value("STARRED")}});
    NSErrorPtr error;
    ASSERT_TRUE(seed->save(&error)) << error->description();
  }
  auto context = store.newContext();
  auto fetched = fetchAll(*context, ZBTarrowCollectionEntityName);
  ASSERT_EQ(fetched.size(), 1u);
  auto collection = fetched[0].as<ZBTarrowCollection>();
  EXPECT_EQ(collection->postCount(), 5u);  // counted when fetched
  for (auto& object : context->registeredObjects()) {
    EXPECT_NE(object->entity()->name(), ZBTarrowPinboardPostEntityName) << "counting loaded a post";
  }

  CountRecorder counts(*collection);
  context->refreshObject(collection, false);
  ASSERT_TRUE(collection->isFault());
  insertPost(*context, "https://example.org/late")->setStarred(true);
  context->processPendingChanges();
  EXPECT_TRUE(counts.counts.empty());
  EXPECT_TRUE(collection->isFault());
  // Waking up counts anew and observes again.
  EXPECT_EQ(collection->identifier(), "STARRED");
  EXPECT_EQ(collection->postCount(), 6u);
  insertPost(*context, "https://example.org/later")->setStarred(true);
  context->processPendingChanges();
  EXPECT_EQ(collection->postCount(), 7u);
}

TEST(Collection, DictionaryRoundTripArchivesThePredicateAndNeverClearsIt) {
  ModelStore store;
  auto context = store.newContext();
  auto original = insertCollection(*context, "relative_date < $3__days AND ANY tags.title ==[cd] %@", {Value("café")});
  original->updateWithDictionaryRepresentation({{ZBTarrowCollectionTitleKey, Value("Recent cafés")},
                                                {ZBTarrowCollectionOrderKey, Value(7)},
                                                {ZBTarrowCollectionEditableKey, Value(true)}});
  Dictionary dictionary = original->dictionaryRepresentation();
  ASSERT_TRUE(dictionary[ZBTarrowCollectionPredicateKey].isData());
  for (const auto& [key, value] : dictionary) EXPECT_FALSE(value.isNull()) << key;

  auto copy = context->insertNewObject<ZBTarrowCollection>(ZBTarrowCollectionEntityName);
  copy->updateWithDictionaryRepresentation(dictionary);
  EXPECT_EQ(copy->identifier(), original->identifier());
  EXPECT_EQ(copy->title(), "Recent cafés");
  EXPECT_EQ(copy->order(), 7);
  ASSERT_TRUE(copy->predicate());
  EXPECT_TRUE(copy->predicate()->isEqual(*original->predicate()));
  EXPECT_TRUE(copy->predicateHasRelativeDate());

  // Damaged data: the other keys apply, the predicate stays.
  Dictionary damaged = dictionary;
  Data bytes = dictionary[ZBTarrowCollectionPredicateKey].asData();
  bytes.resize(bytes.size() / 2);
  damaged.set(ZBTarrowCollectionPredicateKey, Value(bytes));
  damaged.set(ZBTarrowCollectionTitleKey, Value("Renamed"));
  copy->updateWithDictionaryRepresentation(damaged);
  EXPECT_EQ(copy->title(), "Renamed");
  EXPECT_TRUE(copy->predicate()->isEqual(*original->predicate()));
  // The archive of something that is not a predicate is no predicate either.
  damaged.set(ZBTarrowCollectionPredicateKey, Value(NSKeyedArchiver::archivedDataWithRootObject(Value("unread"))));
  copy->updateWithDictionaryRepresentation(damaged);
  EXPECT_TRUE(copy->predicate()->isEqual(*original->predicate()));

  // A collection without a predicate writes the archive of nothing, which
  // leaves the predicate of the collection it is applied to alone.
  auto all = insertCollection(*context, "");
  Dictionary allDictionary = all->dictionaryRepresentation();
  ASSERT_TRUE(allDictionary[ZBTarrowCollectionPredicateKey].isData());
  copy->updateWithDictionaryRepresentation(allDictionary);
  EXPECT_EQ(copy->identifier(), all->identifier());
  EXPECT_TRUE(copy->predicate()->isEqual(*original->predicate()));
  // As does a dictionary without the key; a predicate object is taken as it is.
  copy->updateWithDictionaryRepresentation({{ZBTarrowCollectionHiddenKey, Value(true)}});
  EXPECT_TRUE(copy->predicate()->isEqual(*original->predicate()));
  copy->updateWithDictionaryRepresentation({{ZBTarrowCollectionPredicateKey, Value(parse("dead == YES"))}});
  EXPECT_TRUE(copy->predicate()->isEqual(*parse("dead == YES")));
}

TEST(Collection, PredicateSurvivesTheStore) {
  ModelStore store;
  auto context = store.newContext();
  auto collection = insertCollection(*context, "relative_date < $7__days OR (unread == YES AND tags.@count == 0)");
  const std::string identifier = *collection->identifier();
  NSErrorPtr error;
  ASSERT_TRUE(context->save(&error)) << error->description();

  auto reader = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  reader->setPersistentStoreCoordinator(store.reopen());
  auto found = fetchAll(*reader, ZBTarrowCollectionEntityName, "%K == %@",
                        {Value(ZBTarrowCollectionIdentifierKey), Value(identifier)});
  ASSERT_EQ(found.size(), 1u);
  auto restored = found[0].as<ZBTarrowCollection>();
  ASSERT_TRUE(restored->predicate());
  EXPECT_TRUE(restored->predicate()->isEqual(*collection->predicate()));
}

// An edit undone before the context processes its changes is still a change
// since the last notification: the post left the collection and came back.
// Needs the context to report objects changed since its last notification
// even when they are back at their saved values.
TEST(Collection, CountFollowsAnEditThatRestoresTheSavedValue) {
  ModelStore store;
  auto context = store.newContext();
  auto post = insertPost(*context, "https://example.org/");
  NSErrorPtr error;
  ASSERT_TRUE(context->save(&error)) << error->description();
  auto unread = insertCollection(*context, "%K == YES", {Value(ZBTarrowPinboardPostUnreadKey)});
  EXPECT_EQ(unread->postCount(), 0u);
  post->setUnread(true);
  context->processPendingChanges();
  EXPECT_EQ(unread->postCount(), 1u);
  post->setUnread(false);
  context->processPendingChanges();
  EXPECT_EQ(unread->postCount(), 0u);
}
