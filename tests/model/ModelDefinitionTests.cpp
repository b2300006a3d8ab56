#include <gtest/gtest.h>
#include <sqlite3.h>

#include <set>

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
