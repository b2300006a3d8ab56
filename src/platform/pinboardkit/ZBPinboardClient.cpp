#include "platform/pinboardkit/ZBPinboardClient.h"

#include <algorithm>
#include <cmath>
#include <system_error>
#include <thread>

#include "platform/foundation/NSURLError.h"
#include "platform/foundation/ZBLocalizedString.h"
#include "platform/foundation/ZBMD5.h"
#include "platform/pinboardkit/ZBPinboardPostListReader.h"
#include "platform/pinboardkit/ZBPinboardResponseParser.h"
#include "platform/pinboardkit/impl/ZBPinboardErrors.h"

namespace fs = std::filesystem;

struct ZBPinboardClient::Settings {
  std::string apiBase = "https://api.pinboard.in/v1/";
  std::string feedsBase = "https://feeds.pinboard.in/json/";
  double timeout = 60;
  double allPostsTimeout = 600;  // the whole account, possibly tens of megabytes
  double connectTimeout = 15;
  double interval = 3;
  double recentInterval = 60;
  double allPostsInterval = 300;
  double feedInterval = 1;
  double backoffInitial = 3;
  double backoffMaximum = 300;
  int backoffRetries = 6;
};

// One HTTP exchange as the client sees it.
struct ZBPinboardClient::Call {
  std::string method;  // for errors: "posts/all", "feed u:alice/"
  std::string url;
  std::string requestClass;  // "feeds" or the API method
  double classInterval = 0;
  double timeout = 0;
  std::string basicUser, basicPassword;
  std::function<void(std::string_view)> bodyConsumer;  // takes the body of the HTTP 200 answer as it arrives
};

namespace {

using Params = std::vector<std::pair<std::string, std::string>>;

bool unreserved(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

// Percent-encoding; keep lists characters that may stay as they are.
std::string escape(std::string_view text, std::string_view keep = {}) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size() + 8);
  for (unsigned char c : text) {
    if (unreserved(c) || keep.find(static_cast<char>(c)) != std::string_view::npos) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(hex[c >> 4]);
      out.push_back(hex[c & 15]);
    }
  }
  return out;
}

std::string query(const Params& params) {
  std::string q;
  for (const auto& [k, v] : params) {
    q += q.empty() ? '?' : '&';
    q += escape(k);
    q += '=';
    q += escape(v);
  }
  return q;
}

std::string withSlash(std::string base) {
  if (base.empty() || base.back() != '/') base.push_back('/');
  return base;
}

// The service's datetime: whole seconds, UTC, "Z".
std::string serviceDate(NSDate date) {
  return NSDate(std::floor(date.timeIntervalSinceReferenceDate())).ISO8601String();
}

// Tags of a request: an array or set of strings. False for anything else.
bool tagList(const Value& tags, std::vector<std::string>& out) {
  out.clear();
  if (!tags) return true;
  if (tags.isString()) {
    for (std::size_t i = 0, j; i <= tags.asString().size(); i = j + 1) {
      j = std::min(tags.asString().find(' ', i), tags.asString().size());
      if (j > i) out.push_back(tags.asString().substr(i, j - i));
    }
    return true;
  }
  if (!tags.isCollection()) return false;
  for (const Value& t : tags.collectionElements()) {
    if (!t.isString()) return false;
    if (!t.asString().empty()) out.push_back(t.asString());
  }
  // A set has no order of its own; sorting keeps requests reproducible.
  if (tags.isSet()) std::sort(out.begin(), out.end());
  return true;
}

std::string joined(const std::vector<std::string>& tags) {
  std::string s;
  for (const auto& t : tags) {
    if (!s.empty()) s += ' ';
    s += t;
  }
  return s;
}

NSErrorPtr cancelledError() { return ZBUserCancelledError(); }

Value fail(NSErrorPtr* error, NSErrorPtr e) {
  ZBSetError(error, std::move(e));
  return Value();
}

NSErrorPtr serviceError(const std::string& method, const std::string& resultCode) {
  return ZBPinboardMakeError(
      ZBPinboardKitServiceError, method,
      Dictionary{{ZBPinboardResultCodeErrorKey, resultCode},
                 {NSLocalizedRecoverySuggestionErrorKey, ZBLocalizedString("Pinboard answered:") + " “" + resultCode + "”"}});
}

// What sending or deleting a post answers: {identifier, url}, the identifier
// being the caller's, or the MD5 of the URL when it had none.
Value postEcho(const Dictionary& properties, const Value& url) {
  Value identifier = properties[ZBPinboardPostIdentifierKey];
  if (!identifier.isString()) identifier = Value(ZBMD5HexString(url.asString()));
  return Value(Dictionary{{ZBPinboardPostIdentifierKey, identifier}, {ZBPinboardPostURLKey, url}});
}

}  // namespace

ZBPinboardClient::ZBPinboardClient(Passkey, std::shared_ptr<NSUserDefaults> userDefaults,
                                   std::shared_ptr<ZBHTTPTransport> transport, std::shared_ptr<ZBClock> clock)
    : _defaults(std::move(userDefaults)),
      _transport(transport ? std::move(transport) : ZBCurlTransport::create()),
      _limiter(std::move(clock)) {}

std::shared_ptr<ZBPinboardClient> ZBPinboardClient::create(std::shared_ptr<NSUserDefaults> userDefaults,
                                                           std::shared_ptr<ZBHTTPTransport> transport,
                                                           std::shared_ptr<ZBClock> clock) {
  auto client =
      std::make_shared<ZBPinboardClient>(Passkey(), std::move(userDefaults), std::move(transport), std::move(clock));
  // A damaged file counts as signed out; it is left for the user to inspect
  // until the next sign-in replaces it.
  auto credentials = ZBPinboardCredentials::readFromFile(client->_credentialsPath());
  ZBMutexLock hold(client->_mutex);
  client->_credentials = std::move(credentials);
  return client;
}

ZBPinboardClient::Settings ZBPinboardClient::_settings() const {
  Settings s;
  if (!_defaults) return s;
  auto number = [&](const std::string& key, double& out, double minimum) {
    Value v = _defaults->objectForKey(key);
    if (v.isNumber() || v.isString()) {
      double d = v.doubleValue();
      if (std::isfinite(d) && d >= minimum) out = d;
    }
  };
  auto text = [&](const std::string& key, std::string& out) {
    std::string v = _defaults->stringForKey(key);
    if (!v.empty()) out = withSlash(v);
  };
  text(ZBPinboardAPIBaseURLDefaultKey, s.apiBase);
  text(ZBPinboardFeedsBaseURLDefaultKey, s.feedsBase);
  number(ZBPinboardRequestTimeoutDefaultKey, s.timeout, 0.001);
  number(ZBPinboardAllPostsTimeoutDefaultKey, s.allPostsTimeout, 0.001);
  number(ZBPinboardConnectTimeoutDefaultKey, s.connectTimeout, 0.001);
  number(ZBPinboardRequestIntervalDefaultKey, s.interval, 0);
  number(ZBPinboardRecentIntervalDefaultKey, s.recentInterval, 0);
  number(ZBPinboardAllPostsIntervalDefaultKey, s.allPostsInterval, 0);
  number(ZBPinboardFeedIntervalDefaultKey, s.feedInterval, 0);
  number(ZBPinboardBackoffInitialDefaultKey, s.backoffInitial, 0);
  number(ZBPinboardBackoffMaximumDefaultKey, s.backoffMaximum, 0);
  double retries = s.backoffRetries;
  number(ZBPinboardBackoffRetriesDefaultKey, retries, 0);
  s.backoffRetries = static_cast<int>(std::min(retries, 100.0));
  return s;
}

fs::path ZBPinboardClient::_credentialsPath() const {
  if (_defaults) {
    std::string configured = _defaults->stringForKey(ZBPinboardCredentialsPathDefaultKey);
    if (!configured.empty()) return configured;
    return _defaults->path().parent_path() / "pinboard-credentials.plist";
  }
  return NSUserDefaults::standardUserDefaultsPath().parent_path() / "pinboard-credentials.plist";
}

// ---- Credentials ----

std::shared_ptr<ZBPinboardCredentials> ZBPinboardClient::credentials() const {
  ZBMutexLock hold(_mutex);
  return _credentials;
}

void ZBPinboardClient::setCredentials(std::shared_ptr<ZBPinboardCredentials> credentials) {
  willChangeValueForKey(ZBPinboardClientCredentialsKey);
  {
    ZBMutexLock hold(_mutex);
    _credentials = credentials;
  }
  // A setter has no one to tell of a file that stays; logout() reports it.
  if (!credentials) (void)ZBPinboardCredentials::removeFile(_credentialsPath());
  didChangeValueForKey(ZBPinboardClientCredentialsKey);
}

Value ZBPinboardClient::valueForKey(const std::string& key) const {
  if (key == ZBPinboardClientCredentialsKey) return Value(credentials());
  return NSObject::valueForKey(key);
}

void ZBPinboardClient::setValueForKey(const Value& value, const std::string& key) {
  if (key == ZBPinboardClientCredentialsKey) return setCredentials(value.as<ZBPinboardCredentials>());
  NSObject::setValueForKey(value, key);
}

bool ZBPinboardClient::logout(NSErrorPtr* error) {
  {
    ZBMutexLock hold(_mutex);
    _rssKeyValue.clear();
    _rssKeyOwner.clear();
  }
  return ZBPinboardCredentials::removeFile(_credentialsPath(), error);
}

// ---- The exchange ----

bool ZBPinboardClient::_perform(const Call& call, const ZBPinboardRequestOperation& operation, std::string& body,
                                NSErrorPtr* error) {
  const Settings s = _settings();
  std::function<bool()> cancelled = [&operation] { return operation.isCancelled(); };
  double backoff = s.backoffInitial;
  for (int attempt = 0;; ++attempt) {
    bool turn = call.requestClass == "feeds"
                    ? _limiter.waitForTurn("feeds", 0, s.feedInterval, cancelled)
                    : _limiter.waitForTurn(call.requestClass, s.interval, call.classInterval, cancelled);
    if (!turn) return ZBSetError(error, cancelledError());
    ZBHTTPRequest request;
    request.url = call.url;
    request.username = call.basicUser;
    request.password = call.basicPassword;
    request.timeout = call.timeout > 0 ? call.timeout : s.timeout;
    request.connectTimeout = s.connectTimeout;
    request.bodyConsumer = call.bodyConsumer;
    ZBHTTPResponse response;
    NSErrorPtr transportError;
    if (!_transport->send(request, response, cancelled, &transportError)) {
      if (operation.isCancelled()) return ZBSetError(error, cancelledError());
      std::int64_t code = transportError && transportError->code() == NSURLErrorTimedOut ? ZBPinboardKitTimedOutError
                                                                                           : ZBPinboardKitNetworkError;
      Dictionary extra;
      if (transportError) extra.set(NSUnderlyingErrorKey, Value(transportError));
      return ZBSetError(error, ZBPinboardMakeError(code, call.method, std::move(extra)));
    }
    const Dictionary status{{ZBPinboardHTTPStatusErrorKey, Value(static_cast<std::int64_t>(response.status))}};
    if (response.status == 429) {
      if (attempt >= s.backoffRetries)
        return ZBSetError(error, ZBPinboardMakeError(ZBPinboardKitRateLimitedError, call.method, status));
      // Wait as long as the server asks, at least our own doubling back-off.
      double wait = std::min(std::max(backoff, response.retryAfter), s.backoffMaximum);
      if (!_limiter.sleep(wait, cancelled)) return ZBSetError(error, cancelledError());
      backoff = std::min(backoff * 2, s.backoffMaximum);
      continue;
    }
    if (response.status == 401 || response.status == 403)
      return ZBSetError(error, ZBPinboardMakeError(ZBPinboardKitUnauthorizedError, call.method, status));
    if (response.status != 200)
      return ZBSetError(error, ZBPinboardMakeError(ZBPinboardKitServerError, call.method, status));
    // A transport that does not stream collects the body instead.
    if (call.bodyConsumer && !response.body.empty()) call.bodyConsumer(response.body);
    else body = std::move(response.body);
    return true;
  }
}

bool ZBPinboardClient::_api(const std::string& method, Params params, const ZBPinboardRequestOperation& operation,
                            std::string& body, NSErrorPtr* error, std::function<void(std::string_view)> bodyConsumer) {
  auto credentials = this->credentials();
  if (!credentials) return ZBSetError(error, ZBPinboardMakeError(ZBPinboardKitNotAuthenticatedError, method));
  const Settings s = _settings();
  params.emplace_back("format", "json");
  params.emplace_back("auth_token", credentials->apiToken());
  Call call;
  call.method = method;
  call.url = s.apiBase + method + query(params);
  call.requestClass = method;
  call.bodyConsumer = std::move(bodyConsumer);
  if (method == "posts/all") {
    call.classInterval = s.allPostsInterval;
    call.timeout = s.allPostsTimeout;
  } else if (method == "posts/recent") {
    call.classInterval = s.recentInterval;
  }
  return _perform(call, operation, body, error);
}

bool ZBPinboardClient::_apiDone(const std::string& method, Params params, const ZBPinboardRequestOperation& operation,
                                NSErrorPtr* error, std::string_view alsoDone) {
  std::string body;
  if (!_api(method, std::move(params), operation, body, error)) return false;
  Value result = ZBPinboardResponseParser::resultText(body, method, error);
  if (!result) return false;
  const std::string& text = result.asString();
  if (text != "done" && (alsoDone.empty() || text != alsoDone)) return ZBSetError(error, serviceError(method, text));
  return true;
}

// ---- Authentication ----

ZBPinboardClient::Operation ZBPinboardClient::authenticateWithUsernameToken(const std::string& username,
                                                                           const std::string& token) {
  // The settings page shows the whole token ("name:SECRET"); take either form.
  std::string secret = token;
  if (secret.size() > username.size() && secret.compare(0, username.size() + 1, username + ":") == 0)
    secret = secret.substr(username.size() + 1);
  return _authenticate(username, secret, false);
}

ZBPinboardClient::Operation ZBPinboardClient::authenticateWithUsernamePassword(const std::string& username,
                                                                              const std::string& password) {
  return _authenticate(username, password, true);
}

ZBPinboardClient::Operation ZBPinboardClient::_authenticate(const std::string& username, const std::string& secret,
                                                           bool password) {
  const std::string method = "user/api_token";
  return ZBPinboardRequestOperation::create(
      method, [self = _self(), username, secret, password, method](const ZBPinboardRequestOperation& op,
                                                                   NSErrorPtr* error) -> Value {
        if (username.empty() || secret.empty() || username.find(':') != std::string::npos)
          return fail(error, ZBPinboardMakeError(ZBPinboardKitUnauthorizedError, method));
        const Settings s = self->_settings();
        Call call;
        call.method = method;
        call.requestClass = method;
        Params params{{"format", "json"}};
        if (password) {
          call.basicUser = username;
          call.basicPassword = secret;
        } else {
          params.emplace_back("auth_token", username + ":" + secret);
        }
        call.url = s.apiBase + method + query(params);
        std::string body;
        if (!self->_perform(call, op, body, error)) return Value();
        Value token = ZBPinboardResponseParser::resultText(body, method, error);
        if (!token) return Value();
        if (token.asString().empty())
          return fail(error, ZBPinboardMakeError(ZBPinboardKitMalformedResponseError, method));
        auto credentials = ZBPinboardCredentials::create(username, password ? token.asString() : secret);
        NSErrorPtr storeError;
        if (!credentials->writeToFile(self->_credentialsPath(), &storeError)) {
          return fail(error, ZBPinboardMakeError(ZBPinboardKitCredentialsNotStoredError, method,
                                                 Dictionary{{ZBPinboardCredentialsErrorKey, Value(credentials)},
                                                            {NSUnderlyingErrorKey, Value(storeError)}}));
        }
        return Value(credentials);
      });
}

// ---- Posts ----

ZBPinboardClient::Operation ZBPinboardClient::retrieveLastPostUpdateDate() {
  return ZBPinboardRequestOperation::create("posts/update", [self = _self()](const ZBPinboardRequestOperation& op,
                                                                              NSErrorPtr* error) -> Value {
    std::string body;
    if (!self->_api("posts/update", {}, op, body, error)) return Value();
    return ZBPinboardResponseParser::updateTime(body, "posts/update", error);
  });
}

ZBPinboardClient::Operation ZBPinboardClient::retrieveAllPostsWithTagsStartDate(const Value& tags,
                                                                               const Value& startDate,
                                                                               const Value& endDate) {
  return ZBPinboardRequestOperation::create(
      "posts/all", [self = _self(), tags, startDate, endDate](const ZBPinboardRequestOperation& op,
                                                              NSErrorPtr* error) -> Value {
        const std::string method = "posts/all";
        std::vector<std::string> list;
        if (!tagList(tags, list) || list.size() > 3 || (startDate && !startDate.isDate()) ||
            (endDate && !endDate.isDate()))
          return fail(error, ZBPinboardMakeError(ZBPinboardKitInvalidArgumentError, method));
        Params params;
        if (!list.empty()) params.emplace_back("tag", joined(list));
        if (startDate) params.emplace_back("fromdt", serviceDate(startDate.asDate()));
        if (endDate) params.emplace_back("todt", serviceDate(endDate.asDate()));
        // Tens of megabytes for a large account: the transfer runs on a
        // thread of its own and hands the answer over as it arrives, while
        // this one turns it into posts.
        auto credentials = self->credentials();
        ZBPinboardPostListReader reader(credentials ? credentials->username() : std::string(), method);
        bool transferred = false;
        NSErrorPtr transferError;
        auto transfer = [&] {
          std::string body;
          transferred = self->_api(method, std::move(params), op, body, &transferError,
                                   [&reader](std::string_view piece) { reader.append(piece); });
          reader.close();
        };
        std::thread thread;
        try {
          thread = std::thread(transfer);
        } catch (const std::system_error&) {
          transfer();  // no thread to be had: one after the other
        }
        NSErrorPtr readError;
        Value posts = reader.finish(&readError);
        if (thread.joinable()) thread.join();
        if (!transferred) return fail(error, transferError);
        if (!posts) ZBSetError(error, readError);
        return posts;
      });
}

ZBPinboardClient::Operation ZBPinboardClient::retrieveAllPostsWithTags(const Value& tags) {
  return retrieveAllPostsWithTagsStartDate(tags, Value(), Value());
}

ZBPinboardClient::Operation ZBPinboardClient::retrievePostSuggestedTagsForURL(const std::string& url) {
  return ZBPinboardRequestOperation::create(
      "posts/suggest", [self = _self(), url](const ZBPinboardRequestOperation& op, NSErrorPtr* error) -> Value {
        if (url.empty()) return fail(error, ZBPinboardMakeError(ZBPinboardKitInvalidArgumentError, "posts/suggest"));
        std::string body;
        if (!self->_api("posts/suggest", {{"url", url}}, op, body, error)) return Value();
        return ZBPinboardResponseParser::suggestedTags(body, "posts/suggest", error);
      });
}

ZBPinboardClient::Operation ZBPinboardClient::createPostWithProperties(const Dictionary& properties) {
  return _sendPost(properties, "posts/add");
}

ZBPinboardClient::Operation ZBPinboardClient::updatePostWithProperties(const Dictionary& properties) {
  return _sendPost(properties, "posts/add");
}

ZBPinboardClient::Operation ZBPinboardClient::_sendPost(const Dictionary& properties, const char* name) {
  return ZBPinboardRequestOperation::create(
      name, [self = _self(), properties](const ZBPinboardRequestOperation& op, NSErrorPtr* error) -> Value {
        const std::string method = "posts/add";
        const Value& url = properties[ZBPinboardPostURLKey];
        std::vector<std::string> tags;
        const Value& date = properties[ZBPinboardPostDateKey];
        if (!url.isString() || url.asString().empty() || !tagList(properties[ZBPinboardPostTagsKey], tags) ||
            (date && !date.isDate()))
          return fail(error, ZBPinboardMakeError(ZBPinboardKitInvalidArgumentError, method));
        // The service replaces the whole bookmark, so every field goes out,
        // empty ones included: leaving one out would erase it.
        const Value& shared = properties[ZBPinboardPostSharedKey];
        const Value& unread = properties[ZBPinboardPostUnreadKey];
        Params params{{"url", url.asString()},
                      {"description", properties[ZBPinboardPostTitleKey].asString()},
                      {"extended", properties[ZBPinboardPostDescKey].asString()},
                      {"tags", joined(tags)},
                      {"shared", (!shared || shared.boolValue()) ? "yes" : "no"},
                      {"toread", unread.boolValue() ? "yes" : "no"},
                      {"replace", "yes"}};
        if (date) params.emplace_back("dt", serviceDate(date.asDate()));
        if (!self->_apiDone(method, std::move(params), op, error)) return Value();
        return postEcho(properties, url);
      });
}

ZBPinboardClient::Operation ZBPinboardClient::deletePostWithProperties(const Dictionary& properties) {
  return ZBPinboardRequestOperation::create(
      "posts/delete", [self = _self(), properties](const ZBPinboardRequestOperation& op, NSErrorPtr* error) -> Value {
        const std::string method = "posts/delete";
        const Value& url = properties[ZBPinboardPostURLKey];
        if (!url.isString() || url.asString().empty())
          return fail(error, ZBPinboardMakeError(ZBPinboardKitInvalidArgumentError, method));
        // Already gone on the service is what deleting wanted: report success
        // so the local deletion can complete instead of failing forever.
        if (!self->_apiDone(method, {{"url", url.asString()}}, op, error, "item not found")) return Value();
        return postEcho(properties, url);
      });
}

// ---- Tags ----

ZBPinboardClient::Operation ZBPinboardClient::renameTag(const std::string& oldTitle, const std::string& newTitle) {
  return ZBPinboardRequestOperation::create(
      "tags/rename", [self = _self(), oldTitle, newTitle](const ZBPinboardRequestOperation& op,
                                                          NSErrorPtr* error) -> Value {
        if (!self->_apiDone("tags/rename", {{"old", oldTitle}, {"new", newTitle}}, op, error)) return Value();
        return Value(newTitle);
      });
}

ZBPinboardClient::Operation ZBPinboardClient::deleteTag(const std::string& title) {
  return ZBPinboardRequestOperation::create(
      "tags/delete", [self = _self(), title](const ZBPinboardRequestOperation& op, NSErrorPtr* error) -> Value {
        if (!self->_apiDone("tags/delete", {{"tag", title}}, op, error)) return Value();
        return Value(title);
      });
}

ZBPinboardClient::Operation ZBPinboardClient::retrieveTags() {
  return ZBPinboardRequestOperation::create("tags/get", [self = _self()](const ZBPinboardRequestOperation& op,
                                                                          NSErrorPtr* error) -> Value {
    std::string body;
    if (!self->_api("tags/get", {}, op, body, error)) return Value();
    return ZBPinboardResponseParser::tagCounts(body, "tags/get", error);
  });
}

// ---- Feeds ----

namespace {

// ---- Feed paths ----
// Every feed address is made here. The secret (private) prefix, user, tag and
// source pieces are documented by the service; the starred and network feeds
// (methods under the secret prefix) and the popular sub-feeds
// ("popular/wikipedia") are not confirmed by its documentation, so if the
// service turns out to name them differently, this block is what changes.

// A feed path piece: ':' stays readable ("u:alice", "t:c++" → "t:c%2B%2B").
std::string segment(std::string_view text) { return escape(text, ":@") + "/"; }

std::string secretFeedPrefix(const std::string& key, const std::string& username) {
  return segment("secret:" + key) + segment("u:" + username);
}

// "popular", "popular/wikipedia", "starred", "network", "recent"…
std::string methodFeedPath(const std::string& method) {
  std::string path;
  for (std::size_t i = 0, j; i <= method.size(); i = j + 1) {
    j = std::min(method.find('/', i), method.size());
    if (j > i) path += segment(std::string_view(method).substr(i, j - i));
  }
  return path;
}

std::string sourceFeedPath(const std::string& source) { return segment("from:" + source); }

std::string userTagsFeedPath(const std::string& username, const std::vector<std::string>& tags) {
  std::string path;
  if (!username.empty()) path += segment("u:" + username);
  for (const auto& t : tags) path += segment("t:" + t);
  return path;
}

}  // namespace

bool ZBPinboardClient::_rssKey(const ZBPinboardCredentials& credentials, const ZBPinboardRequestOperation& op,
                               std::string& key, NSErrorPtr* error) {
  {
    ZBMutexLock hold(_mutex);
    if (!_rssKeyValue.empty() && _rssKeyOwner == credentials.apiToken()) {
      key = _rssKeyValue;
      return true;
    }
  }
  std::string body;
  if (!_api("user/secret", {}, op, body, error)) return false;
  Value secret = ZBPinboardResponseParser::resultText(body, "user/secret", error);
  if (!secret) return false;
  if (secret.asString().empty())
    return ZBSetError(error, ZBPinboardMakeError(ZBPinboardKitMalformedResponseError, "user/secret"));
  key = secret.asString();
  ZBMutexLock hold(_mutex);
  _rssKeyValue = key;
  _rssKeyOwner = credentials.apiToken();
  return true;
}

ZBPinboardClient::Operation ZBPinboardClient::_feed(std::string name, std::string path, bool secret,
                                                    std::uint64_t count) {
  return ZBPinboardRequestOperation::create(
      "feed " + name, [self = _self(), name, path, secret, count](const ZBPinboardRequestOperation& op,
                                                                   NSErrorPtr* error) -> Value {
        const std::string method = "feed " + name;
        std::string prefix;
        if (secret) {
          auto credentials = self->credentials();
          if (!credentials) return fail(error, ZBPinboardMakeError(ZBPinboardKitNotAuthenticatedError, method));
          std::string key;
          if (!self->_rssKey(*credentials, op, key, error)) return Value();
          prefix = secretFeedPrefix(key, credentials->username());
        }
        Call call;
        call.method = method;
        call.requestClass = "feeds";
        call.url = self->_settings().feedsBase + prefix + path + query({{"count", std::to_string(count)}});
        std::string body;
        if (!self->_perform(call, op, body, error)) return Value();
        return ZBPinboardResponseParser::feed(body, method, error);
      });
}

ZBPinboardClient::Operation ZBPinboardClient::retrieveFeedWithMethod(const std::string& method, bool authenticated,
                                                                     std::uint64_t resultsCount) {
  return _feed(method, methodFeedPath(method), authenticated, resultsCount);
}

ZBPinboardClient::Operation ZBPinboardClient::retrieveFeedWithSource(const std::string& source,
                                                                     std::uint64_t resultsCount) {
  return _feed("from:" + source, sourceFeedPath(source), true, resultsCount);
}

ZBPinboardClient::Operation ZBPinboardClient::retrieveFeedWithUsername(const std::string& username, const Value& tags,
                                                                       std::uint64_t resultsCount) {
  std::vector<std::string> list;
  if (!tagList(tags, list)) list.clear();
  if (username.empty() && list.empty()) return nullptr;  // the whole site: too broad to ask
  std::string path = userTagsFeedPath(username, list);
  return _feed(path, path, false, resultsCount);
}
