#include "linkcheck/ZBTarrowLinkCheckerOperation.h"

#include <unordered_set>

#include "model/ZBTarrowPinboardPost.h"
#include "platform/foundation/NSURL.h"
#include "platform/foundation/ZBLocalizedString.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/operations/NSBlockOperation.h"
#include "platform/predicate/NSPredicate.h"
#include "platform/webkit/ZBWebLinkCheckOperation.h"

const std::string ZBTarrowLinkCheckerOperationStatusKey = "status";
const std::string ZBTarrowLinkCheckerOperationCheckedCountKey = "checkedCount";

std::shared_ptr<ZBTarrowLinkCheckerOperation> ZBTarrowLinkCheckerOperation::create(
    NSManagedObjectContextPtr managedObjectContext, std::shared_ptr<NSUserDefaults> userDefaults) {
  return std::make_shared<ZBTarrowLinkCheckerOperation>(Passkey(), std::move(managedObjectContext),
                                                        std::move(userDefaults));
}

ZBTarrowLinkCheckerOperation::ZBTarrowLinkCheckerOperation(Passkey, NSManagedObjectContextPtr managedObjectContext,
                                                           std::shared_ptr<NSUserDefaults> userDefaults)
    : _context(std::move(managedObjectContext)), _defaults(std::move(userDefaults)) {}

std::string ZBTarrowLinkCheckerOperation::status() const { return ZBLocalizedString("Looking for dead links…"); }

std::size_t ZBTarrowLinkCheckerOperation::checkedCount() const {
  ZBMutexLock lock(_mutex);
  return _check ? _check->checkedCount() : 0;
}

std::size_t ZBTarrowLinkCheckerOperation::totalCount() const {
  ZBMutexLock lock(_mutex);
  return _check ? _check->websiteURLs().size() : 0;
}

Value ZBTarrowLinkCheckerOperation::valueForKey(const std::string& key) const {
  if (key == ZBTarrowLinkCheckerOperationStatusKey) return Value(status());
  if (key == ZBTarrowLinkCheckerOperationCheckedCountKey) return Value(static_cast<std::int64_t>(checkedCount()));
  if (key == "totalCount") return Value(static_cast<std::int64_t>(totalCount()));
  return ZBConcurrentOperation::valueForKey(key);
}

NSManagedObjectContextPtr ZBTarrowLinkCheckerOperation::_scratchContext() const {
  auto scratch = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  scratch->setParentContext(_context);
  return scratch;
}

// The operation stays alive until its plan has finished, so the work below
// may use `this`.
void ZBTarrowLinkCheckerOperation::setupOperations(const ZBAddWorkOperation& addWorkOperation) {
  auto collect = ZBPromiseOperation::promiseOperationWithBlock([this](NSErrorPtr* error) -> Value {
    auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
    request->setResultType(NSDictionaryResultType);
    request->setPropertiesToFetch({ZBTarrowPinboardPostURLKey});
    auto rows = _scratchContext()->executeFetchRequest(*request, error);
    if (!rows) return Value();
    Array urls;
    urls.reserve(rows->size());
    for (const Value& row : *rows) urls.push_back(row.asDictionary().objectForKey(ZBTarrowPinboardPostURLKey));
    return Value(std::move(urls));
  });
  auto dispatch = NSBlockOperation::blockOperationWithBlock([this, collect, addWorkOperation] {
    NSErrorPtr error;
    Value urls = collect->completionProvider()(&error);
    if (!urls) return complete(Value(), error);
    _processPostURLs(urls.asArray(), addWorkOperation);
  });
  dispatch->addDependency(collect);
  addWorkOperation(collect);
  addWorkOperation(dispatch);
}

void ZBTarrowLinkCheckerOperation::_processPostURLs(const Array& postURLs, const ZBAddWorkOperation& addWorkOperation) {
  std::vector<NSURL> urls;
  urls.reserve(postURLs.size());
  for (const Value& text : postURLs) {
    if (!text.isString()) continue;
    if (auto url = NSURL::URLWithString(text.asString())) urls.push_back(std::move(*url));
  }
  auto check = ZBWebLinkCheckOperation::create(std::move(urls), _defaults);
  {
    // Progress of the check is this operation's progress.
    ZBMutexLock lock(_mutex);
    _check = check;
    _checkObservation = check->addObserver(ZBWebLinkCheckOperationCheckedCountKey, {}, [this](auto&, auto&, auto&) {
      willChangeValueForKey(ZBTarrowLinkCheckerOperationCheckedCountKey);
      didChangeValueForKey(ZBTarrowLinkCheckerOperationCheckedCountKey);
    });
  }
  auto write = ZBPromiseOperation::promiseOperationWithBlock([this, check](NSErrorPtr* error) -> Value {
    auto scratch = _scratchContext();
    Value results = check->completionProvider()(error);
    if (!results) return Value();
    // A repeated address carries the same verdict and would find the same
    // first post, already settled; asking again could instead find a later
    // duplicate, because the scratch context lists its own changed objects
    // after the unchanged stored ones.
    std::unordered_set<std::string> done;
    for (const Value& item : results.asArray()) {
      auto result = item.as<ZBWebLinkCheckResult>();
      if (!result || !done.insert(result->websiteURL().absoluteString()).second) continue;
      auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
      request->setFetchLimit(1);
      request->setPredicate(NSPredicate::predicateWithFormat(
          "%K == %@", {Value(ZBTarrowPinboardPostURLKey), Value(result->websiteURL().absoluteString())}));
      auto posts = scratch->executeFetchRequest(*request);  // a failed fetch counts as no match
      if (!posts || posts->empty()) continue;
      auto post = posts->front().as<ZBTarrowPinboardPost>();
      if (post && post->dead() != result->broken()) post->setDead(result->broken());
    }
    return scratch->save(error) ? Value(true) : Value();
  });
  write->addDependency(check);
  auto save = ZBPromiseOperation::promiseOperationWithBlock([this, write](NSErrorPtr* error) -> Value {
    if (!write->completionProvider()(error)) return Value();
    bool saved = false;
    _context->performBlockAndWait([&] { saved = _context->save(error); });
    return saved ? Value(true) : Value();
  });
  save->addDependency(write);
  auto finish = NSBlockOperation::blockOperationWithBlock([this, save] {
    NSErrorPtr error;
    Value saved = save->completionProvider()(&error);
    complete(saved ? Value(true) : Value(), error);
  });
  finish->addDependency(save);
  addWorkOperation(check);
  addWorkOperation(write);
  addWorkOperation(save);
  addWorkOperation(finish);
}
