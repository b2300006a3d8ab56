#pragma once
// ZBTarrowNetscapeBookmarkImportOperation: the entry point for importing a
// parsed bookmark tree into the store. For now it keeps its inputs and does
// nothing: it hands over no work and sets no provider, so it finishes as soon
// as it starts, reporting what ZBConcurrentOperation reports for an
// operation without a provider. The store is not touched.
//
// Lifetime: held by std::shared_ptr (create). Thread-safety: as
// ZBConcurrentOperation.

#include <memory>

#include "import/ZBTarrowNetscapeBookmarkFolder.h"
#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/operations/ZBConcurrentOperation.h"

class ZBTarrowNetscapeBookmarkImportOperation final : public ZBConcurrentOperation {
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  static std::shared_ptr<ZBTarrowNetscapeBookmarkImportOperation> create(
      ZBTarrowNetscapeBookmarkFolderPtr bookmarkFolder, NSManagedObjectContextPtr managedObjectContext);
  ZBTarrowNetscapeBookmarkImportOperation(Passkey, ZBTarrowNetscapeBookmarkFolderPtr bookmarkFolder,
                                          NSManagedObjectContextPtr managedObjectContext);

  const ZBTarrowNetscapeBookmarkFolderPtr& bookmarkFolder() const { return _folder; }
  const NSManagedObjectContextPtr& managedObjectContext() const { return _context; }
  std::string className() const override { return "ZBTarrowNetscapeBookmarkImportOperation"; }

protected:
  void setupOperations(const ZBAddWorkOperation& addWorkOperation) override;

private:
  const ZBTarrowNetscapeBookmarkFolderPtr _folder;
  const NSManagedObjectContextPtr _context;
};
