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
#include "platform/pinboardkit/impl/ZBPinboardRateMemory.h"

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
  std::string url;     // with its query, but without the API token: that is added when it leaves
  std::string requestClass;  // "feeds" or the API method
  double classInterval = 0;
  double timeout = 0;
  std::string basicUser, basicPassword;
  // The credentials the request was started under (their apiToken()), empty
  // for none; it leaves only while they are still the client's.
  std::string signedInAs;
  std::uint64_t session = 0;  // the client's logout count when it started
  bool addsToken = false;     // an API call: the token goes in the query
  bool streamsPosts = false;  // posts/all: read while it arrives
  std::string username;       // the owner of the posts read
  // Set to the timers' time when the request leaves, if given.
  std::shared_ptr<std::atomic<double>> departure;
};

struct ZBPinboardClient::Reply {
  std::string body;  // the HTTP 200 answer
  Value posts;       // streamsPosts: what was read from it
  NSErrorPtr error;  // set: the exchange failed
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

// The service's datetime: whole seconds (moved by seconds), UTC, "Z".
std::string serviceDate(NSDate date, double seconds = 0) {
  return NSDate(std::floor(date.timeIntervalSinceReferenceDate()) + seconds).ISO8601String();
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

// A tag as the service reads it: a comma or whitespace inside would make it
// two (the service splits at both), so such a tag is refused, never sent.
bool serviceTag(const std::string& tag) {
  return tag.find_first_of(", \t\n\r\v\f") == std::string::npos;
}

// The tags of a request, each one the service can hold. False, with the
// error naming the first tag that is not, otherwise.
bool serviceTags(const Value& tags, std::vector<std::string>& out, const std::string& method, NSErrorPtr* error) {
  if (!tagList(tags, out)) return ZBSetError(error, ZBPinboardMakeError(ZBPinboardKitInvalidArgumentError, method));
  for (const auto& t : out) {
    if (serviceTag(t)) continue;
    return ZBSetError(
        error, ZBPinboardMakeError(ZBPinboardKitInvalidArgumentError, method,
                                   Dictionary{{NSLocalizedFailureReasonErrorKey,
                                               "“" + t + "” " + ZBLocalizedString("contains a space or a comma, which Pinboard reads as the end of a tag.")}}));
  }
  return true;
}

// The title sent for a bookmark that has none. posts/add refuses an empty
// one, so an edit of an untitled bookmark (its tags, say) would otherwise fail
// for ever. "[no title]" is what the service itself shows for untitled
// bookmarks, so the user sees no change there, and the next refresh brings
// it back as the title the service holds. The URL would be a made-up title
// that reads as a real one, and it can run past the service's 255
// characters, which fails again.
const std::string kUntitledTitle = "[no title]";

NSErrorPtr cancelledError() { return ZBUserCancelledError(); }

Value fail(NSErrorPtr* error, NSErrorPtr e) {
  ZBSetError(error, std::move(e));
  return Value();
}

NSErrorPtr serviceError(const std::string& method, const std::string& resultCode, std::string suggestion = {}) {
  if (suggestion.empty()) suggestion = ZBLocalizedString("Pinboard answered:") + " “" + resultCode + "”";
  return ZBPinboardMakeError(ZBPinboardKitServiceError, method,
                             Dictionary{{ZBPinboardResultCodeErrorKey, resultCode},
                                        {NSLocalizedRecoverySuggestionErrorKey, std::move(suggestion)}});
}

// text with its "%@" replaced by number.
std::string withNumber(std::string text, std::int64_t number) {
  const auto at = text.find("%@");
  if (at != std::string::npos) text.replace(at, 2, std::to_string(number));
  return text;
}

// A failure of the client's own threads, for the request that needed them.
NSErrorPtr threadError(const std::string& method, NSErrorPtr underlying) {
  return ZBPinboardMakeError(ZBPinboardKitNetworkError, method, Dictionary{{NSUnderlyingErrorKey, Value(underlying)}});
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
    : _spacingMargin(clock ? 0 : 0.1),
      _defaults(std::move(userDefaults)),
      _transport(transport ? std::move(transport) : ZBCurlTransport::create()),
      _timers(std::make_shared<ZBPinboardTimerQueue>(clock)),
      _limiter(std::make_shared<ZBPinboardRateLimiter>(
          _timers, std::make_shared<ZBPinboardRateMemory>(_defaultsDirectory() / ZBPinboardRateLimitsFileName),
          [clock] { return (clock ? clock->now() : NSDate::date()).timeIntervalSinceReferenceDate(); })) {}

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

fs::path ZBPinboardClient::_defaultsDirectory() const {
  return (_defaults ? _defaults->path() : NSUserDefaults::standardUserDefaultsPath()).parent_path();
}

fs::path ZBPinboardClient::_credentialsPath() const {
  if (_defaults) {
    std::string configured = _defaults->stringForKey(ZBPinboardCredentialsPathDefaultKey);
    if (!configured.empty()) return configured;
  }
  return _defaultsDirectory() / "pinboard-credentials.plist";
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
  _logouts.fetch_add(1);
  {
    ZBMutexLock hold(_mutex);
    _rssKeyValue.clear();
    _rssKeyOwner.clear();
    _heldList.reset();
    _lastUpdateRead.reset();
  }
  return ZBPinboardCredentials::removeFile(_credentialsPath(), error);
}

// ---- The exchange ----

ZBPinboardClient::Operation ZBPinboardClient::_request(std::string method,
                                                       std::function<void(const OperationPointer&)> body) {
  auto operation = ZBPinboardRequestOperation::create(std::move(method), std::move(body));
  // A request made before a sign-out or a change of account but started after
  // it must not go out under the new one.
  auto credentials = this->credentials();
  if (credentials) operation->_madeFor = credentials->apiToken();
  operation->_session = _logouts.load();
  return operation;
}

ZBPinboardClient::Then ZBPinboardClient::_completing(const OperationPointer& operation, Read read) {
  return [operation, read = std::move(read)](Reply& reply) {
    if (reply.error) return operation->_complete(Value(), reply.error);
    NSErrorPtr error;
    Value result = read(reply, &error);
    operation->_complete(std::move(result), std::move(error));
  };
}

template <class Step>
void ZBPinboardClient::_guarded(const Then& then, Step&& step) {
  try {
    step();
  } catch (...) {
    Reply reply;
    reply.error = ZBErrorFromCurrentException();
    then(reply);
  }
}

void ZBPinboardClient::_perform(std::shared_ptr<const Call> call, const OperationPointer& operation, Then then,
                                int attempt, double backoff) {
  const Settings s = _settings();
  const bool feeds = call->requestClass == "feeds";
  const std::shared_ptr<ZBPinboardRateLimiter> limiter = _limiter;
  const std::uint64_t ticket = limiter->newTicket();
  auto abandon = [limiter, ticket, then] {
    if (!limiter->withdraw(ticket)) return;  // its turn came already
    Reply reply;
    reply.error = cancelledError();
    then(reply);
  };
  if (!operation->_setCanceller(abandon)) {
    Reply reply;
    reply.error = cancelledError();
    return then(reply);
  }
  std::weak_ptr<ZBPinboardClient> weakSelf = _self();
  std::weak_ptr<ZBPinboardRequestOperation> weakOperation = operation;
  auto waiting = [weakSelf, weakOperation](double turnAt) {
    auto self = weakSelf.lock();
    auto op = weakOperation.lock();
    if (self && op) self->_showWait(op, turnAt);
  };
  // On the real clock a request reaches the service a little after it left,
  // by an amount that varies: a margin keeps arrivals as far apart as the
  // service counts. (An injected clock has no such jitter.)
  const double margin = _spacingMargin;
  auto spaced = [margin](double interval) { return interval > 0 ? interval + margin : 0.0; };
  limiter->ask(ticket, call->requestClass, feeds ? 0 : spaced(s.interval),
               spaced(feeds ? s.feedInterval : call->classInterval),
               [self = _self(), call, operation, then, attempt, backoff](const ZBPinboardRateLimiter::Turn* turn,
                                                                        const NSErrorPtr& error) {
                 self->_showWait(operation, 0);
                 Reply reply;
                 if (!turn) {
                   reply.error = threadError(call->method, error);
                   return then(reply);
                 }
                 // The exchange blocks: it runs on a transfer thread, and
                 // this one (the timers') goes on at once.
                 auto job = [self, call, operation, then, attempt, backoff, taken = *turn] {
                   _guarded(then, [&] { self->_transfer(call, operation, then, attempt, backoff, taken); });
                 };
                 NSErrorPtr threadFailure;
                 if (ZBPinboardTransferThreads::shared().submit(std::move(job), &threadFailure)) return;
                 self->_limiter->giveBack(*turn);
                 reply.error = threadError(call->method, threadFailure);
                 then(reply);
               },
               call->username, std::move(waiting));
  // A cancel() between the canceller and the line found nothing to withdraw.
  if (operation->isCancelled()) abandon();
}

void ZBPinboardClient::_transfer(const std::shared_ptr<const Call>& call, const OperationPointer& operation,
                                 const Then& then, int attempt, double backoff,
                                 const ZBPinboardRateLimiter::Turn& turn) {
  // The turn ends here, one way or the other, even if a step below throws:
  // a turn left open would hold back every later request of its line.
  struct Settle {
    ZBPinboardRateLimiter& limiter;
    const ZBPinboardRateLimiter::Turn& turn;
    std::atomic<bool> settled{false};  // the transport may report the departure from its own thread
    void departed() {
      if (!settled.exchange(true)) limiter.departed(turn);
    }
    void giveBack() {
      if (!settled.exchange(true)) limiter.giveBack(turn);
    }
    ~Settle() { giveBack(); }
  } settle{*_limiter, turn};
  Reply reply;
  if (operation->isCancelled()) {
    settle.giveBack();
    reply.error = cancelledError();
    return then(reply);
  }
  ZBHTTPRequest request;
  request.url = call->url;
  if (!call->signedInAs.empty()) {
    // Credentials are read as the request leaves: one that waited through a
    // sign-out or a change of account never goes out with the old token.
    auto credentials = this->credentials();
    if (!credentials || credentials->apiToken() != call->signedInAs || _logouts.load() != call->session) {
      settle.giveBack();
      reply.error = ZBPinboardMakeError(
          ZBPinboardKitUnauthorizedError, call->method,
          Dictionary{{NSLocalizedFailureReasonErrorKey,
                      ZBLocalizedString("The account was signed out or changed while the request waited.")}});
      return then(reply);
    }
    if (call->addsToken) request.url += "&auth_token=" + escape(credentials->apiToken());
  }
  const Settings s = _settings();
  request.username = call->basicUser;
  request.password = call->basicPassword;
  request.timeout = call->timeout > 0 ? call->timeout : s.timeout;
  request.connectTimeout = s.connectTimeout;
  ZBHTTPResponse response;
  NSErrorPtr transportError;
  const std::function<bool()> cancelled = [&operation] { return operation->isCancelled(); };
  // The spacing counts from the moment the request goes out on its
  // connection, as near as can be told to when the service sees it: a
  // connection slow to open must not bring two arrivals closer together.
  auto departing = [this, &settle, &call] {
    if (settle.settled.load()) return;
    if (call->departure) call->departure->store(_timers->now());
    settle.departed();
  };
  request.leaving = departing;
  const bool sent = call->streamsPosts
                        ? _sendReadingPosts(*call, request, response, cancelled, reply, &transportError)
                        : _transport->send(request, response, cancelled, &transportError);
  departing();  // a transport that could not tell, or a connection never made
  if (!sent) {
    if (operation->isCancelled()) {
      reply.error = cancelledError();
    } else {
      std::int64_t code = transportError && transportError->code() == NSURLErrorTimedOut ? ZBPinboardKitTimedOutError
                                                                                          : ZBPinboardKitNetworkError;
      Dictionary extra;
      if (transportError) extra.set(NSUnderlyingErrorKey, Value(transportError));
      reply.error = ZBPinboardMakeError(code, call->method, std::move(extra));
    }
    reply.posts = Value();
    return then(reply);
  }
  const Dictionary status{{ZBPinboardHTTPStatusErrorKey, Value(static_cast<std::int64_t>(response.status))}};
  if (response.status == 429) {
    if (attempt >= s.backoffRetries) {
      // When to try again: after the wait that would have come next.
      const double next = std::min(std::max(backoff, response.retryAfter), s.backoffMaximum);
      const auto minutes = static_cast<std::int64_t>(std::max(1.0, std::ceil(next / 60)));
      Dictionary info = status;
      info.set(NSLocalizedRecoverySuggestionErrorKey,
               minutes == 1 ? ZBLocalizedString("Pinboard keeps refusing requests for now. Try again in a minute.")
                            : withNumber(ZBLocalizedString(
                                             "Pinboard keeps refusing requests for now. Try again in %@ minutes."),
                                         minutes));
      reply.error = ZBPinboardMakeError(ZBPinboardKitRateLimitedError, call->method, std::move(info));
      return then(reply);
    }
    // Wait as long as the server asks, at least our own doubling back-off.
    const double wait = std::min(std::max(backoff, response.retryAfter), s.backoffMaximum);
    return _backOff(call, operation, then, attempt, std::min(backoff * 2, s.backoffMaximum), wait);
  }
  if (response.status == 401 || response.status == 403)
    reply.error = ZBPinboardMakeError(ZBPinboardKitUnauthorizedError, call->method, status);
  else if (response.status != 200)
    reply.error = ZBPinboardMakeError(ZBPinboardKitServerError, call->method, status);
  else if (!call->streamsPosts)
    reply.body = std::move(response.body);
  if (reply.error) reply.posts = Value();
  then(reply);
}

bool ZBPinboardClient::_sendReadingPosts(const Call& call, ZBHTTPRequest& request, ZBHTTPResponse& response,
                                         const std::function<bool()>& cancelled, Reply& reply, NSErrorPtr* error) {
  // Tens of megabytes for a large account: the transfer runs on a thread of
  // its own and hands the answer over as it arrives, while this one turns it
  // into posts.
  ZBPinboardPostListReader reader(call.username, call.method);
  request.bodyConsumer = [&reader](std::string_view piece) { reader.append(piece); };
  bool sent = false;
  auto transfer = [&] {
    sent = _transport->send(request, response, cancelled, error);
    // A transport that does not stream collects the body instead.
    if (sent && response.status == 200 && !response.body.empty()) {
      reader.append(response.body);
      response.body.clear();
    }
    reader.close();
  };
  std::thread thread;
  try {
    thread = std::thread(transfer);
  } catch (const std::system_error&) {
    transfer();  // no thread to be had: one after the other
  }
  NSErrorPtr readError;
  reply.posts = reader.finish(&readError);
  if (thread.joinable()) thread.join();
  if (sent && response.status == 200 && !reply.posts) reply.error = readError;
  return sent;
}

void ZBPinboardClient::_backOff(std::shared_ptr<const Call> call, const OperationPointer& operation, Then then,
                                int attempt, double backoff, double wait) {
  const std::shared_ptr<ZBPinboardTimerQueue> timers = _timers;
  const std::uint64_t timer = timers->newIdentifier();
  auto abandon = [timers, timer, then] {
    if (!timers->cancel(timer)) return;
    Reply reply;
    reply.error = cancelledError();
    then(reply);
  };
  Reply reply;
  if (!operation->_setCanceller(abandon)) {
    reply.error = cancelledError();
    return then(reply);
  }
  NSErrorPtr error;
  auto again = [self = _self(), call, operation, then, attempt, backoff] {
    _guarded(then, [&] { self->_perform(call, operation, then, attempt + 1, backoff); });
  };
  _showWait(operation, timers->now() + wait);
  if (!timers->schedule(timer, timers->now() + wait, std::move(again), &error)) {
    reply.error = threadError(call->method, error);
    return then(reply);
  }
  if (operation->isCancelled()) abandon();
}

void ZBPinboardClient::_showWait(const OperationPointer& operation, double turnAt) {
  std::uint64_t replaced = 0;
  const std::uint64_t timer = _timers->newIdentifier();
  {
    ZBMutexLock hold(operation->_mutex);
    replaced = operation->_waitTimer;
    operation->_turnAt = turnAt;
    operation->_waitTimer = timer;
  }
  if (replaced) _timers->cancel(replaced);
  _tickWait(operation, timer);
}

void ZBPinboardClient::_tickWait(const OperationPointer& operation, std::uint64_t timer) {
  double turnAt = 0;
  {
    ZBMutexLock hold(operation->_mutex);
    if (operation->_waitTimer != timer) return;  // a newer wait took over
    turnAt = operation->_turnAt;
  }
  // A request that ended or was abandoned waits no more.
  const bool over = operation->isFinished() || operation->isCancelled();
  const double left = std::isfinite(turnAt) && !over ? turnAt - _timers->now() : 0;
  const auto seconds = left > 0 ? static_cast<std::int64_t>(std::ceil(left)) : 0;
  operation->_setSecondsUntilTurn(seconds);
  if (seconds == 0) return;
  // The next tick: when the count drops by one.
  auto tick = [weakSelf = std::weak_ptr<ZBPinboardClient>(_self()),
               weakOperation = std::weak_ptr<ZBPinboardRequestOperation>(operation), timer] {
    auto self = weakSelf.lock();
    auto op = weakOperation.lock();
    if (self && op) self->_tickWait(op, timer);
  };
  (void)_timers->schedule(timer, turnAt - static_cast<double>(seconds - 1), std::move(tick));
}

void ZBPinboardClient::_api(const OperationPointer& operation, const std::string& method, Params params, Then then,
                            bool streamsPosts, std::shared_ptr<std::atomic<double>> departure) {
  auto credentials = this->credentials();
  if (!credentials) {
    Reply reply;
    reply.error = ZBPinboardMakeError(ZBPinboardKitNotAuthenticatedError, method);
    return then(reply);
  }
  const Settings s = _settings();
  params.emplace_back("format", "json");
  auto call = std::make_shared<Call>();
  call->method = method;
  call->url = s.apiBase + method + query(params);
  call->requestClass = method;
  call->signedInAs = operation->_madeFor.empty() ? credentials->apiToken() : operation->_madeFor;
  call->session = operation->_session;
  call->addsToken = true;
  call->streamsPosts = streamsPosts;
  call->username = credentials->username();
  call->departure = std::move(departure);
  if (method == "posts/all") {
    call->classInterval = s.allPostsInterval;
    call->timeout = s.allPostsTimeout;
  } else if (method == "posts/recent") {
    call->classInterval = s.recentInterval;
  }
  _perform(std::move(call), operation, std::move(then), 0, s.backoffInitial);
}

void ZBPinboardClient::_apiResult(const OperationPointer& operation, const std::string& method, Params params,
                                  std::function<void(const std::string& text)> read) {
  _api(operation, method, std::move(params), [operation, method, read = std::move(read)](Reply& reply) {
    if (reply.error) return operation->_complete(Value(), reply.error);
    NSErrorPtr error;
    Value text = ZBPinboardResponseParser::resultText(reply.body, method, &error);
    if (!text) return operation->_complete(Value(), error);
    read(text.asString());
  });
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
  return _request(method, [self = _self(), username, secret, password, method](const OperationPointer& op) {
    if (username.empty() || secret.empty() || username.find(':') != std::string::npos)
      return op->_complete(Value(), ZBPinboardMakeError(ZBPinboardKitUnauthorizedError, method));
    const Settings s = self->_settings();
    auto call = std::make_shared<Call>();
    call->method = method;
    call->requestClass = method;
    call->username = username;  // the sign-in counts in the user's spacing too
    Params params{{"format", "json"}};
    if (password) {
      call->basicUser = username;
      call->basicPassword = secret;
    } else {
      params.emplace_back("auth_token", username + ":" + secret);
    }
    call->url = s.apiBase + method + query(params);
    auto read = [self, username, secret, password, method](Reply& reply, NSErrorPtr* error) -> Value {
      Value token = ZBPinboardResponseParser::resultText(reply.body, method, error);
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
    };
    self->_perform(std::move(call), op, _completing(op, std::move(read)), 0, s.backoffInitial);
  });
}

// ---- Posts ----

ZBPinboardClient::Operation ZBPinboardClient::retrieveLastPostUpdateDate() {
  return _request("posts/update", [self = _self()](const OperationPointer& op) {
    auto credentials = self->credentials();
    std::string token = credentials ? credentials->apiToken() : std::string();
    self->_api(op, "posts/update", {}, _completing(op, [self, token](Reply& reply, NSErrorPtr* error) {
                 Value date = ZBPinboardResponseParser::updateTime(reply.body, "posts/update", error);
                 if (date) {
                   ZBMutexLock hold(self->_mutex);
                   self->_lastUpdateRead = UpdateRead{date, self->_timers->now(), token};
                 }
                 return date;
               }));
  });
}

void ZBPinboardClient::_fullList(const OperationPointer& operation) {
  auto credentials = this->credentials();
  const std::string token = credentials ? credentials->apiToken() : std::string();
  std::optional<HeldList> held;
  {
    ZBMutexLock hold(_mutex);
    held.swap(_heldList);  // one use at most
  }
  const double interval = _settings().allPostsInterval;
  if (!held || token.empty() || held->before.token != token || _timers->now() - held->departedAt >= interval ||
      held->departedAt - held->before.at < 1)
    return _fetchFullList(operation);
  // Has the service changed since? Its date, read again, tells.
  _api(operation, "posts/update", {}, [self = _self(), operation, held = std::move(*held)](Reply& reply) {
    NSErrorPtr error;
    Value date = reply.error ? Value() : ZBPinboardResponseParser::updateTime(reply.body, "posts/update", &error);
    if (date && date == held.before.date) return operation->_complete(held.posts, nullptr);
    if (operation->isCancelled()) return operation->_complete(Value(), cancelledError());
    _guarded(_completing(operation, [](Reply& r, NSErrorPtr*) { return std::move(r.posts); }),
             [&] { self->_fetchFullList(operation); });
  });
}

void ZBPinboardClient::_fetchFullList(const OperationPointer& operation) {
  std::optional<UpdateRead> before;
  {
    ZBMutexLock hold(_mutex);
    before = _lastUpdateRead;
  }
  auto departure = std::make_shared<std::atomic<double>>(0.0);
  Params params{{"meta", "yes"}};
  _api(operation, "posts/all", std::move(params),
       [self = _self(), operation, before, departure](Reply& reply) {
         if (reply.error) return operation->_complete(Value(), reply.error);
         if (before && reply.posts) {
           ZBMutexLock hold(self->_mutex);
           self->_heldList = HeldList{reply.posts, *before, departure->load()};
         }
         operation->_complete(std::move(reply.posts), nullptr);
       },
       true, departure);
}

ZBPinboardClient::Operation ZBPinboardClient::retrieveAllPostsWithTagsStartDate(const Value& tags,
                                                                               const Value& startDate,
                                                                               const Value& endDate) {
  return _request("posts/all", [self = _self(), tags, startDate, endDate](const OperationPointer& op) {
    const std::string method = "posts/all";
    std::vector<std::string> list;
    NSErrorPtr error;
    if (!serviceTags(tags, list, method, &error)) return op->_complete(Value(), error);
    if (list.size() > 3 || (startDate && !startDate.isDate()) || (endDate && !endDate.isDate()))
      return op->_complete(Value(), ZBPinboardMakeError(ZBPinboardKitInvalidArgumentError, method));
    Params params;
    if (!list.empty()) params.emplace_back("tag", joined(list));
    // Whether the service includes the ends is not known: a second more each
    // way keeps both given ends in, and the refresh merges by URL anyway.
    if (startDate) params.emplace_back("fromdt", serviceDate(startDate.asDate(), -1));
    if (endDate) params.emplace_back("todt", serviceDate(endDate.asDate(), 1));
    // The refresh skips bookmarks whose change signature it has seen: ask for
    // it rather than count on the service adding it unasked.
    params.emplace_back("meta", "yes");
    self->_api(op, method, std::move(params),
               _completing(op, [](Reply& reply, NSErrorPtr*) { return std::move(reply.posts); }), true);
  });
}

ZBPinboardClient::Operation ZBPinboardClient::retrieveAllPostsWithTags(const Value& tags) {
  if (tags.count() != 0) return retrieveAllPostsWithTagsStartDate(tags, Value(), Value());
  return _request("posts/all", [self = _self()](const OperationPointer& op) { self->_fullList(op); });
}

ZBPinboardClient::Operation ZBPinboardClient::retrievePostSuggestedTagsForURL(const std::string& url) {
  return _request("posts/suggest", [self = _self(), url](const OperationPointer& op) {
    if (url.empty())
      return op->_complete(Value(), ZBPinboardMakeError(ZBPinboardKitInvalidArgumentError, "posts/suggest"));
    self->_api(op, "posts/suggest", {{"url", url}}, _completing(op, [](Reply& reply, NSErrorPtr* error) {
                 return ZBPinboardResponseParser::suggestedTags(reply.body, "posts/suggest", error);
               }));
  });
}

ZBPinboardClient::Operation ZBPinboardClient::createPostWithProperties(const Dictionary& properties) {
  return _sendPost(properties, "posts/add", false);
}

ZBPinboardClient::Operation ZBPinboardClient::updatePostWithProperties(const Dictionary& properties) {
  return _sendPost(properties, "posts/add", true);
}

ZBPinboardClient::Operation ZBPinboardClient::_sendPost(const Dictionary& properties, const char* name,
                                                        bool replace) {
  return _request(name, [self = _self(), properties, replace](const OperationPointer& op) {
    const std::string method = "posts/add";
    const Value& url = properties[ZBPinboardPostURLKey];
    std::vector<std::string> tags;
    const Value& date = properties[ZBPinboardPostDateKey];
    NSErrorPtr error;
    if (!url.isString() || url.asString().empty() || (date && !date.isDate()))
      return op->_complete(Value(), ZBPinboardMakeError(ZBPinboardKitInvalidArgumentError, method));
    if (!serviceTags(properties[ZBPinboardPostTagsKey], tags, method, &error)) return op->_complete(Value(), error);
    // Every field goes out, empty ones included: a replace that left one out
    // would erase it.
    const Value& shared = properties[ZBPinboardPostSharedKey];
    const Value& unread = properties[ZBPinboardPostUnreadKey];
    std::string title = properties[ZBPinboardPostTitleKey].asString();
    if (title.empty()) title = kUntitledTitle;
    Dictionary sent{{ZBPinboardPostURLKey, url},
                    {ZBPinboardPostTitleKey, title},
                    {ZBPinboardPostDescKey, properties[ZBPinboardPostDescKey].asString()},
                    {ZBPinboardPostTagsKey, Value(Array(tags.begin(), tags.end()))},
                    {ZBPinboardPostSharedKey, !shared || shared.boolValue()},
                    {ZBPinboardPostUnreadKey, unread.boolValue()}};
    Params params{{"url", url.asString()},
                  {"description", title},
                  {"extended", sent[ZBPinboardPostDescKey].asString()},
                  {"tags", joined(tags)},
                  {"shared", sent[ZBPinboardPostSharedKey].boolValue() ? "yes" : "no"},
                  {"toread", sent[ZBPinboardPostUnreadKey].boolValue() ? "yes" : "no"},
                  {"replace", replace ? "yes" : "no"}};
    if (date) params.emplace_back("dt", serviceDate(date.asDate()));
    Value echo = postEcho(properties, url);
    self->_apiResult(op, method, std::move(params), [self, op, method, replace, sent, echo](const std::string& text) {
      if (text == "done") return op->_complete(echo, nullptr);
      if (!replace && text == "item already exists") return self->_confirmExisting(op, sent, echo);
      op->_complete(Value(), serviceError(method, text));
    });
  });
}

void ZBPinboardClient::_confirmExisting(const OperationPointer& operation, const Dictionary& sent, Value echo) {
  const std::string url = sent[ZBPinboardPostURLKey].asString();
  _api(operation, "posts/get", {{"url", url}}, _completing(operation, [sent, echo](Reply& reply, NSErrorPtr* error) {
         Value posts = ZBPinboardResponseParser::posts(reply.body, "", "posts/get", error);
         if (!posts) return Value();
         for (const Value& p : posts.asArray()) {
           const Dictionary& stored = p.asDictionary();
           if (stored[ZBPinboardPostURLKey] != sent[ZBPinboardPostURLKey]) continue;
           bool same = true;
           for (const auto* key : {&ZBPinboardPostTitleKey, &ZBPinboardPostDescKey, &ZBPinboardPostSharedKey,
                                   &ZBPinboardPostUnreadKey})
             same = same && stored[*key] == sent[*key];
           const Value& tags = stored[ZBPinboardPostTagsKey];
           same = same && (tags ? tags : Value(Array())) == sent[ZBPinboardPostTagsKey];
           if (same) return echo;  // the first attempt's own write
         }
         return fail(error, serviceError("posts/add", "item already exists",
                                         ZBLocalizedString("A bookmark for this address is already saved on Pinboard. "
                                                           "It was left as it is.")));
       }));
}

ZBPinboardClient::Operation ZBPinboardClient::deletePostWithProperties(const Dictionary& properties) {
  return _request("posts/delete", [self = _self(), properties](const OperationPointer& op) {
    const std::string method = "posts/delete";
    const Value& url = properties[ZBPinboardPostURLKey];
    if (!url.isString() || url.asString().empty())
      return op->_complete(Value(), ZBPinboardMakeError(ZBPinboardKitInvalidArgumentError, method));
    Value echo = postEcho(properties, url);
    self->_apiResult(op, method, {{"url", url.asString()}}, [op, method, echo](const std::string& text) {
      // Already gone is what deleting wanted, also when an earlier attempt
      // was applied behind an error.
      if (text == "done" || text == "item not found") return op->_complete(echo, nullptr);
      op->_complete(Value(), serviceError(method, text));
    });
  });
}

// ---- Tags ----

ZBPinboardClient::Operation ZBPinboardClient::renameTag(const std::string& oldTitle, const std::string& newTitle) {
  return _request("tags/rename", [self = _self(), oldTitle, newTitle](const OperationPointer& op) {
    const std::string method = "tags/rename";
    std::vector<std::string> tags;
    NSErrorPtr error;
    if (!serviceTags(Value(Array{Value(oldTitle), Value(newTitle)}), tags, method, &error))
      return op->_complete(Value(), error);
    self->_apiResult(op, method, {{"old", oldTitle}, {"new", newTitle}}, [op, method, newTitle](const std::string& text) {
      if (text == "done") return op->_complete(Value(newTitle), nullptr);
      op->_complete(Value(), serviceError(method, text));
    });
  });
}

ZBPinboardClient::Operation ZBPinboardClient::deleteTag(const std::string& title) {
  return _request("tags/delete", [self = _self(), title](const OperationPointer& op) {
    const std::string method = "tags/delete";
    if (!serviceTag(title)) {
      std::vector<std::string> tags;
      NSErrorPtr error;
      (void)serviceTags(Value(Array{Value(title)}), tags, method, &error);
      return op->_complete(Value(), error);
    }
    self->_apiResult(op, method, {{"tag", title}}, [op, method, title](const std::string& text) {
      if (text == "done") return op->_complete(Value(title), nullptr);
      op->_complete(Value(), serviceError(method, text));
    });
  });
}

ZBPinboardClient::Operation ZBPinboardClient::retrieveTags() {
  return _request("tags/get", [self = _self()](const OperationPointer& op) {
    self->_api(op, "tags/get", {}, _completing(op, [](Reply& reply, NSErrorPtr* error) {
                 return ZBPinboardResponseParser::tagCounts(reply.body, "tags/get", error);
               }));
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

void ZBPinboardClient::_rssKey(const OperationPointer& operation, const ZBPinboardCredentials& credentials,
                               Then then) {
  {
    ZBMutexLock hold(_mutex);
    if (!_rssKeyValue.empty() && _rssKeyOwner == credentials.apiToken()) {
      Reply reply;
      reply.body = _rssKeyValue;
      hold.unlock();
      return then(reply);
    }
  }
  const std::string owner = credentials.apiToken();
  _api(operation, "user/secret", {}, [self = _self(), owner, then](Reply& reply) {
    if (!reply.error) {
      Value secret = ZBPinboardResponseParser::resultText(reply.body, "user/secret", &reply.error);
      if (secret && secret.asString().empty())
        reply.error = ZBPinboardMakeError(ZBPinboardKitMalformedResponseError, "user/secret");
      if (!reply.error) {
        reply.body = secret.asString();
        ZBMutexLock hold(self->_mutex);
        self->_rssKeyValue = reply.body;
        self->_rssKeyOwner = owner;
      }
    }
    then(reply);
  });
}

ZBPinboardClient::Operation ZBPinboardClient::_feed(std::string name, std::string path, bool secret,
                                                    std::uint64_t count) {
  return _request("feed " + name, [self = _self(), name, path, secret, count](const OperationPointer& op) {
    const std::string method = "feed " + name;
    auto call = std::make_shared<Call>();
    call->method = method;
    call->requestClass = "feeds";
    const std::string rest = path + query({{"count", std::to_string(count)}});
    auto then = _completing(op, [method](Reply& reply, NSErrorPtr* error) {
      return ZBPinboardResponseParser::feed(reply.body, method, error);
    });
    const Settings s = self->_settings();
    if (!secret) {
      call->url = s.feedsBase + rest;
      return self->_perform(std::move(call), op, std::move(then), 0, s.backoffInitial);
    }
    auto credentials = self->credentials();
    if (!credentials)
      return op->_complete(Value(), ZBPinboardMakeError(ZBPinboardKitNotAuthenticatedError, method));
    // The secret feed leaves only under the credentials its key belongs to.
    call->signedInAs = op->_madeFor.empty() ? credentials->apiToken() : op->_madeFor;
    call->session = op->_session;
    call->username = credentials->username();  // its spacing is kept with the user's other processes
    self->_rssKey(op, *credentials,
                  [self, op, call, rest, then, username = credentials->username(), s](Reply& reply) mutable {
                    if (reply.error) return op->_complete(Value(), reply.error);
                    call->url = s.feedsBase + secretFeedPrefix(reply.body, username) + rest;
                    self->_perform(std::move(call), op, std::move(then), 0, s.backoffInitial);
                  });
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
