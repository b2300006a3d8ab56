#pragma once
// ZBTarrowDataStoreBackupGenerator: writes the user's own sidebar items (the
// editable collections and feed searches; never the built-in ones, never
// posts or tags) into a backup document, and restores them from one.
//
// The document is an XML property list:
//   {"version": 1, "collections": [<collection dictionary>…],
//    "searches": [<search dictionary>…]}
// each entry an item's dictionaryRepresentation (a collection's predicate as
// the data of its keyed archive). Restoring merges by identifier: items in
// the document replace the values of the stored items with the same
// identifier, new ones are added, the others stay. "version" is not read.
//
// Stateless. Use on the given context's queue.

#include <functional>
#include <optional>
#include <string>

#include "platform/foundation/NSError.h"
#include "platform/foundation/Value.h"
#include "platform/objectstore/NSManagedObjectContext.h"

extern const std::string ZBTarrowDataBackupDocumentType;      // "com.orvane.tarrow.backup"
extern const std::string ZBTarrowDataBookmarkMetadataType;    // "com.orvane.tarrow.bookmark.metadata"

class ZBTarrowDataStoreBackupGenerator {
public:
  // The document's bytes; nullopt and *error when a fetch or the
  // serialisation fails.
  [[nodiscard]] std::optional<Data> createBackupFromContext(const NSManagedObjectContextPtr& context,
                                                            NSErrorPtr* error = nullptr) const;
  // Applies the document and saves the context. False and *error when:
  // - data is not a property list: the parser's error (NSCocoaErrorDomain,
  //   NSPropertyListReadCorruptError); nothing changes;
  // - the property list is not a backup (the root is not a dictionary,
  //   "collections" or "searches" is there but not an array of
  //   dictionaries, or a value does not fit the attribute it names):
  //   NSCocoaErrorDomain, NSFileReadCorruptFileError; nothing changes;
  // - the save fails: the save's error; the changes then stay unsaved in the
  //   context, for the caller to keep or roll back.
  // Keys the entities do not store are ignored. An entry whose predicate
  // data is damaged is restored without it: the collection keeps the
  // predicate it had (a new one has none). The context's model must hold
  // the Collection and Search entities (else std::logic_error).
  [[nodiscard]] bool restoreBackup(const Data& data, const NSManagedObjectContextPtr& context,
                                   NSErrorPtr* error = nullptr) const;

  // mapper applied to each element, in order.
  static Array _mapArray(const Array& array, const std::function<Value(const Value&)>& mapper);
};
