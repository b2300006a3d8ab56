#pragma once
// ZBTarrowDataStoreDefaultGenerator: puts the sidebar's built-in smart
// collections and feed searches into a store. Each built-in item has a fixed
// identifier; an item whose identifier is already present is left as it is
// (a user's edits survive), a missing one is created again.
//
// Stateless. Use on the given context's queue (inside its perform block).

#include "platform/foundation/NSError.h"
#include "platform/foundation/Value.h"
#include "platform/objectstore/NSManagedObjectContext.h"

class ZBTarrowDataStoreDefaultGenerator {
public:
  // Creates the missing built-in collections and, only if that succeeded,
  // the missing built-in searches; each step saves the context. False and
  // *error (the store's error of the failed count or save) on failure; after
  // a failed count nothing more is saved and earlier insertions stay unsaved
  // in the context.
  [[nodiscard]] bool createDefaultSidebarItemsIfNeeded(const NSManagedObjectContextPtr& context,
                                                       NSErrorPtr* error = nullptr) const;

  // The built-in items as metadata dictionaries keyed by the entities' keys,
  // in creation order. Titles are looked up in the current language.
  static Array _defaultCollectionsMetadata();
  static Array _defaultCommunityMetadata();

private:
  [[nodiscard]] bool _createDefaultCollectionsIfNeeded(const NSManagedObjectContextPtr& context,
                                                       NSErrorPtr* error) const;
  [[nodiscard]] bool _createDefaultSearchesIfNeeded(const NSManagedObjectContextPtr& context, NSErrorPtr* error) const;
  [[nodiscard]] bool _createDefaultObjects(const Array& metadata, const std::string& entityName,
                                           const std::string& identityKey, const NSManagedObjectContextPtr& context,
                                           NSErrorPtr* error) const;
};
