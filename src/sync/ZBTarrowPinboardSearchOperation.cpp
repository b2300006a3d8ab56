#include "sync/ZBTarrowPinboardSearchOperation.h"

#include "model/ZBTarrowSearch.h"
#include "platform/foundation/ZBLocalizedString.h"
#include "platform/operations/NSBlockOperation.h"
#include "sync/ZBTarrowDataError.h"

namespace {

NSErrorPtr searchTooBroadError() {
  return ZBTarrowDataErrorWith(ZBTarrowDataSearchTooBroadError, ZBLocalizedString("Couldn’t Search Pinboard"),
                               ZBLocalizedString("The search is too broad. Please try again."));
}

// The first parameter present with another type than expected, or nullptr.
const std::string* mistypedParameter(const Dictionary& parameters) {
  for (const auto* key : {&ZBTarrowSearchMethodKey, &ZBTarrowSearchUsernameKey, &ZBTarrowSearchTagsKey}) {
    const Value& value = parameters[*key];
    if (value && !value.isString()) return key;
  }
  const Value& authenticated = parameters[ZBTarrowSearchAuthenticatedKey];
  if (authenticated && !authenticated.isNumber()) return &ZBTarrowSearchAuthenticatedKey;
  return nullptr;
}

// "a b a" → {a, b}; split at every single space, so "a  b" also holds "".
Set tagSet(const std::string& tags) {
  Set set;
  std::size_t start = 0;
  while (true) {
    std::size_t space = tags.find(' ', start);
    set.insert(Value(tags.substr(start, space == std::string::npos ? std::string::npos : space - start)));
    if (space == std::string::npos) break;
    start = space + 1;
  }
  return set;
}

}  // namespace

std::shared_ptr<ZBTarrowPinboardSearchOperation> ZBTarrowPinboardSearchOperation::create(
    Dictionary searchParameters, std::shared_ptr<ZBPinboardClient> pinboardClient,
    NSManagedObjectContextPtr managedObjectContext) {
  return std::make_shared<ZBTarrowPinboardSearchOperation>(Passkey(), std::move(searchParameters),
                                                           std::move(pinboardClient), std::move(managedObjectContext));
}

ZBTarrowPinboardSearchOperation::ZBTarrowPinboardSearchOperation(Passkey, Dictionary searchParameters,
                                                                 std::shared_ptr<ZBPinboardClient> pinboardClient,
                                                                 NSManagedObjectContextPtr managedObjectContext)
    : _parameters(std::move(searchParameters)),
      _client(std::move(pinboardClient)),
      _context(std::move(managedObjectContext)) {}

void ZBTarrowPinboardSearchOperation::setupOperations(const ZBAddWorkOperation& addWorkOperation) {
  if (const std::string* key = mistypedParameter(_parameters)) {
    complete(Value(), ZBTarrowDataInvalidItemError(*key, ZBLocalizedString("The search parameters are not valid.")));
    return;
  }
  const Value& method = _parameters[ZBTarrowSearchMethodKey];
  const Value& username = _parameters[ZBTarrowSearchUsernameKey];
  const Value& tags = _parameters[ZBTarrowSearchTagsKey];

  ZBPinboardClient::Operation request;
  if (method) {
    request = _client->retrieveFeedWithMethod(method.asString(), _parameters[ZBTarrowSearchAuthenticatedKey].boolValue(),
                                              ZBPinboardClientFeedDefaultResultsCount);
  } else if (username || tags) {
    request = _client->retrieveFeedWithUsername(username.asString(), tags ? Value(tagSet(tags.asString())) : Value(),
                                                ZBPinboardClientFeedDefaultResultsCount);
  }
  if (!request) {
    complete(Value(), searchTooBroadError());
    return;
  }
  addWorkOperation(request);
  auto finishing = NSBlockOperation::blockOperationWithBlock([this, request] {
    NSErrorPtr error;
    Value result = request->completionProvider()(&error);
    complete(std::move(result), error);
  });
  finishing->addDependency(request);
  addWorkOperation(finishing);
}
