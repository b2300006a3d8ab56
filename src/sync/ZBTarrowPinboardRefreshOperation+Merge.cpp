// The refresh's two merges: a list of the service's bookmarks into the posts
// (with, for the full list, the removal of what the service no longer has),
// and a feed that sets one attribute of the posts it names.
//
// Both keep the written rules (first match where two local posts share an
// identifier or a URL; a dirty or deleting post is never overwritten) at a
// cost linear in the account: one snapshot of identifier and meta as a hash
// map, fetches and deletes in batches of kBatch keys, changes in chunks of
// kMergeChunk posts with a tag cache each.

#include <deque>
#include <unordered_map>
#include <unordered_set>

#include "model/ZBTarrowManagedObjectExporting.h"
#include "model/ZBTarrowPinboardPost.h"
#include "model/ZBTarrowPinboardTag.h"
#include "platform/objectstore/NSEntityDescription.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/objectstore/NSManagedObjectModel.h"
#include "platform/objectstore/NSPersistentStoreCoordinator.h"
#include "platform/predicate/NSPredicate.h"
#include "platform/predicate/ZBStringFolding.h"
#include "sync/ZBTarrowPinboardRefreshOperation.h"

namespace {

constexpr std::size_t kBatch = 500;
constexpr std::size_t kMergeChunk = 5000;

using PostPtr = std::shared_ptr<ZBTarrowPinboardPost>;

// The posts whose key (identifier or url) is one of keys, in fetch order per
// key. A failed fetch counts as none found.
std::unordered_map<std::string, std::deque<PostPtr>> postsByKey(const NSManagedObjectContextPtr& context,
                                                                const std::string& key,
                                                                const std::vector<std::string>& keys) {
  std::unordered_map<std::string, std::deque<PostPtr>> found;
  auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
  for (std::size_t first = 0; first < keys.size(); first += kBatch) {
    Array chunk;
    for (std::size_t i = first; i < std::min(keys.size(), first + kBatch); ++i) chunk.push_back(Value(keys[i]));
    request->setPredicate(NSPredicate::predicateWithFormat("%K IN %@", {Value(key), Value(std::move(chunk))}));
    auto objects = context->executeFetchRequest(*request);
    if (!objects) continue;
    for (const Value& object : *objects) {
      auto post = object.as<ZBTarrowPinboardPost>();
      Value value = post ? post->valueForKey(key) : Value();
      if (value.isString()) found[value.asString()].push_back(std::move(post));
    }
  }
  return found;
}

// The tag a title names in one context, as ZBTarrowPinboardPost::tagWithTitle
// finds it (an exact match, else one differing only in case or diacritics,
// else a new tag), with every tag read once instead of two fetches per title.
class TagCache {
public:
  explicit TagCache(NSManagedObjectContextPtr context) : _context(std::move(context)) {}

  std::shared_ptr<ZBTarrowPinboardTag> tag(const std::string& title) {
    if (!_loaded) _load();
    if (auto exact = _exact.find(title); exact != _exact.end()) return exact->second;
    std::string folded = ZBFoldString(title, true, true);
    if (auto similar = _folded.find(folded); similar != _folded.end()) return similar->second;
    auto tag = _context->insertNewObject<ZBTarrowPinboardTag>(ZBTarrowPinboardTagEntityName);
    tag->setTitle(title);
    _exact.emplace(title, tag);
    _folded.emplace(std::move(folded), tag);
    return tag;
  }

private:
  void _load() {
    _loaded = true;
    auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardTagEntityName);
    auto tags = _context->executeFetchRequest(*request);  // a failed fetch is a miss, as in tagWithTitle
    if (!tags) return;
    for (const Value& value : *tags) {
      auto tag = value.as<ZBTarrowPinboardTag>();
      auto title = tag ? tag->title() : std::nullopt;
      if (!title) continue;
      _exact.try_emplace(*title, tag);
      _folded.try_emplace(ZBFoldString(*title, true, true), tag);
    }
  }

  const NSManagedObjectContextPtr _context;
  bool _loaded = false;
  std::unordered_map<std::string, std::shared_ptr<ZBTarrowPinboardTag>> _exact;
  std::unordered_map<std::string, std::shared_ptr<ZBTarrowPinboardTag>> _folded;
};

// A service bookmark made ready for updateWithDictionaryRepresentation: keys
// the post does not have are left out (the service may add fields), tags
// become tag objects, and a bookmark without tags gets the null marker so the
// update clears the post's tags instead of keeping them.
Dictionary preprocessedServerPostMetadata(const Dictionary& server, const NSEntityDescription& entity,
                                          TagCache& tags) {
  Dictionary post;
  post.reserve(server.size() + 1);
  for (const auto& [key, value] : server) {
    if (key == ZBTarrowPinboardPostTagsKey || entity.attributeNamed(key)) post.set(key, value);
  }
  const Value& titles = server[ZBTarrowPinboardPostTagsKey];
  if (!titles) {
    post.set(ZBTarrowPinboardPostTagsKey, Value::null());
  } else if (titles.isCollection()) {
    Array objects;
    for (const Value& title : titles.collectionElements()) {
      if (title.isString() && !title.asString().empty()) objects.push_back(Value(tags.tag(title.asString())));
    }
    post.set(ZBTarrowPinboardPostTagsKey, Value(std::move(objects)));
  }
  return post;
}

}  // namespace

bool ZBTarrowPinboardRefreshOperation::_updatePostsWithServerPostsMetadata(const Array& serverPosts,
                                                                            bool checkStaleLocalData,
                                                                            NSErrorPtr* error) {
  // An empty answer never empties the store.
  if (serverPosts.empty()) return true;
  auto child = _childContext();
  auto entity = child->persistentStoreCoordinator()->managedObjectModel()->entityNamed(ZBTarrowPinboardPostEntityName);

  // The local side before any change: identifier → meta of the first post
  // holding it, and every identifier in fetch order for the stale pass.
  auto snapshotRequest = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
  snapshotRequest->setResultType(NSDictionaryResultType);
  snapshotRequest->setPropertiesToFetch({ZBTarrowPinboardPostIdentifierKey, ZBTarrowPinboardPostMetaKey});
  auto snapshot = child->executeFetchRequest(*snapshotRequest, error);
  if (!snapshot) return false;
  std::unordered_map<std::string, Value> localMeta;
  localMeta.reserve(snapshot->size());
  std::vector<std::string> localIdentifiers;
  localIdentifiers.reserve(snapshot->size());
  for (const Value& row : *snapshot) {
    const Value& identifier = row.asDictionary()[ZBTarrowPinboardPostIdentifierKey];
    localIdentifiers.push_back(identifier.asString());
    if (identifier.isString()) localMeta.try_emplace(identifier.asString(), row.asDictionary()[ZBTarrowPinboardPostMetaKey]);
  }
  snapshot.reset();

  // Update pass: the bookmarks whose meta differs, or that are new here.
  std::vector<std::size_t> changed;
  for (std::size_t i = 0; i < serverPosts.size(); ++i) {
    const Dictionary& server = serverPosts[i].asDictionary();
    const Value& identifier = server[ZBTarrowPinboardPostIdentifierKey];
    if (!identifier.isString()) continue;  // nothing to match it by
    auto local = localMeta.find(identifier.asString());
    const Value& meta = server[ZBTarrowPinboardPostMetaKey];
    if (local != localMeta.end() && local->second.isString() && meta.isString() &&
        local->second.asString() == meta.asString())
      continue;  // unchanged
    changed.push_back(i);
  }
  // In chunks, each in a child of its own saved at once: a first refresh of a
  // large account then never holds every new post in two contexts at a time.
  for (std::size_t first = 0; first < changed.size(); first += kMergeChunk) {
    const std::size_t end = std::min(changed.size(), first + kMergeChunk);
    auto chunkContext = _childContext();
    std::vector<std::string> identifiers;
    for (std::size_t c = first; c < end; ++c)
      identifiers.push_back(serverPosts[changed[c]].asDictionary()[ZBTarrowPinboardPostIdentifierKey].asString());
    auto existing = postsByKey(chunkContext, ZBTarrowPinboardPostIdentifierKey, identifiers);
    TagCache tags(chunkContext);
    for (std::size_t c = first; c < end; ++c) {
      const Dictionary& server = serverPosts[changed[c]].asDictionary();
      auto& matches = existing[server[ZBTarrowPinboardPostIdentifierKey].asString()];
      if (matches.empty())
        matches.push_back(chunkContext->insertNewObject<ZBTarrowPinboardPost>(ZBTarrowPinboardPostEntityName));
      const PostPtr& post = matches.front();
      if (post->deleting() || post->dirty()) continue;  // local edits win until they are pushed
      (void)post->updateWithDictionaryRepresentation(preprocessedServerPostMetadata(server, *entity, tags));
    }
    if (!_saveChildAndContext(chunkContext, error)) return false;
  }

  if (!checkStaleLocalData) return true;
  {
    // Stale pass: local posts the service no longer has go, except local
    // creations and edits not yet sent (dirty and not deleting).
    std::unordered_set<std::string> onServer;
    onServer.reserve(serverPosts.size());
    for (const Value& server : serverPosts) {
      const Value& identifier = server.asDictionary()[ZBTarrowPinboardPostIdentifierKey];
      if (identifier.isString()) onServer.insert(identifier.asString());
    }
    std::unordered_map<std::string, std::size_t> staleEntries;  // identifier → snapshot entries
    std::vector<std::string> stale;
    for (const auto& identifier : localIdentifiers) {
      if (onServer.count(identifier)) continue;
      if (staleEntries[identifier]++ == 0) stale.push_back(identifier);
    }
    auto candidates = postsByKey(child, ZBTarrowPinboardPostIdentifierKey, stale);
    for (const auto& identifier : stale) {
      // Each snapshot entry takes the first post still holding the
      // identifier; a survivor stays first, so later entries stop at it.
      auto& posts = candidates[identifier];
      for (std::size_t n = staleEntries[identifier]; n > 0 && !posts.empty(); --n) {
        const PostPtr& post = posts.front();
        if (post->dirty() && !post->deleting()) break;
        child->deleteObject(post);
        posts.pop_front();
      }
    }
    auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardTagEntityName);
    request->setPredicate(NSPredicate::predicateWithFormat("%K.@count == 0", {Value(ZBTarrowPinboardTagPostsKey)}));
    auto unused = child->executeFetchRequest(*request, error);
    if (!unused) return false;
    for (const Value& tag : *unused) child->deleteObject(tag.as<NSManagedObject>());
  }
  return _saveChildAndContext(child, error);
}

bool ZBTarrowPinboardRefreshOperation::_updatePostsWithServerFeedPostsMetadata(const Array& feedPosts,
                                                                                const std::string& attribute,
                                                                                const Value& value,
                                                                                NSErrorPtr* error) {
  if (feedPosts.empty()) return true;
  auto child = _childContext();
  std::vector<std::string> urls;
  urls.reserve(feedPosts.size());
  for (const Value& feed : feedPosts) {
    const Value& url = feed.asDictionary()[ZBTarrowPinboardPostURLKey];
    if (url.isString()) urls.push_back(url.asString());
  }
  auto posts = postsByKey(child, ZBTarrowPinboardPostURLKey, urls);
  for (const auto& url : urls) {
    auto match = posts.find(url);
    if (match == posts.end() || match->second.empty()) continue;  // not a bookmark of ours
    const PostPtr& post = match->second.front();
    if (!(post->valueForKey(attribute) == value)) post->setValueForKey(value, attribute);
  }
  return _saveChildAndContext(child, error);
}
