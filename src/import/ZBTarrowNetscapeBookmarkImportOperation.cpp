#include "import/ZBTarrowNetscapeBookmarkImportOperation.h"

std::shared_ptr<ZBTarrowNetscapeBookmarkImportOperation> ZBTarrowNetscapeBookmarkImportOperation::create(
    ZBTarrowNetscapeBookmarkFolderPtr bookmarkFolder, NSManagedObjectContextPtr managedObjectContext) {
  return std::make_shared<ZBTarrowNetscapeBookmarkImportOperation>(Passkey(), std::move(bookmarkFolder),
                                                                   std::move(managedObjectContext));
}

ZBTarrowNetscapeBookmarkImportOperation::ZBTarrowNetscapeBookmarkImportOperation(
    Passkey, ZBTarrowNetscapeBookmarkFolderPtr bookmarkFolder, NSManagedObjectContextPtr managedObjectContext)
    : _folder(std::move(bookmarkFolder)), _context(std::move(managedObjectContext)) {}

// Importing is not defined yet: no work, no provider.
void ZBTarrowNetscapeBookmarkImportOperation::setupOperations(const ZBAddWorkOperation&) {}
