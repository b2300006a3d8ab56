#include <gtest/gtest.h>

#include <stdexcept>

#include "model/ModelTestSupport.h"
#include "model/ZBTarrowPinboardPost.h"
#include "model/ZBTarrowPinboardTag.h"

namespace {

std::shared_ptr<ZBTarrowPinboardTag> insertTag(NSManagedObjectContext& context, const std::string& title) {
  auto tag = context.insertNewObject<ZBTarrowPinboardTag>(ZBTarrowPinboardTagEntityName);
  tag->setTitle(title);
  return tag;
}

std::vector<std::string> strings(const Value& array) {
  std::vector<std::string> out;
  for (auto& element : array.collectionElements()) out.push_back(element.asString());
  return out;
}

}  // namespace

TEST(PinboardPost, IdentifierIsTheMD5OfTheURLOnFirstSaveAndNeverChanges) {
  InjectedTime time("Europe/Berlin");
  time.setNow(wallClock(2024, 5, 1, 9));
  ModelStore store;
  auto context = store.newContext();

  auto local = insertPost(*context, "https://example.org/café?q=1");
  EXPECT_EQ(local->date(), wallClock(2024, 5, 1, 9));  // set at insertion
  EXPECT_FALSE(local->identifier());
  auto fromService = insertPost(*context, "https://example.org/");
  fromService->setIdentifier("server-hash");
  NSErrorPtr error;
  ASSERT_TRUE(context->save(&error)) << error->description();
  EXPECT_EQ(local->identifier(), "6c5dbbb8284e742079d01e60d7695611");
  EXPECT_EQ(fromService->identifier(), "server-hash");

  // A later change of the URL keeps the identity.
  local->setUrl("https://example.org/moved");
  ASSERT_TRUE(context->save(&error)) << error->description();
  EXPECT_EQ(local->identifier(), "6c5dbbb8284e742079d01e60d7695611");

  // What was saved is what another process reads.
  auto other = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  other->setPersistentStoreCoordinator(store.reopen());
  auto posts = fetchAll(*other, ZBTarrowPinboardPostEntityName, "%K == %@",
                        {Value(ZBTarrowPinboardPostIdentifierKey), Value("6c5dbbb8284e742079d01e60d7695611")});
  ASSERT_EQ(posts.size(), 1u);
  EXPECT_EQ(posts[0].as<ZBTarrowPinboardPost>()->url(), "https://example.org/moved");

  // Only the bytes before a zero byte count, as for a C string.
  EXPECT_EQ(ZBTarrowPinboardPost::identifierForURL(std::string("abc\0def", 7)), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(PinboardPost, PostWithoutURLFailsValidationWithoutAnIdentifier) {
  ModelStore store;
  auto context = store.newContext();
  auto post = context->insertNewObject<ZBTarrowPinboardPost>(ZBTarrowPinboardPostEntityName);
  post->setTitle("No address");
  NSErrorPtr error;
  EXPECT_FALSE(context->save(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSValidationMissingMandatoryPropertyError);
  EXPECT_FALSE(post->identifier());
  EXPECT_EQ(fetchAll(*store.newContext(), ZBTarrowPinboardPostEntityName).size(), 0u);
}

TEST(PinboardPost, UpdateAppliesTheDeliberateFlagDefaultsAndLeavesMissingTagsAlone) {
  ModelStore store;
  auto context = store.newContext();
  auto post = insertPost(*context, "https://example.org/");
  post->setUnread(true);
  post->setShared(false);
  post->setStarred(true);
  post->setValueForKey(Value(Set{Value(insertTag(*context, "kept"))}), ZBTarrowPinboardPostTagsKey);

  post->updateWithDictionaryRepresentation({{ZBTarrowPinboardPostURLKey, Value("https://example.org/new")}});
  EXPECT_EQ(post->url(), "https://example.org/new");
  EXPECT_FALSE(post->unread());
  EXPECT_TRUE(post->shared());
  EXPECT_FALSE(post->starred());
  EXPECT_EQ(tagTitles(*post), std::vector<std::string>{"kept"});

  // Flags that are given are taken as they are.
  post->updateWithDictionaryRepresentation({{ZBTarrowPinboardPostUnreadKey, Value(true)},
                                            {ZBTarrowPinboardPostSharedKey, Value(false)},
                                            {ZBTarrowPinboardPostStarredKey, Value(true)}});
  EXPECT_TRUE(post->unread());
  EXPECT_FALSE(post->shared());
  EXPECT_TRUE(post->starred());

  // Null and empty collections clear the tags.
  post->updateWithDictionaryRepresentation({{ZBTarrowPinboardPostTagsKey, Value::null()}});
  EXPECT_TRUE(post->tags().empty());
  post->setValueForKey(Value(Set{Value(insertTag(*context, "again"))}), ZBTarrowPinboardPostTagsKey);
  post->updateWithDictionaryRepresentation({{ZBTarrowPinboardPostTagsKey, Value(Array{})}});
  EXPECT_TRUE(post->tags().empty());

  EXPECT_THROW(post->updateWithDictionaryRepresentation({{"hash", Value("x")}}), std::logic_error);
}

TEST(PinboardPost, DictionaryRoundTripCarriesValuesAndTagTitlesWithoutNulls) {
  ModelStore store;
  auto context = store.newContext();
  auto post = insertPost(*context, "https://example.org/a", NSDate(700000000));
  post->updateWithDictionaryRepresentation({{ZBTarrowPinboardPostTitleKey, Value("A")},
                                            {ZBTarrowPinboardPostDescKey, Value::null()},
                                            {ZBTarrowPinboardPostSourceKey, Value(4)},
                                            {ZBTarrowPinboardPostOthersKey, Value(17)},
                                            {ZBTarrowPinboardPostTagsKey, Value(Array{Value("x"), Value("y")})}});
  post->setDead(true);
  Dictionary dictionary = post->dictionaryRepresentation();
  for (const auto& [key, value] : dictionary) EXPECT_FALSE(value.isNull()) << key;
  EXPECT_FALSE(dictionary.contains(ZBTarrowPinboardPostDescKey));
  EXPECT_FALSE(dictionary.contains(ZBTarrowPinboardPostIdentifierKey));  // not saved yet
  EXPECT_EQ(dictionary[ZBTarrowPinboardPostTagsKey], Value(Set{Value("x"), Value("y")}));
  EXPECT_EQ(dictionary[ZBTarrowPinboardPostDateKey], Value(NSDate(700000000)));
  EXPECT_EQ(dictionary[ZBTarrowPinboardObjectDeletingKey], Value(false));
  NSErrorPtr error;
  ASSERT_TRUE(context->save(&error)) << error->description();
  dictionary = post->dictionaryRepresentation();

  // Applied to a post of another context, it reproduces the post there.
  auto otherContext = store.newContext();
  auto copy = otherContext->insertNewObject<ZBTarrowPinboardPost>(ZBTarrowPinboardPostEntityName);
  copy->updateWithDictionaryRepresentation(dictionary);
  EXPECT_EQ(copy->dictionaryRepresentation(), dictionary);
  // Its tags resolved to the stored ones rather than new ones.
  ASSERT_TRUE(otherContext->save(&error)) << error->description();
  EXPECT_EQ(fetchAll(*otherContext, ZBTarrowPinboardTagEntityName).size(), 2u);

  // A post without tags still says so.
  auto bare = insertPost(*context, "https://example.org/bare");
  EXPECT_EQ(bare->dictionaryRepresentation()[ZBTarrowPinboardPostTagsKey], Value(Set{}));
}

TEST(PinboardPost, TagTitlesResolveExactlyThenIgnoringCaseAndDiacriticsThenByInsertion) {
  ModelStore store;
  {
    auto seed = store.newContext();
    insertTag(*seed, "Swift");
    insertTag(*seed, "Café");
    insertTag(*seed, "swift-ui");
    NSErrorPtr error;
    ASSERT_TRUE(seed->save(&error)) << error->description();
  }
  auto context = store.newContext();
  auto post = insertPost(*context, "https://example.org/");
  auto byObject = insertTag(*context, "given");
  post->updateWithDictionaryRepresentation(
      {{ZBTarrowPinboardPostTagsKey,
        Value(Array{Value(""), Value("SWIFT"), Value("cafe"), Value(byObject), Value("Rust"), Value("rust")})}});
  // Existing spellings are kept; "Rust" and "rust" became one new tag.
  EXPECT_EQ(tagTitles(*post), (std::vector<std::string>{"Café", "Rust", "Swift", "given"}));
  // An exact match wins over a folded one.
  auto exact = insertPost(*context, "https://example.org/exact");
  insertTag(*context, "swift");
  exact->updateWithDictionaryRepresentation({{ZBTarrowPinboardPostTagsKey, Value(Array{Value("swift")})}});
  EXPECT_EQ(tagTitles(*exact), std::vector<std::string>{"swift"});

  NSErrorPtr error;
  ASSERT_TRUE(context->save(&error)) << error->description();
  auto reader = store.newContext();
  EXPECT_EQ(fetchAll(*reader, ZBTarrowPinboardTagEntityName).size(), 6u);  // Swift, Café, swift-ui, given, Rust, swift
  auto swift = fetchAll(*reader, ZBTarrowPinboardTagEntityName, "%K == %@",
                        {Value(ZBTarrowPinboardTagTitleKey), Value("Swift")});
  ASSERT_EQ(swift.size(), 1u);
  auto posts = swift[0].as<ZBTarrowPinboardTag>()->posts();
  ASSERT_EQ(posts.size(), 1u);
  EXPECT_EQ(posts[0]->url(), "https://example.org/");
}

TEST(PinboardPost, SortedTagTitlesIgnoreCaseAndStartWithTheSource) {
  ModelStore store;
  auto context = store.newContext();
  auto post = insertPost(*context, "https://example.org/");
  post->updateWithDictionaryRepresentation(
      {{ZBTarrowPinboardPostTagsKey, Value(Array{Value("zebra"), Value("Apple"), Value("mango"), Value("Éclair"),
                                                 Value("duck"), Value("Fig")})}});
  const std::vector<std::string> sorted{"Apple", "duck", "Éclair", "Fig", "mango", "zebra"};
  EXPECT_EQ(post->sortedTagTitles(), sorted);
  EXPECT_EQ(strings(post->valueForKey(ZBTarrowPinboardPostSortedTagTitlesKey)), sorted);

  post->setSource(4);
  auto withSource = post->sortedTagTitles();
  ASSERT_EQ(withSource.size(), sorted.size() + 1);
  EXPECT_EQ(withSource.front(), "from:pocket");
  for (std::int64_t source : {0, -1, 8, 9}) {
    post->setSource(source);
    EXPECT_EQ(post->sortedTagTitles(), sorted) << source;
  }
  EXPECT_EQ(ZBTarrowPinboardPost::sourceName(1), "twitter");
  EXPECT_EQ(ZBTarrowPinboardPost::sourceName(7), "readability");

  // Titles equal but for case come out in one fixed order, whatever the set's.
  EXPECT_EQ(ZBTarrowPinboardPost::sortedTagTitles(Set{Value("b"), Value("A"), Value("a"), Value(3)}),
            (std::vector<std::string>{"A", "a", "b"}));
  EXPECT_TRUE(ZBTarrowPinboardPost::sortedTagTitles(Set{}).empty());
}

TEST(PinboardPost, HostAndEditableAreDerived) {
  EXPECT_EQ(ZBTarrowPinboardPost::hostForURL("https://www.example.org:8443/a?b#c"), "www.example.org");
  EXPECT_EQ(ZBTarrowPinboardPost::hostForURL("http://user:pw@[::1]/"), "::1");
  EXPECT_FALSE(ZBTarrowPinboardPost::hostForURL("not a url"));
  EXPECT_FALSE(ZBTarrowPinboardPost::hostForURL(""));
  EXPECT_FALSE(ZBTarrowPinboardPost::hostForURL("mailto:someone@example.org"));
  EXPECT_FALSE(ZBTarrowPinboardPost::hostForURL("file:///etc/hosts"));

  ModelStore store;
  auto context = store.newContext();
  auto post = insertPost(*context, "https://pinboard.in/u:someone");
  EXPECT_EQ(post->valueForKey(ZBTarrowPinboardPostHostKey), Value("pinboard.in"));
  EXPECT_EQ(post->valueForKey(ZBTarrowPinboardPostEditableKey), Value(true));
  post->setUrl("garbage");
  EXPECT_TRUE(post->valueForKey(ZBTarrowPinboardPostHostKey).isAbsent());
}

TEST(PinboardPost, ObserversOfDerivedKeysHearOfTheKeysTheyDependOn) {
  ModelStore store;
  auto context = store.newContext();
  auto post = insertPost(*context, "https://a.example/");
  std::vector<Value> hosts;
  int sortedTitleChanges = 0;
  auto hostObservation = post->addObserver(ZBTarrowPinboardPostHostKey, NSKeyValueObservingOptions::New,
                                           [&](const std::string&, NSObject&, const NSKeyValueChange& change) {
                                             hosts.push_back(change.newValue);
                                           });
  auto titlesObservation = post->addObserver(ZBTarrowPinboardPostSortedTagTitlesKey, NSKeyValueObservingOptions::New,
                                             [&](const std::string&, NSObject&, const NSKeyValueChange&) {
                                               ++sortedTitleChanges;
                                             });
  post->setUrl("https://b.example/");
  ASSERT_EQ(hosts.size(), 1u);
  EXPECT_EQ(hosts[0], Value("b.example"));

  post->updateWithDictionaryRepresentation({{ZBTarrowPinboardPostTagsKey, Value(Array{Value("one")})}});
  EXPECT_EQ(sortedTitleChanges, 1);
  // The source prefix depends on source, but observers are deliberately not told.
  post->setSource(1);
  EXPECT_EQ(sortedTitleChanges, 1);
  EXPECT_EQ(hosts.size(), 1u);
}
