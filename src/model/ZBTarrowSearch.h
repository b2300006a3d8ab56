#pragma once
// ZBTarrowSearch: a saved search of the service's public feeds, shown in the
// sidebar (entity "Search", configuration "Tarrow"). A new search gets a
// globally unique identifier at insertion; built-in searches overwrite it
// with their fixed one. Its dictionary form is what the search operation
// reads its parameters from ("method", "username", "tags", "authenticated").
//
// Thread-safety: use only on its context's queue.

#include <cstdint>
#include <optional>
#include <string>

#include "model/ZBTarrowManagedObjectExporting.h"
#include "platform/objectstore/NSManagedObject.h"

extern const std::string ZBTarrowSearchEntityName;  // "Search"

extern const std::string ZBTarrowSearchIdentifierKey;     // "identifier"
extern const std::string ZBTarrowSearchTitleKey;          // "title"
extern const std::string ZBTarrowSearchEditableKey;       // "editable"
extern const std::string ZBTarrowSearchOrderKey;          // "order"
extern const std::string ZBTarrowSearchHiddenKey;         // "hidden"
extern const std::string ZBTarrowSearchMethodKey;         // "method"
extern const std::string ZBTarrowSearchUsernameKey;       // "username"
extern const std::string ZBTarrowSearchTagsKey;           // "tags"
extern const std::string ZBTarrowSearchAuthenticatedKey;  // "authenticated"

class ZBTarrowSearch final : public NSManagedObject, public ZBTarrowManagedObjectExporting {
public:
  std::optional<std::string> identifier() const { return _string(ZBTarrowSearchIdentifierKey); }
  std::optional<std::string> title() const { return _string(ZBTarrowSearchTitleKey); }
  std::optional<std::string> method() const { return _string(ZBTarrowSearchMethodKey); }
  std::optional<std::string> username() const { return _string(ZBTarrowSearchUsernameKey); }
  std::optional<std::string> tags() const { return _string(ZBTarrowSearchTagsKey); }
  bool editable() const { return valueForKey(ZBTarrowSearchEditableKey).boolValue(); }
  bool hidden() const { return valueForKey(ZBTarrowSearchHiddenKey).boolValue(); }
  bool authenticated() const { return valueForKey(ZBTarrowSearchAuthenticatedKey).boolValue(); }
  std::int64_t order() const { return valueForKey(ZBTarrowSearchOrderKey).integerValue(); }

  // Every stored attribute with a value.
  Dictionary dictionaryRepresentation() const override;
  // Sets every entry as it is: the null marker clears an attribute.
  bool updateWithDictionaryRepresentation(const Dictionary& dictionary, NSErrorPtr* error = nullptr) override;

  // NSManagedObject: a new search gets a new unique identifier.
  void awakeFromInsert() override;

private:
  std::optional<std::string> _string(const std::string& key) const;
};

using ZBTarrowSearchPtr = std::shared_ptr<ZBTarrowSearch>;
