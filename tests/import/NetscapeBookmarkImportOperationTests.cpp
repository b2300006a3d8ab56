#include <gtest/gtest.h>

#include "import/ZBTarrowNetscapeBookmarkImportOperation.h"
#include "import/ZBTarrowNetscapeBookmarkItem.h"
#include "model/ZBTarrowDataModel.h"
#include "model/ZBTarrowPinboardPost.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/objectstore/NSPersistentStoreCoordinator.h"
#include "platform/operations/NSOperationQueue.h"
#include "support/RunLoopTestHelper.h"
#include "support/TemporaryDirectory.h"

TEST(NetscapeBookmarkImportOperation, FinishesWithoutResultAndLeavesTheStoreAlone) {
  TemporaryDirectory directory;
  auto coordinator = NSPersistentStoreCoordinator::create(ZBTarrowDataCreateManagedObjectModel());
  ASSERT_TRUE(coordinator->addPersistentStoreWithType(NSSQLiteStoreType, ZBTarrowDataPinboardConfigurationName,
                                                      NSURL::fileURLWithPath((directory / "P.sqlite").string()), {}));
  auto context = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  context->setPersistentStoreCoordinator(coordinator);

  auto folder = ZBTarrowNetscapeBookmarkFolder::create();
  auto item = ZBTarrowNetscapeBookmarkItem::create();
  item->setTitle("t");
  item->setUrl("https://example.com/");
  folder->appendBookmark(item);
  auto import = ZBTarrowNetscapeBookmarkImportOperation::create(folder, context);
  EXPECT_EQ(import->bookmarkFolder(), folder);
  EXPECT_EQ(import->managedObjectContext(), context);

  auto queue = NSOperationQueue::create();
  queue->addOperation(import);
  ASSERT_TRUE(RunMainLoopUntil([&] { return import->isFinished(); }));
  NSErrorPtr error;
  EXPECT_FALSE(import->completionProvider()(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), ZBConcurrentOperationNoResultError);
  EXPECT_FALSE(context->hasChanges());
  auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
  EXPECT_EQ(context->countForFetchRequest(request), 0);
}
