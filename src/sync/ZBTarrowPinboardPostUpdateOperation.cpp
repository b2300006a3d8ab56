#include "sync/ZBTarrowPinboardPostUpdateOperation.h"

#include <algorithm>
#include <deque>
#include <unordered_map>

#include "model/ZBTarrowManagedObjectExporting.h"
#include "model/ZBTarrowPinboardPost.h"
#include "platform/foundation/ZBLocalizedString.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/predicate/NSPredicate.h"
#include "sync/ZBTarrowDataError.h"
#include "sync/impl/ZBTarrowPushPlan.h"

namespace {

// What the service holds of a bookmark: an edit of any of these while its
// request was in flight must reach the service too.
const std::string* const kSentKeys[] = {&ZBTarrowPinboardPostURLKey,  &ZBTarrowPinboardPostTitleKey,
                                        &ZBTarrowPinboardPostDescKey, &ZBTarrowPinboardPostTagsKey,
                                        &ZBTarrowPinboardPostDateKey, &ZBTarrowPinboardPostSharedKey,
                                        &ZBTarrowPinboardPostUnreadKey};

bool isNonEmptyString(const Value& value) { return value.isString() && !value.asString().empty(); }

}  // namespace

Dictionary ZBTarrowPinboardPostUpdateOperation::servicePostProperties(const Dictionary& post) {
  static constexpr const char* kSeparators = ", \t\n\r\v\f";
  const Value& tags = post[ZBTarrowPinboardPostTagsKey];
  const Array titles = tags.collectionElements();
  const bool split = std::any_of(titles.begin(), titles.end(), [](const Value& t) {
    return t.isString() && t.asString().find_first_of(kSeparators) != std::string::npos;
  });
  if (!split) return post;
  Set pieces;
  for (const Value& title : titles) {
    if (!title.isString()) continue;
    const std::string& text = title.asString();
    for (std::size_t start = text.find_first_not_of(kSeparators); start != std::string::npos;) {
      std::size_t end = text.find_first_of(kSeparators, start);
      pieces.insert(Value(text.substr(start, end == std::string::npos ? std::string::npos : end - start)));
      start = end == std::string::npos ? end : text.find_first_not_of(kSeparators, end);
    }
  }
  Dictionary sent = post;
  sent.set(ZBTarrowPinboardPostTagsKey, Value(std::move(pieces)));
  return sent;
}

bool ZBTarrowPinboardPostUpdateOperation::postHoldsSentProperties(const ZBTarrowPinboardPost& post,
                                                                  const Dictionary& sent) {
  const Dictionary now = post.dictionaryRepresentation();
  for (const auto* key : kSentKeys) {
    if (!(now[*key] == sent[*key])) return false;
  }
  return true;
}

std::shared_ptr<ZBTarrowPinboardPostUpdateOperation> ZBTarrowPinboardPostUpdateOperation::create(
    Array dirtyPosts, std::shared_ptr<ZBPinboardClient> pinboardClient,
    NSManagedObjectContextPtr managedObjectContext) {
  return std::make_shared<ZBTarrowPinboardPostUpdateOperation>(Passkey(), std::move(dirtyPosts),
                                                               std::move(pinboardClient),
                                                               std::move(managedObjectContext));
}

ZBTarrowPinboardPostUpdateOperation::ZBTarrowPinboardPostUpdateOperation(Passkey, Array dirtyPosts,
                                                                         std::shared_ptr<ZBPinboardClient> client,
                                                                         NSManagedObjectContextPtr context)
    : _dirtyPosts(std::move(dirtyPosts)), _client(std::move(client)), _context(std::move(context)) {}

void ZBTarrowPinboardPostUpdateOperation::setupOperations(const ZBAddWorkOperation& addWorkOperation) {
  auto pushContext = NSManagedObjectContext::create(NSPrivateQueueConcurrencyType);
  pushContext->performBlockAndWait([&] { pushContext->setParentContext(_context); });

  ZBTarrowPushPlan::Settings settings;
  settings.count = _dirtyPosts.size();
  settings.pushContext = pushContext;
  settings.failureDescription = ZBLocalizedString("Couldn’t Update Some Bookmarks");
  settings.failureRecoverySuggestion =
      ZBLocalizedString("There was an unknown error while updating some bookmarks on Pinboard. Please try again.");
  settings.complete = [this](Value result, NSErrorPtr error) { complete(std::move(result), std::move(error)); };

  // The operation is alive until its plan has finished, so `this` is safe in
  // the work below.
  settings.request = [this](std::size_t index, NSErrorPtr* error) -> std::shared_ptr<ZBPinboardRequestOperation> {
    const Dictionary& post = _dirtyPosts[index].asDictionary();
    if (!isNonEmptyString(post[ZBTarrowPinboardPostURLKey])) {
      ZBSetError(error, ZBTarrowDataInvalidItemError(
                            ZBTarrowPinboardPostURLKey,
                            ZBLocalizedString("This bookmark can’t be sent to Pinboard: it has no address.")));
      return nullptr;
    }
    if (!isNonEmptyString(post[ZBTarrowPinboardPostIdentifierKey])) {
      ZBSetError(error, ZBTarrowDataInvalidItemError(
                            ZBTarrowPinboardPostIdentifierKey,
                            ZBLocalizedString("This bookmark can’t be sent to Pinboard: it has no identifier.")));
      return nullptr;
    }
    return post[ZBTarrowPinboardObjectDeletingKey].boolValue()
               ? _client->deletePostWithProperties(post)
               : _client->updatePostWithProperties(servicePostProperties(post));
  };

  settings.confirm = [this, pushContext](std::span<const ZBTarrowPushPlan::Accepted> items, NSErrorPtr* error) {
    // Each accepted post is found by the identifier the service answered
    // with, not the one sent: the first local post holding it.
    Array identifiers;
    for (const auto& item : items) identifiers.push_back(item.result.asDictionary()[ZBTarrowPinboardPostIdentifierKey]);
    auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
    request->setPredicate(NSPredicate::predicateWithFormat(
        "%K IN %@", {Value(ZBTarrowPinboardPostIdentifierKey), Value(std::move(identifiers))}));
    auto found = pushContext->executeFetchRequest(*request, error);
    if (!found) return false;
    std::unordered_map<std::string, std::deque<std::shared_ptr<ZBTarrowPinboardPost>>> byIdentifier;
    for (const Value& object : *found) {
      auto post = object.as<ZBTarrowPinboardPost>();
      if (post) byIdentifier[post->identifier().value_or("")].push_back(std::move(post));
    }
    for (const auto& item : items) {
      const Dictionary& sent = _dirtyPosts[item.index].asDictionary();
      auto match = byIdentifier.find(item.result.asDictionary()[ZBTarrowPinboardPostIdentifierKey].asString());
      if (match == byIdentifier.end() || match->second.empty()) continue;  // gone meanwhile: nothing to clean
      auto post = match->second.front();
      if (sent[ZBTarrowPinboardObjectDeletingKey].boolValue()) {
        if (!post->deleting()) continue;  // the delete was taken back meanwhile: send it again next time
        pushContext->deleteObject(post);
        match->second.pop_front();  // the next item with this identifier finds the next post
      } else if (postHoldsSentProperties(*post, sent)) {
        post->setDirty(false);
      }
    }
    return true;
  };

  ZBTarrowPushPlan::create(std::static_pointer_cast<NSOperation>(shared_from_this()), std::move(settings))->start(addWorkOperation);
}
