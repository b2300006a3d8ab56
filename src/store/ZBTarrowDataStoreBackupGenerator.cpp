#include "store/ZBTarrowDataStoreBackupGenerator.h"

#include <stdexcept>

#include "model/ZBTarrowCollection.h"
#include "model/ZBTarrowManagedObjectExporting.h"
#include "model/ZBTarrowSearch.h"
#include "platform/foundation/NSPropertyListSerialization.h"
#include "platform/foundation/ZBLocalizedString.h"
#include "platform/objectstore/NSEntityDescription.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/objectstore/NSManagedObjectModel.h"
#include "platform/objectstore/NSPersistentStoreCoordinator.h"

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

const NSEntityDescription& entityNamed(const NSManagedObjectContextPtr& context, const std::string& name) {
  auto coordinator = context->persistentStoreCoordinator();
  auto entity = coordinator ? coordinator->managedObjectModel()->entityNamed(name) : nullptr;
  if (!entity) throw std::logic_error("the context's model has no entity " + name);
  return *entity;
}

NSErrorPtr formatError(const std::string& reason) {
  Dictionary info{{NSLocalizedDescriptionKey,
                   ZBLocalizedString("The backup couldn’t be restored because it isn’t in the correct format.")},
                  {"NSDebugDescription", reason}};
  return NSError::create(NSCocoaErrorDomain, NSFileReadCorruptFileError, std::move(info));
}

// The entries of one kind, each reduced to the keys the entity stores. A
// document is outside input, so everything is checked before anything is
// applied: a value that does not fit its attribute would otherwise stop the
// restore half-way. Unknown keys are dropped (a later version may add some).
// An archived value (a collection's predicate) must be data; whether the
// archive itself is sound is the entity's business.
std::optional<std::vector<Dictionary>> checkedItems(const Value& items, const std::string& kind,
                                                    const NSEntityDescription& entity, std::string* reason) {
  std::vector<Dictionary> checked;
  if (items.isAbsent()) return checked;
  if (!items.isArray()) {
    *reason = "\"" + kind + "\" is not an array";
    return std::nullopt;
  }
  for (std::size_t i = 0; i < items.asArray().size(); ++i) {
    const Value& item = items.asArray()[i];
    const std::string where = "\"" + kind + "\"[" + std::to_string(i) + "]";
    if (!item.isDictionary()) {
      *reason = where + " is not a dictionary";
      return std::nullopt;
    }
    Dictionary known;
    for (const auto& [key, value] : item.asDictionary()) {
      const NSAttributeDescription* attribute = entity.attributeNamed(key);
      if (!attribute) continue;
      const bool fits = attribute->attributeType() == NSAttributeType::Transformable
                            ? value.isData()
                            : attribute->coercedValue(value).has_value();
      if (!fits) {
        *reason = where + " has a value of the wrong type for \"" + key + "\"";
        return std::nullopt;
      }
      known.set(key, value);
    }
    checked.push_back(std::move(known));
  }
  return checked;
}

// An entry without an identifier matches nothing: it becomes a new item that
// keeps the identifier it was given at insertion.
void restoreItems(const std::vector<Dictionary>& items, const std::string& entityName, const std::string& identifierKey,
                  const NSManagedObjectContextPtr& context) {
  for (Dictionary values : items) {
    const Value identifier = values[identifierKey];
    const bool identified = !identifier.isAbsent() && !identifier.isNull();
    std::shared_ptr<NSManagedObject> object;
    if (identified) {
      auto request = NSFetchRequest::fetchRequestWithEntityName(entityName);
      request->setPredicate(NSPredicate::predicateWithFormat("%K == %@", {Value(identifierKey), identifier}));
      request->setFetchLimit(1);
      auto found = context->executeFetchRequest(request);  // a failed lookup inserts anew
      if (found && !found->empty()) object = found->front().as<NSManagedObject>();
    } else {
      values.remove(identifierKey);
    }
    if (!object) {
      object = context->insertNewObjectForEntityForName(entityName);
      if (identified) object->setValueForKey(identifier, identifierKey);
    }
    // Every value was checked against the entity above.
    if (auto exporting = std::dynamic_pointer_cast<ZBTarrowManagedObjectExporting>(object)) {
      exporting->updateWithDictionaryRepresentation(values);
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
  Data data =
      NSPropertyListSerialization::dataWithPropertyList(document, NSPropertyListFormat::XML_v1_0, &serialisationError);
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
  if (!document.isDictionary()) return ZBSetError(error, formatError("the root is not a dictionary"));
  const Dictionary& root = document.asDictionary();

  std::string reason;
  auto collections =
      checkedItems(root[kCollectionsKey], kCollectionsKey, entityNamed(context, ZBTarrowCollectionEntityName), &reason);
  if (!collections) return ZBSetError(error, formatError(reason));
  auto searches =
      checkedItems(root[kSearchesKey], kSearchesKey, entityNamed(context, ZBTarrowSearchEntityName), &reason);
  if (!searches) return ZBSetError(error, formatError(reason));

  restoreItems(*collections, ZBTarrowCollectionEntityName, ZBTarrowCollectionIdentifierKey, context);
  restoreItems(*searches, ZBTarrowSearchEntityName, ZBTarrowSearchIdentifierKey, context);
  return context->save(error);
}
