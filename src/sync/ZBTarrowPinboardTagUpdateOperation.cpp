#include "sync/ZBTarrowPinboardTagUpdateOperation.h"

#include <deque>
#include <unordered_map>

#include "model/ZBTarrowManagedObjectExporting.h"
#include "model/ZBTarrowPinboardTag.h"
#include "platform/foundation/ZBLocalizedString.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/predicate/NSPredicate.h"
#include "sync/ZBTarrowDataError.h"
#include "sync/impl/ZBTarrowPushPlan.h"

std::shared_ptr<ZBTarrowPinboardTagUpdateOperation> ZBTarrowPinboardTagUpdateOperation::create(
    Array dirtyTags, std::shared_ptr<ZBPinboardClient> pinboardClient, NSManagedObjectContextPtr managedObjectContext) {
  return std::make_shared<ZBTarrowPinboardTagUpdateOperation>(Passkey(), std::move(dirtyTags),
                                                              std::move(pinboardClient),
                                                              std::move(managedObjectContext));
}

ZBTarrowPinboardTagUpdateOperation::ZBTarrowPinboardTagUpdateOperation(Passkey, Array dirtyTags,
                                                                       std::shared_ptr<ZBPinboardClient> client,
                                                                       NSManagedObjectContextPtr context)
    : _dirtyTags(std::move(dirtyTags)), _client(std::move(client)), _context(std::move(context)) {}

void ZBTarrowPinboardTagUpdateOperation::setupOperations(const ZBAddWorkOperation& addWorkOperation) {
  auto pushContext = NSManagedObjectContext::create(NSPrivateQueueConcurrencyType);
  pushContext->performBlockAndWait([&] { pushContext->setParentContext(_context); });

  ZBTarrowPushPlan::Settings settings;
  settings.count = _dirtyTags.size();
  settings.pushContext = pushContext;
  settings.failureDescription = ZBLocalizedString("Couldn’t Update Some Tags");
  settings.failureRecoverySuggestion =
      ZBLocalizedString("There was an unknown error while updating some tags on Pinboard. Please try again.");
  settings.complete = [this](Value result, NSErrorPtr error) { complete(std::move(result), std::move(error)); };

  settings.request = [this](std::size_t index, NSErrorPtr* error) -> std::shared_ptr<ZBPinboardRequestOperation> {
    const Dictionary& tag = _dirtyTags[index].asDictionary();
    const bool deleting = tag[ZBTarrowPinboardObjectDeletingKey].boolValue();
    const Value& title = tag[ZBTarrowPinboardTagTitleKey];
    const std::string& neededKey = deleting ? ZBTarrowPinboardTagTitleKey : ZBTarrowPinboardTagPreviousTitleKey;
    const Value& needed = tag[neededKey];
    if (!needed) return nullptr;  // never seen by the service under a title: nothing to send
    // A rename may lack its new title; the service's answer then says so.
    const std::string& badKey = !needed.isString() ? neededKey : ZBTarrowPinboardTagTitleKey;
    if (!needed.isString() || (!deleting && title && !title.isString())) {
      ZBSetError(error, ZBTarrowDataInvalidItemError(
                            badKey, ZBLocalizedString("This tag can’t be sent to Pinboard: its title is not text.")));
      return nullptr;
    }
    return deleting ? _client->deleteTag(needed.asString()) : _client->renameTag(needed.asString(), title.asString());
  };

  settings.confirm = [this, pushContext](std::span<const ZBTarrowPushPlan::Accepted> items, NSErrorPtr* error) {
    // Each accepted tag is found by the title the service answered with.
    Array titles;
    for (const auto& item : items) titles.push_back(item.result);
    auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardTagEntityName);
    request->setPredicate(
        NSPredicate::predicateWithFormat("%K IN %@", {Value(ZBTarrowPinboardTagTitleKey), Value(std::move(titles))}));
    auto found = pushContext->executeFetchRequest(*request, error);
    if (!found) return false;
    std::unordered_map<std::string, std::deque<std::shared_ptr<ZBTarrowPinboardTag>>> byTitle;
    for (const Value& object : *found) {
      auto tag = object.as<ZBTarrowPinboardTag>();
      if (tag) byTitle[tag->title().value_or("")].push_back(std::move(tag));
    }
    for (const auto& item : items) {
      auto match = byTitle.find(item.result.asString());
      if (match == byTitle.end() || match->second.empty()) continue;  // the store lacks it: nothing to clean
      auto tag = match->second.front();
      tag->setDirty(false);
      if (_dirtyTags[item.index].asDictionary()[ZBTarrowPinboardObjectDeletingKey].boolValue()) {
        pushContext->deleteObject(tag);
        match->second.pop_front();
      }
    }
    return true;
  };

  ZBTarrowPushPlan::create(std::static_pointer_cast<NSOperation>(shared_from_this()), std::move(settings))
      ->start(addWorkOperation);
}
