#include "store/NSManagedObjectContext+ZBTarrowPersistentStoreSaveNotification.h"

#include "platform/objectstore/NSEntityDescription.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/predicate/NSComparisonPredicate.h"
#include "platform/predicate/NSExpression.h"

ZBTarrowPersistentStoreNotificationPtr ZBTarrowCreatePersistentStoreSaveNotificationFromSaveNotification(
    const NSManagedObjectContextPtr&, const NSNotification& notification) {
  Dictionary userInfo;
  userInfo.reserve(notification.userInfo.size());
  for (const auto& [key, value] : notification.userInfo) {
    if (value.count() < 1) continue;
    Array uris;
    for (const Value& member : value.collectionElements()) {
      auto object = member.as<NSManagedObject>();
      if (!object || !object->objectID()) continue;
      uris.push_back(object->objectID()->URIRepresentation());
    }
    userInfo.set(key, std::move(uris));
  }
  return ZBTarrowPersistentStoreNotification::notificationWithName(NSManagedObjectContextDidSaveNotification,
                                                                   std::move(userInfo));
}

NSNotification ZBTarrowCreateSaveNotificationFromPersistentStoreSaveNotification(
    const NSManagedObjectContextPtr& context, const ZBTarrowPersistentStoreNotification& notification) {
  Dictionary portable = notification.userInfo();
  Dictionary userInfo;
  userInfo.reserve(portable.size());
  for (const auto& [key, value] : portable) {
    if (value.count() < 1) continue;
    Set objects;
    for (const Value& member : value.collectionElements()) {
      if (!member.isString()) continue;
      auto uri = NSURL::URLWithString(member.asString());
      if (!uri) continue;
      auto object = ZBTarrowFetchCleanManagedObjectForURIRepresentation(context, *uri);
      if (!object) object = ZBTarrowManagedObjectForURIRepresentation(context, *uri);
      if (object) objects.insert(Value(object));
    }
    userInfo.set(key, std::move(objects));
  }
  return NSNotification{NSManagedObjectContextDidSaveNotification, nullptr, std::move(userInfo)};
}

std::shared_ptr<NSManagedObject> ZBTarrowManagedObjectForURIRepresentation(const NSManagedObjectContextPtr& context,
                                                                           const NSURL& uri) {
  auto coordinator = context->persistentStoreCoordinator();
  if (!coordinator) return nullptr;
  auto objectID = coordinator->managedObjectIDForURIRepresentation(uri);
  if (!objectID) return nullptr;
  return context->objectWithID(objectID);
}

std::shared_ptr<NSManagedObject> ZBTarrowFetchCleanManagedObjectForURIRepresentation(
    const NSManagedObjectContextPtr& context, const NSURL& uri) {
  auto object = ZBTarrowManagedObjectForURIRepresentation(context, uri);
  if (!object || !object->entity()) return nullptr;
  auto request = NSFetchRequest::fetchRequestWithEntityName(object->entity()->name());
  request->setPredicate(NSComparisonPredicate::create(NSExpression::expressionForEvaluatedObject(),
                                                      NSExpression::expressionForConstantValue(Value(object)),
                                                      NSComparisonPredicateModifier::Direct,
                                                      NSPredicateOperatorType::EqualTo));
  auto results = context->executeFetchRequest(request);
  if (!results || results->empty()) return nullptr;
  return results->front().as<NSManagedObject>();
}
