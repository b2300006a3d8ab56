#include <gtest/gtest.h>

#include <stdexcept>

#include "model/ModelTestSupport.h"
#include "platform/foundation/NSUUID.h"

TEST(PinboardTag, PostCountCountsEveryPostAndIsObservable) {
  ModelStore store;
  auto context = store.newContext();
  auto tag = context->insertNewObject<ZBTarrowPinboardTag>(ZBTarrowPinboardTagEntityName);
  tag->setTitle("shared");
  std::vector<Value> counts;
  auto observation = tag->addObserver(ZBTarrowPinboardTagPostCountKey, NSKeyValueObservingOptions::New,
                                      [&](const std::string&, NSObject&, const NSKeyValueChange& change) {
                                        counts.push_back(change.newValue);
                                      });
  std::vector<std::shared_ptr<ZBTarrowPinboardPost>> posts;
  for (int i = 0; i < 3; ++i) {
    posts.push_back(insertPost(*context, "https://example.org/" + std::to_string(i)));
    posts.back()->setValueForKey(Value(Set{Value(tag)}), ZBTarrowPinboardPostTagsKey);
  }
  posts[1]->setDeleting(true);
  EXPECT_EQ(tag->postCount(), 3u);
  EXPECT_EQ(counts, (std::vector<Value>{Value(1), Value(2), Value(3)}));

  NSErrorPtr error;
  ASSERT_TRUE(context->save(&error)) << error->description();
  auto reader = store.newContext();
  auto tags = fetchAll(*reader, ZBTarrowPinboardTagEntityName);
  ASSERT_EQ(tags.size(), 1u);
  EXPECT_EQ(tags[0].as<ZBTarrowPinboardTag>()->valueForKey(ZBTarrowPinboardTagPostCountKey), Value(3));

  posts[0]->setValueForKey(Value(Set{}), ZBTarrowPinboardPostTagsKey);
  EXPECT_EQ(tag->postCount(), 2u);
  EXPECT_EQ(counts.back(), Value(2));
}

TEST(PinboardTag, DictionaryFormsLeavePostsOut) {
  ModelStore store;
  auto context = store.newContext();
  auto tag = context->insertNewObject<ZBTarrowPinboardTag>(ZBTarrowPinboardTagEntityName);
  tag->setTitle("old");
  auto post = insertPost(*context, "https://example.org/");
  post->setValueForKey(Value(Set{Value(tag)}), ZBTarrowPinboardPostTagsKey);

  EXPECT_EQ(tag->dictionaryRepresentation(), (Dictionary{{ZBTarrowPinboardTagTitleKey, Value("old")},
                                                          {ZBTarrowPinboardObjectDeletingKey, Value(false)},
                                                          {ZBTarrowPinboardObjectDirtyKey, Value(false)}}));

  auto other = insertPost(*context, "https://example.org/other");
  tag->updateWithDictionaryRepresentation({{ZBTarrowPinboardTagTitleKey, Value("new")},
                                           {ZBTarrowPinboardTagPreviousTitleKey, Value("old")},
                                           {ZBTarrowPinboardObjectDirtyKey, Value(true)},
                                           {ZBTarrowPinboardTagPostsKey, Value(Set{Value(other)})}});
  EXPECT_EQ(tag->title(), "new");
  EXPECT_EQ(tag->previousTitle(), "old");
  EXPECT_TRUE(tag->dirty());
  ASSERT_EQ(tag->posts().size(), 1u);
  EXPECT_EQ(tag->posts()[0], post);
  EXPECT_TRUE(other->tags().empty());
  EXPECT_THROW(tag->updateWithDictionaryRepresentation({{"count", Value(1)}}), std::logic_error);
}

TEST(Search, InsertedSearchesGetUniqueIdentifiersThatARestoreReplaces) {
  ModelStore store;
  auto context = store.newContext();
  auto first = context->insertNewObject<ZBTarrowSearch>(ZBTarrowSearchEntityName);
  auto second = context->insertNewObject<ZBTarrowSearch>(ZBTarrowSearchEntityName);
  ASSERT_TRUE(first->identifier() && second->identifier());
  EXPECT_NE(*first->identifier(), *second->identifier());
  EXPECT_TRUE(NSUUID::fromString(*first->identifier()));

  const Dictionary backup{{ZBTarrowSearchIdentifierKey, Value("POPULAR")},
                          {ZBTarrowSearchTitleKey, Value("Popular")},
                          {ZBTarrowSearchMethodKey, Value("popular")},
                          {ZBTarrowSearchOrderKey, Value(2)},
                          {ZBTarrowSearchEditableKey, Value(false)},
                          {ZBTarrowSearchAuthenticatedKey, Value(false)}};
  auto restored = context->insertNewObject<ZBTarrowSearch>(ZBTarrowSearchEntityName);
  restored->updateWithDictionaryRepresentation(backup);
  NSErrorPtr error;
  ASSERT_TRUE(context->save(&error)) << error->description();

  auto reader = store.newContext();
  auto found = fetchAll(*reader, ZBTarrowSearchEntityName, "%K == %@",
                        {Value(ZBTarrowSearchIdentifierKey), Value("POPULAR")});
  ASSERT_EQ(found.size(), 1u);
  Dictionary dictionary = found[0].as<ZBTarrowSearch>()->dictionaryRepresentation();
  Dictionary expected = backup;
  expected.set(ZBTarrowSearchHiddenKey, Value(false));  // never set: NO
  EXPECT_EQ(dictionary, expected);
  EXPECT_FALSE(dictionary.contains(ZBTarrowSearchUsernameKey));
  EXPECT_FALSE(dictionary.contains(ZBTarrowSearchTagsKey));
}

TEST(Search, UpdateSetsEntriesAsGivenNullClears) {
  ModelStore store;
  auto context = store.newContext();
  auto search = context->insertNewObject<ZBTarrowSearch>(ZBTarrowSearchEntityName);
  search->updateWithDictionaryRepresentation({{ZBTarrowSearchUsernameKey, Value("someone")},
                                              {ZBTarrowSearchTagsKey, Value("a b")},
                                              {ZBTarrowSearchAuthenticatedKey, Value(true)}});
  EXPECT_EQ(search->username(), "someone");
  EXPECT_EQ(search->tags(), "a b");
  EXPECT_TRUE(search->authenticated());
  search->updateWithDictionaryRepresentation({{ZBTarrowSearchUsernameKey, Value::null()}});
  EXPECT_FALSE(search->username());
  EXPECT_EQ(search->tags(), "a b");  // untouched
  for (const auto& [key, value] : search->dictionaryRepresentation()) EXPECT_FALSE(value.isNull()) << key;
  EXPECT_THROW(search->updateWithDictionaryRepresentation({{"query", Value("x")}}), std::logic_error);
}
