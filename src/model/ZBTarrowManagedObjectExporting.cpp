#include "model/ZBTarrowManagedObjectExporting.h"

#include "platform/objectstore/NSManagedObject.h"

const std::string ZBTarrowPinboardObjectDirtyKey = "dirty";
const std::string ZBTarrowPinboardObjectDeletingKey = "deleting";

Dictionary ZBTarrowStoredAttributesDictionary(const NSManagedObject& object) {
  const auto& attributes = object.entity()->attributes();
  std::vector<Dictionary::Entry> entries;
  entries.reserve(attributes.size());
  for (const auto& attribute : attributes) {
    Value value = object.valueForKey(attribute->name());
    if (value.isAbsent() || value.isNull()) continue;
    entries.emplace_back(attribute->name(), std::move(value));
  }
  return Dictionary::fromEntries(std::move(entries));
}
