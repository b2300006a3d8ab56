#include "store/ZBTarrowDataStoreBackupGenerator.h"

#include "model/ZBTarrowCollection.h"
#include "model/ZBTarrowManagedObjectExporting.h"
#include "model/ZBTarrowSearch.h"
#include "platform/foundation/NSPropertyListSerialization.h"
#include "platform/objectstore/NSEntityDescription.h"
#include "platform/objectstore/NSFetchRequest.h"

const std::string ZBTarrowDataBackupDocumentType = "com.orvane.tarrow.backup";
const std::string ZBTarrowDataBookmarkMetadataType = "com.orvane.tarrow.bookmark.metadata";

namespace {

const std::string kVersionKey = "version";
const std::string kCollectionsKey = "collections";
const std::string kSearchesKey = "searches";

std::optional<Array> fetchEditable(const NSManagedObjectContextPtr& context, const std::string& entityName,
                                   const std::string& editableKey, NSErrorPtr* error) {
  auto request = NSFetchRequest::fetchRequestWithEntityName(entityName);
  request->setPredicate(NSPredicate::predicateWithFormat("%K == YES", {Value(editableKey)}));
  return context->executeFetchRequest(request, error);
}

Value dictionaryRepresentation(const Value& object) {
  auto exporting = std::dynamic_pointer_cast<ZBTarrowManagedObjectExporting>(object.asObject());
  return exporting ? Value(exporting->dictionaryRepresentation()) : Value(Dictionary{});
}

void restoreItems(const Value& items, const std::string& entityName, const std::string& identifierKey,
                  const NSManagedObjectContextPtr& context) {
  for (const Value& item : items.asArray()) {
    if (!item.isDictionary()) continue;
    const Dictionary& values = item.asDictionary();
    Value identifier = values[identifierKey];
    auto request = NSFetchRequest::fetchRequestWithEntityName(entityName);
    request->setPredicate(NSPredicate::predicateWithFormat("%K == %@", {Value(identifierKey), identifier}));
    request->setFetchLimit(1);
    auto found = context->executeFetchRequest(request);  // a failed lookup inserts anew
    std::shared_ptr<NSManagedObject> object;
    if (found && !found->empty()) object = found->front().as<NSManagedObject>();
    if (!object) {
      object = context->insertNewObjectForEntityForName(entityName);
      object->setValueForKey(identifier, identifierKey);
    }
    // A document is outside input: keys the entity does not have are dropped
    // rather than handed to the object, which would refuse them.
    Dictionary known;
    for (const auto& [key, value] : values) {
      if (object->entity()->propertyNamed(key)) known.set(key, value);
    }
    if (auto exporting = std::dynamic_pointer_cast<ZBTarrowManagedObjectExporting>(object)) {
      exporting->updateWithDictionaryRepresentation(known);
    }
  }
}

}  // namespace

Array ZBTarrowDataStoreBackupGenerator::_mapArray(const Array& array,
                                                  const std::function<Value(const Value&)>& mapper) {
  Array result;
  result.reserve(array.size());
  for (const Value& element : array) result.push_back(mapper(element));
  return result;
}

std::optional<Data> ZBTarrowDataStoreBackupGenerator::createBackupFromContext(const NSManagedObjectContextPtr& context,
                                                                              NSErrorPtr* error) const {
  auto collections = fetchEditable(context, ZBTarrowCollectionEntityName, ZBTarrowCollectionEditableKey, error);
  if (!collections) return std::nullopt;
  auto searches = fetchEditable(context, ZBTarrowSearchEntityName, ZBTarrowSearchEditableKey, error);
  if (!searches) return std::nullopt;

  Dictionary document{{kVersionKey, 1},
                      {kCollectionsKey, _mapArray(*collections, dictionaryRepresentation)},
                      {kSearchesKey, _mapArray(*searches, dictionaryRepresentation)}};
  NSErrorPtr serialisationError;
  Data data = NSPropertyListSerialization::dataWithPropertyList(document, NSPropertyListFormat::XML_v1_0,
                                                                &serialisationError);
  if (serialisationError) {
    ZBSetError(error, serialisationError);
    return std::nullopt;
  }
  return data;
}

bool ZBTarrowDataStoreBackupGenerator::restoreBackup(const Data& data, const NSManagedObjectContextPtr& context,
                                                     NSErrorPtr* error) const {
  NSErrorPtr parseError;
  Value document = NSPropertyListSerialization::propertyListWithData(data, nullptr, &parseError);
  if (document.isAbsent()) return ZBSetError(error, parseError);
  const Dictionary& root = document.asDictionary();
  restoreItems(root[kCollectionsKey], ZBTarrowCollectionEntityName, ZBTarrowCollectionIdentifierKey, context);
  restoreItems(root[kSearchesKey], ZBTarrowSearchEntityName, ZBTarrowSearchIdentifierKey, context);
  return context->save(error);
}
