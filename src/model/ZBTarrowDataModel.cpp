#include "model/ZBTarrowDataModel.h"

#include "model/ZBTarrowCollection.h"
#include "model/ZBTarrowPinboardPost.h"
#include "model/ZBTarrowPinboardTag.h"
#include "model/ZBTarrowSearch.h"

const std::string ZBTarrowDataPinboardConfigurationName = "Pinboard";
const std::string ZBTarrowDataTarrowConfigurationName = "Tarrow";

namespace {

using Type = NSAttributeType;

NSAttributeOptions indexed() { return {.optional = true, .indexed = true}; }

std::shared_ptr<NSEntityDescription> postEntity() {
  auto entity = NSEntityDescription::create(ZBTarrowPinboardPostEntityName);
  entity->setManagedObjectClass<ZBTarrowPinboardPost>("ZBTarrowPinboardPost");
  // identifier stays optional: validation fills it in on the first save.
  entity->addAttribute(ZBTarrowPinboardPostIdentifierKey, Type::String, indexed());
  entity->addAttribute(ZBTarrowPinboardPostMetaKey, Type::String);
  entity->addAttribute(ZBTarrowPinboardPostUsernameKey, Type::String);
  entity->addAttribute(ZBTarrowPinboardPostURLKey, Type::String, {.optional = false, .indexed = true});
  entity->addAttribute(ZBTarrowPinboardPostTitleKey, Type::String);
  entity->addAttribute(ZBTarrowPinboardPostDescKey, Type::String);
  // Flags are indexed alone only where the value asked for is rare among a
  // user's bookmarks (starred, dead, dirty): without table statistics SQLite
  // prefers any equality index to a range, so an index led by "deleting",
  // which every collection count tests for its common value NO, would turn
  // the date range of a relative-date count into a walk over nearly every
  // row. The flags the counts test share a covering index instead (below),
  // which answers them without reading the table and is never a search key.
  entity->addAttribute(ZBTarrowPinboardPostDateKey, Type::Date, indexed());
  entity->addAttribute(ZBTarrowPinboardPostUnreadKey, Type::Boolean);
  entity->addAttribute(ZBTarrowPinboardPostSharedKey, Type::Boolean);
  entity->addAttribute(ZBTarrowPinboardPostStarredKey, Type::Boolean, indexed());
  entity->addAttribute(ZBTarrowPinboardPostDeadKey, Type::Boolean, indexed());
  entity->addAttribute(ZBTarrowPinboardPostSourceKey, Type::Integer64, {.optional = true, .defaultValue = Value(0)});
  entity->addAttribute(ZBTarrowPinboardPostOthersKey, Type::Integer64);
  entity->addAttribute(ZBTarrowPinboardObjectDeletingKey, Type::Boolean);
  entity->addAttribute(ZBTarrowPinboardObjectDirtyKey, Type::Boolean, indexed());
  entity->addRelationship(ZBTarrowPinboardPostTagsKey, ZBTarrowPinboardTagEntityName,
                          {.toMany = true, .inverseName = ZBTarrowPinboardTagPostsKey});
  entity->addCoveringIndex({ZBTarrowPinboardObjectDeletingKey, ZBTarrowPinboardPostSharedKey,
                            ZBTarrowPinboardPostUnreadKey, ZBTarrowPinboardPostStarredKey,
                            ZBTarrowPinboardPostDeadKey});
  return entity;
}

std::shared_ptr<NSEntityDescription> tagEntity() {
  auto entity = NSEntityDescription::create(ZBTarrowPinboardTagEntityName);
  entity->setManagedObjectClass<ZBTarrowPinboardTag>("ZBTarrowPinboardTag");
  entity->addAttribute(ZBTarrowPinboardTagTitleKey, Type::String, indexed());
  entity->addAttribute(ZBTarrowPinboardTagPreviousTitleKey, Type::String);
  entity->addAttribute(ZBTarrowPinboardObjectDeletingKey, Type::Boolean);
  entity->addAttribute(ZBTarrowPinboardObjectDirtyKey, Type::Boolean, indexed());
  entity->addRelationship(ZBTarrowPinboardTagPostsKey, ZBTarrowPinboardPostEntityName,
                          {.toMany = true, .inverseName = ZBTarrowPinboardPostTagsKey});
  return entity;
}

std::shared_ptr<NSEntityDescription> collectionEntity() {
  auto entity = NSEntityDescription::create(ZBTarrowCollectionEntityName);
  entity->setManagedObjectClass<ZBTarrowCollection>("ZBTarrowCollection");
  entity->addAttribute(ZBTarrowCollectionIdentifierKey, Type::String, indexed());
  entity->addAttribute(ZBTarrowCollectionTitleKey, Type::String);
  entity->addAttribute(ZBTarrowCollectionPredicateKey, Type::Transformable);
  entity->addAttribute(ZBTarrowCollectionEditableKey, Type::Boolean);
  entity->addAttribute(ZBTarrowCollectionOrderKey, Type::Integer64, {.optional = true, .defaultValue = Value(0)});
  entity->addAttribute(ZBTarrowCollectionHiddenKey, Type::Boolean);
  return entity;
}

std::shared_ptr<NSEntityDescription> searchEntity() {
  auto entity = NSEntityDescription::create(ZBTarrowSearchEntityName);
  entity->setManagedObjectClass<ZBTarrowSearch>("ZBTarrowSearch");
  entity->addAttribute(ZBTarrowSearchIdentifierKey, Type::String, indexed());
  entity->addAttribute(ZBTarrowSearchTitleKey, Type::String);
  entity->addAttribute(ZBTarrowSearchEditableKey, Type::Boolean);
  entity->addAttribute(ZBTarrowSearchOrderKey, Type::Integer64, {.optional = true, .defaultValue = Value(0)});
  entity->addAttribute(ZBTarrowSearchHiddenKey, Type::Boolean);
  entity->addAttribute(ZBTarrowSearchMethodKey, Type::String);
  entity->addAttribute(ZBTarrowSearchUsernameKey, Type::String);
  entity->addAttribute(ZBTarrowSearchTagsKey, Type::String);
  entity->addAttribute(ZBTarrowSearchAuthenticatedKey, Type::Boolean);
  return entity;
}

}  // namespace

std::shared_ptr<NSManagedObjectModel> ZBTarrowDataCreateManagedObjectModel() {
  auto model = NSManagedObjectModel::create({postEntity(), tagEntity(), collectionEntity(), searchEntity()});
  model->setEntitiesForConfiguration({ZBTarrowPinboardPostEntityName, ZBTarrowPinboardTagEntityName},
                                     ZBTarrowDataPinboardConfigurationName);
  model->setEntitiesForConfiguration({ZBTarrowCollectionEntityName, ZBTarrowSearchEntityName},
                                     ZBTarrowDataTarrowConfigurationName);
  return model;
}
