#include "store/ZBTarrowDataStoreDefaultGenerator.h"

#include "model/ZBTarrowCollection.h"
#include "model/ZBTarrowPinboardPost.h"
#include "model/ZBTarrowSearch.h"
#include "platform/foundation/ZBLocalizedString.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/predicate/NSPredicate.h"

namespace {

Value collection(const char* identifier, const char* title, NSPredicatePtr predicate, std::int64_t order) {
  Dictionary item{{ZBTarrowCollectionIdentifierKey, identifier},
                  {ZBTarrowCollectionTitleKey, ZBLocalizedString(title)},
                  {ZBTarrowCollectionEditableKey, false},
                  {ZBTarrowCollectionOrderKey, order}};
  if (predicate) item.set(ZBTarrowCollectionPredicateKey, Value(std::move(predicate)));
  return item;
}

NSPredicatePtr format(const char* text, const std::string& key) {
  return NSPredicate::predicateWithFormat(text, {Value(key)});
}

Value search(const char* identifier, std::string title, const char* method, bool authenticated, std::int64_t order) {
  return Dictionary{{ZBTarrowSearchIdentifierKey, identifier},
                    {ZBTarrowSearchTitleKey, std::move(title)},
                    {ZBTarrowSearchEditableKey, false},
                    {ZBTarrowSearchOrderKey, order},
                    {ZBTarrowSearchMethodKey, method},
                    {ZBTarrowSearchAuthenticatedKey, authenticated}};
}

}  // namespace

Array ZBTarrowDataStoreDefaultGenerator::_defaultCollectionsMetadata() {
  return {
      collection("ALL", "All", nullptr, 0),
      collection("PRIVATE", "Private", format("%K == NO", ZBTarrowPinboardPostSharedKey), 1),
      collection("PUBLIC", "Public", format("%K == YES", ZBTarrowPinboardPostSharedKey), 2),
      collection("UNREAD", "Unread", format("%K == YES", ZBTarrowPinboardPostUnreadKey), 3),
      collection("UNTAGGED", "Untagged", format("%K.@count == 0", ZBTarrowPinboardPostTagsKey), 4),
      collection("STARRED", "Starred", format("%K == YES", ZBTarrowPinboardPostStarredKey), 5),
      collection("DEAD", "Dead Links", format("%K == YES", ZBTarrowPinboardPostDeadKey), 6),
  };
}

Array ZBTarrowDataStoreDefaultGenerator::_defaultCommunityMetadata() {
  return {
      search("NETWORK", ZBLocalizedString("Network"), "network", true, 0),
      search("RECENT", ZBLocalizedString("Recent"), "recent", false, 1),
      search("POPULAR", ZBLocalizedString("Popular"), "popular", false, 2),
      search("WIKIPEDIA", ZBLocalizedString("Wikipedia"), "popular/wikipedia", false, 3),
      search("FANDOM", ZBLocalizedString("Fandom"), "popular/fandom", false, 4),
      // The Japanese feed keeps its own name in every language.
      search("JAPANESE", "日本語", "popular/japanese", false, 5),
  };
}

bool ZBTarrowDataStoreDefaultGenerator::createDefaultSidebarItemsIfNeeded(const NSManagedObjectContextPtr& context,
                                                                          NSErrorPtr* error) const {
  return _createDefaultCollectionsIfNeeded(context, error) && _createDefaultSearchesIfNeeded(context, error);
}

bool ZBTarrowDataStoreDefaultGenerator::_createDefaultCollectionsIfNeeded(const NSManagedObjectContextPtr& context,
                                                                          NSErrorPtr* error) const {
  return _createDefaultObjects(_defaultCollectionsMetadata(), ZBTarrowCollectionEntityName,
                               ZBTarrowCollectionIdentifierKey, context, error);
}

bool ZBTarrowDataStoreDefaultGenerator::_createDefaultSearchesIfNeeded(const NSManagedObjectContextPtr& context,
                                                                       NSErrorPtr* error) const {
  return _createDefaultObjects(_defaultCommunityMetadata(), ZBTarrowSearchEntityName, ZBTarrowSearchIdentifierKey,
                               context, error);
}

bool ZBTarrowDataStoreDefaultGenerator::_createDefaultObjects(const Array& metadata, const std::string& entityName,
                                                              const std::string& identityKey,
                                                              const NSManagedObjectContextPtr& context,
                                                              NSErrorPtr* error) const {
  for (const Value& item : metadata) {
    const Dictionary& values = item.asDictionary();
    auto request = NSFetchRequest::fetchRequestWithEntityName(entityName);
    request->setPredicate(NSPredicate::predicateWithFormat("%K == %@", {Value(identityKey), values[identityKey]}));
    std::int64_t count = context->countForFetchRequest(request, error);
    if (count == NSNotFound) return false;
    if (count > 0) continue;
    // Insertion gives the object a fresh identifier; the fixed one replaces it.
    auto object = context->insertNewObjectForEntityForName(entityName);
    object->setValuesForKeysWithDictionary(values);
  }
  return context->save(error);
}
