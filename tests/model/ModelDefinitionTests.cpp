#include <gtest/gtest.h>
#include <sqlite3.h>

#include <set>
#include <stdexcept>

#include "model/ModelTestSupport.h"
#include "model/ZBTarrowDataModel.h"

namespace {

std::set<std::string> tablesIn(const std::filesystem::path& file) {
  sqlite3* db = nullptr;
  std::set<std::string> tables;
  if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    ADD_FAILURE() << "cannot open " << file;
    sqlite3_close(db);
    return tables;
  }
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db, "SELECT name FROM sqlite_master WHERE type = 'table'", -1, &statement, nullptr);
  while (sqlite3_step(statement) == SQLITE_ROW) {
    tables.insert(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)));
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
  return tables;
}

// The keys an update reports as skipped.
std::set<std::string> skippedKeys(const NSErrorPtr& error) {
  std::set<std::string> keys;
  if (!error) return keys;
  Array refusals{Value(std::const_pointer_cast<NSError>(error))};
  if (error->code() == NSValidationMultipleErrorsError) refusals = error->userInfo()[NSDetailedErrorsKey].asArray();
  for (const Value& refusal : refusals) {
    EXPECT_EQ(refusal.as<NSError>()->code(), NSManagedObjectValidationError);
    keys.insert(refusal.as<NSError>()->userInfo()[NSValidationKeyErrorKey].asString());
  }
  return keys;
}

}  // namespace

TEST(ModelDefinition, ServiceDataAndSidebarItemsLiveInSeparateStores) {
  auto model = ZBTarrowDataCreateManagedObjectModel();
  auto names = [&](const std::string& configuration) {
    std::set<std::string> out;
    for (auto& entity : model->entitiesForConfiguration(configuration)) out.insert(entity->name());
    return out;
  };
  EXPECT_EQ(names(ZBTarrowDataPinboardConfigurationName),
            (std::set<std::string>{ZBTarrowPinboardPostEntityName, ZBTarrowPinboardTagEntityName}));
  EXPECT_EQ(names(ZBTarrowDataTarrowConfigurationName),
            (std::set<std::string>{ZBTarrowCollectionEntityName, ZBTarrowSearchEntityName}));

  ModelStore store;
  auto context = store.newContext();
  insertPost(*context, "https://example.org/")
      ->updateWithDictionaryRepresentation({{ZBTarrowPinboardPostTagsKey, Value(Array{Value("t")})}});
  insertCollection(*context, "");
  context->insertNewObject<ZBTarrowSearch>(ZBTarrowSearchEntityName);
  NSErrorPtr error;
  ASSERT_TRUE(context->save(&error)) << error->description();

  auto pinboard = tablesIn(store.pinboardFile);
  auto tarrow = tablesIn(store.tarrowFile);
  EXPECT_TRUE(pinboard.count(ZBTarrowPinboardPostEntityName) && pinboard.count(ZBTarrowPinboardTagEntityName));
  EXPECT_FALSE(pinboard.count(ZBTarrowCollectionEntityName) || pinboard.count(ZBTarrowSearchEntityName));
  EXPECT_TRUE(tarrow.count(ZBTarrowCollectionEntityName) && tarrow.count(ZBTarrowSearchEntityName));
  EXPECT_FALSE(tarrow.count(ZBTarrowPinboardPostEntityName) || tarrow.count(ZBTarrowPinboardTagEntityName));
}

TEST(ModelDefinition, FlagsNeverSetReadAsNoAfterAReload) {
  ModelStore store;
  {
    auto context = store.newContext();
    insertPost(*context, "https://example.org/");
    context->insertNewObject<ZBTarrowPinboardTag>(ZBTarrowPinboardTagEntityName)->setTitle("t");
    insertCollection(*context, "");
    context->insertNewObject<ZBTarrowSearch>(ZBTarrowSearchEntityName);
    NSErrorPtr error;
    ASSERT_TRUE(context->save(&error)) << error->description();
  }
  auto context = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  context->setPersistentStoreCoordinator(store.reopen());
  auto post = fetchAll(*context, ZBTarrowPinboardPostEntityName).at(0).as<ZBTarrowPinboardPost>();
  for (auto* key : {&ZBTarrowPinboardPostUnreadKey, &ZBTarrowPinboardPostSharedKey, &ZBTarrowPinboardPostStarredKey,
                    &ZBTarrowPinboardPostDeadKey, &ZBTarrowPinboardObjectDeletingKey, &ZBTarrowPinboardObjectDirtyKey}) {
    EXPECT_EQ(post->valueForKey(*key), Value(false)) << *key;
  }
  auto tag = fetchAll(*context, ZBTarrowPinboardTagEntityName).at(0).as<ZBTarrowPinboardTag>();
  EXPECT_FALSE(tag->deleting() || tag->dirty());
  auto collection = fetchAll(*context, ZBTarrowCollectionEntityName).at(0).as<ZBTarrowCollection>();
  EXPECT_FALSE(collection->editable() || collection->hidden());
  auto search = fetchAll(*context, ZBTarrowSearchEntityName).at(0).as<ZBTarrowSearch>();
  EXPECT_FALSE(search->editable() || search->hidden() || search->authenticated());
  // The counts of built-in collections select on these flags.
  EXPECT_EQ(fetchAll(*context, ZBTarrowPinboardPostEntityName, "%K == NO AND %K == NO",
                     {Value(ZBTarrowPinboardObjectDeletingKey), Value(ZBTarrowPinboardPostStarredKey)})
                .size(),
            1u);
}

// Service data and backups are outside input: a value of the wrong kind is
// skipped, the rest of the dictionary applies, and the caller hears which
// keys were skipped. Nothing is thrown and nothing is left half-set.
TEST(ModelDefinition, DictionaryUpdatesSkipValuesOfTheWrongKindAndApplyTheRest) {
  ModelStore store;
  auto context = store.newContext();
  auto post = insertPost(*context, "https://example.org/");
  ASSERT_TRUE(post->updateWithDictionaryRepresentation({{ZBTarrowPinboardPostTitleKey, Value("Old")},
                                                        {ZBTarrowPinboardPostUnreadKey, Value(true)},
                                                        {ZBTarrowPinboardPostTagsKey, Value(Array{Value("kept")})}}));
  auto tag = context->insertNewObject<ZBTarrowPinboardTag>(ZBTarrowPinboardTagEntityName);
  tag->setTitle("t");
  auto search = context->insertNewObject<ZBTarrowSearch>(ZBTarrowSearchEntityName);
  auto collection = insertCollection(*context, "unread == YES");
  NSErrorPtr error;
  ASSERT_TRUE(context->save(&error)) << error->description();

  struct Case {
    std::shared_ptr<NSManagedObject> object;
    Dictionary update;
    Dictionary applied;
    std::set<std::string> skipped;
  };
  const std::vector<Case> cases{
      {post,
       {{ZBTarrowPinboardPostTitleKey, Value("New")},
        {ZBTarrowPinboardPostDateKey, Value("2024-05-01")},
        {ZBTarrowPinboardPostUnreadKey, Value("yes")},
        {ZBTarrowPinboardPostURLKey, Value(42)}},
       {{ZBTarrowPinboardPostTitleKey, Value("New")}, {ZBTarrowPinboardPostSharedKey, Value(true)}},
       {ZBTarrowPinboardPostDateKey, ZBTarrowPinboardPostUnreadKey, ZBTarrowPinboardPostURLKey}},
      {post,
       {{ZBTarrowPinboardPostTagsKey, Value("a b")},
        {ZBTarrowPinboardPostTitleKey, Value(7)},
        {ZBTarrowPinboardPostDescKey, Value("notes")}},
       {{ZBTarrowPinboardPostDescKey, Value("notes")}},
       {ZBTarrowPinboardPostTagsKey, ZBTarrowPinboardPostTitleKey}},
      {post,
       {{ZBTarrowPinboardPostTagsKey, Value(Dictionary{{"kept", Value(true)}})}},
       {},
       {ZBTarrowPinboardPostTagsKey}},
      // One member of the wrong kind spoils the whole value: no tag is looked up.
      {post,
       {{ZBTarrowPinboardPostTagsKey, Value(Array{Value("fresh"), Value(7)})}},
       {},
       {ZBTarrowPinboardPostTagsKey}},
      {tag,
       {{ZBTarrowPinboardTagTitleKey, Value(5)}, {ZBTarrowPinboardTagPreviousTitleKey, Value("old")}},
       {{ZBTarrowPinboardTagPreviousTitleKey, Value("old")}},
       {ZBTarrowPinboardTagTitleKey}},
      {search,
       {{ZBTarrowSearchOrderKey, Value("first")},
        {ZBTarrowSearchTitleKey, Value("Feed")},
        {ZBTarrowSearchAuthenticatedKey, Value(Data{1})}},
       {{ZBTarrowSearchTitleKey, Value("Feed")}},
       {ZBTarrowSearchOrderKey, ZBTarrowSearchAuthenticatedKey}},
      {collection,
       {{ZBTarrowCollectionTitleKey, Value(3)},
        {ZBTarrowCollectionHiddenKey, Value(true)},
        {ZBTarrowCollectionOrderKey, Value("9")}},
       {{ZBTarrowCollectionHiddenKey, Value(true)}},
       {ZBTarrowCollectionTitleKey, ZBTarrowCollectionOrderKey}},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& row = cases[i];
    SCOPED_TRACE("case " + std::to_string(i) + ": " + Value(row.update).description());
    auto exporting = std::dynamic_pointer_cast<ZBTarrowManagedObjectExporting>(row.object);
    const Dictionary before = exporting->dictionaryRepresentation();
    NSErrorPtr refusal;
    bool complete = true;
    EXPECT_NO_THROW(complete = exporting->updateWithDictionaryRepresentation(row.update, &refusal));
    EXPECT_FALSE(complete);
    EXPECT_EQ(skippedKeys(refusal), row.skipped);
    const Dictionary after = exporting->dictionaryRepresentation();
    for (const std::string& key : row.skipped) EXPECT_EQ(after[key], before[key]) << key;
    for (const auto& [key, value] : row.applied) EXPECT_EQ(after[key], value) << key;
  }
  // An unknown key is refused before the tags are looked up.
  EXPECT_THROW(post->updateWithDictionaryRepresentation(
                   {{ZBTarrowPinboardPostTagsKey, Value(Array{Value("fresh")})}, {"hash", Value("x")}}),
               std::logic_error);
  EXPECT_EQ(fetchAll(*context, ZBTarrowPinboardTagEntityName).size(), 2u);
  EXPECT_EQ(tagTitles(*post), std::vector<std::string>{"kept"});
  ASSERT_TRUE(context->save(&error)) << error->description();
}
