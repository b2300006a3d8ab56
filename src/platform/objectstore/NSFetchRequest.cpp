#include "platform/objectstore/NSFetchRequest.h"

std::shared_ptr<NSFetchRequest> NSFetchRequest::fetchRequestWithEntityName(std::string entityName) {
  return std::make_shared<NSFetchRequest>(std::move(entityName));
}

std::string NSFetchRequest::description() const {
  std::string text = "<NSFetchRequest " + _entityName;
  if (_predicate) text += " where " + _predicate->predicateFormat();
  for (auto& descriptor : _sortDescriptors) text += " by " + descriptor.key() + (descriptor.ascending() ? " asc" : " desc");
  if (_fetchLimit) text += " limit " + std::to_string(_fetchLimit);
  return text + ">";
}
