#include "model/ZBTarrowPinboardTag.h"

#include "model/ZBTarrowPinboardPost.h"

const std::string ZBTarrowPinboardTagEntityName = "PinboardTag";
const std::string ZBTarrowPinboardTagTitleKey = "title";
const std::string ZBTarrowPinboardTagPreviousTitleKey = "previousTitle";
const std::string ZBTarrowPinboardTagPostsKey = "posts";
const std::string ZBTarrowPinboardTagPostCountKey = "postCount";

std::optional<std::string> ZBTarrowPinboardTag::title() const {
  Value value = valueForKey(ZBTarrowPinboardTagTitleKey);
  if (!value.isString()) return std::nullopt;
  return value.asString();
}

void ZBTarrowPinboardTag::setTitle(std::optional<std::string> title) {
  setValueForKey(title ? Value(std::move(*title)) : Value(), ZBTarrowPinboardTagTitleKey);
}

std::optional<std::string> ZBTarrowPinboardTag::previousTitle() const {
  Value value = valueForKey(ZBTarrowPinboardTagPreviousTitleKey);
  if (!value.isString()) return std::nullopt;
  return value.asString();
}

void ZBTarrowPinboardTag::setPreviousTitle(std::optional<std::string> title) {
  setValueForKey(title ? Value(std::move(*title)) : Value(), ZBTarrowPinboardTagPreviousTitleKey);
}

std::vector<std::shared_ptr<ZBTarrowPinboardPost>> ZBTarrowPinboardTag::posts() const {
  std::vector<std::shared_ptr<ZBTarrowPinboardPost>> posts;
  for (const auto& member : valueForKey(ZBTarrowPinboardTagPostsKey).collectionElements()) {
    if (auto post = member.as<ZBTarrowPinboardPost>()) posts.push_back(std::move(post));
  }
  return posts;
}

std::uint64_t ZBTarrowPinboardTag::postCount() const {
  return valueForKey(ZBTarrowPinboardTagPostsKey).count();
}

Dictionary ZBTarrowPinboardTag::dictionaryRepresentation() const { return ZBTarrowStoredAttributesDictionary(*this); }

bool ZBTarrowPinboardTag::updateWithDictionaryRepresentation(const Dictionary& dictionary, NSErrorPtr* error) {
  Dictionary values = dictionary;
  values.remove(ZBTarrowPinboardTagPostsKey);
  return setValuesForKeysWithDictionary(values, error);
}

Value ZBTarrowPinboardTag::valueForKey(const std::string& key) const {
  if (key == ZBTarrowPinboardTagPostCountKey) return Value(static_cast<std::int64_t>(postCount()));
  return NSManagedObject::valueForKey(key);
}

std::vector<std::string> ZBTarrowPinboardTag::keyPathsForValuesAffectingValueForKey(const std::string& key) const {
  auto keyPaths = NSManagedObject::keyPathsForValuesAffectingValueForKey(key);
  if (key == ZBTarrowPinboardTagPostCountKey) {
    for (auto& keyPath : keyPathsForValuesAffectingPostCount()) keyPaths.push_back(keyPath);
  }
  return keyPaths;
}
