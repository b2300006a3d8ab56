#include "model/ZBTarrowSearch.h"

#include "platform/foundation/NSUUID.h"

const std::string ZBTarrowSearchEntityName = "Search";
const std::string ZBTarrowSearchIdentifierKey = "identifier";
const std::string ZBTarrowSearchTitleKey = "title";
const std::string ZBTarrowSearchEditableKey = "editable";
const std::string ZBTarrowSearchOrderKey = "order";
const std::string ZBTarrowSearchHiddenKey = "hidden";
const std::string ZBTarrowSearchMethodKey = "method";
const std::string ZBTarrowSearchUsernameKey = "username";
const std::string ZBTarrowSearchTagsKey = "tags";
const std::string ZBTarrowSearchAuthenticatedKey = "authenticated";

std::optional<std::string> ZBTarrowSearch::_string(const std::string& key) const {
  Value value = valueForKey(key);
  if (!value.isString()) return std::nullopt;
  return value.asString();
}

void ZBTarrowSearch::awakeFromInsert() {
  NSManagedObject::awakeFromInsert();
  setPrimitiveValueForKey(Value(ZBGloballyUniqueString()), ZBTarrowSearchIdentifierKey);
}

Dictionary ZBTarrowSearch::dictionaryRepresentation() const { return ZBTarrowStoredAttributesDictionary(*this); }

bool ZBTarrowSearch::updateWithDictionaryRepresentation(const Dictionary& dictionary, NSErrorPtr* error) {
  return setValuesForKeysWithDictionary(dictionary, error);
}
