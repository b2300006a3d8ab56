#include "platform/webkit/impl/ZBLinkCheckEngine.h"

#include <curl/curl.h>
#include <strings.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <queue>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "platform/foundation/ZBLocalizedString.h"
#include "platform/operations/ZBCompletionProvider.h"
#include "platform/webkit/ZBWebKit.h"
#include "platform/webkit/impl/ZBLinkCheckProbe.h"

// How a run goes. Every distinct address is one task; tasks wait in the
// queue of their host, and a host is ready while it has work, fewer
// transfers in flight than its limit and no Retry-After wait. The loop hands
// ready hosts' tasks to free easy handles (never more than the global limit
// exist) and drives them all with one multi handle on this thread.
//
// A task starts with HEAD. A HEAD answered 405 or 501, or dropped, is asked
// again at the same hop as a GET that stops at the first byte of the body; so
// is a HEAD answered 404 or 410, which counts only when the GET agrees.
// Redirects are followed here, not by libcurl, so that every hop queues on
// its own host and keeps to that host's limit, and so that the GET retry
// starts at the hop that refused HEAD.
//
// A failure by name or by refusal is only provisional: once every task has
// run, those tasks wait a pause and run once more. What still fails then is
// either an offline network (most hosts failing: the run fails, with no
// verdict) or is settled by ZBLinkCheckProbe, which alone can tell "no such
// name" from a resolver hiccup and checks every address of a refusing name.

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::uint32_t kNone = UINT32_MAX;
constexpr int kMaximumRedirects = 10;

enum class Outcome : std::uint8_t { Pending, Alive, Dead, Unresolved, Refused, Unreachable };

bool provisional(Outcome o) {
  return o == Outcome::Unresolved || o == Outcome::Refused || o == Outcome::Unreachable;
}

struct Task {
  std::string address;
  std::vector<std::string> chain;  // redirect hops followed so far, the current one last
  std::uint32_t copies = 0;        // inputs naming this address
  std::uint32_t next = kNone;      // next task in its host's queue
  std::uint32_t host = kNone;      // host of address
  std::uint32_t hopHost = kNone;   // host of the current hop
  Outcome outcome = Outcome::Pending;
  bool get = false;                // HEAD refused: GET from this hop on
  bool confirming = false;         // GET confirming a HEAD's 404 or 410

  const std::string& url() const { return chain.empty() ? address : chain.back(); }
  void restart() {
    chain.clear();
    chain.shrink_to_fit();
    hopHost = host;
    get = confirming = false;
    outcome = Outcome::Pending;
  }
};

struct Host {
  std::string name;
  int port = 0;
  std::uint32_t head = kNone, tail = kNone;
  int inFlight = 0;
  Clock::time_point notBefore{};
  // How the host failed in this pass (name or connection), if it did: its
  // other tasks then take the same provisional outcome without asking, which
  // spares the resolver a lookup per address (resolvers throttle bursts of
  // failing lookups) and an offline run its time.
  Outcome failed = Outcome::Pending;
  bool queued = false;  // in the ready queue or the deferred heap
};

struct Slot {
  CURL* easy = nullptr;
  std::uint32_t task = kNone;
  bool head = true;
  bool bodyStarted = false;
  double retryAfter = -1;
};

struct EasyDeleter {
  void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
struct MultiDeleter {
  void operator()(CURLM* m) const { curl_multi_cleanup(m); }
};
struct SlistDeleter {
  void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};
struct UrlDeleter {
  void operator()(CURLU* u) const { curl_url_cleanup(u); }
};

std::size_t discardBody(char*, std::size_t, std::size_t, void* context) {
  static_cast<Slot*>(context)->bodyStarted = true;
  return 0;  // the headers are all we need: stop before the body
}

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* context) {
  auto* slot = static_cast<Slot*>(context);
  std::size_t n = size * count;
  static constexpr std::string_view name = "retry-after:";
  if (n > name.size() && strncasecmp(data, name.data(), name.size()) == 0) {
    std::string value(data + name.size(), n - name.size());
    while (!value.empty() && (value.back() == '\r' || value.back() == '\n' || value.back() == ' ')) value.pop_back();
    std::size_t start = value.find_first_not_of(' ');
    value = start == std::string::npos ? "" : value.substr(start);
    char* end = nullptr;
    double seconds = std::strtod(value.c_str(), &end);
    if (!value.empty() && end && *end == '\0') {
      slot->retryAfter = seconds;
    } else if (time_t when = curl_getdate(value.c_str(), nullptr); when >= 0) {
      slot->retryAfter = static_cast<double>(when - time(nullptr));
    }
  }
  return n;
}

const std::string& userAgent() {
  static const std::string agent =
      std::string("ZBWebKit/1.0 (link check) libcurl/") + curl_version_info(CURLVERSION_NOW)->version;
  return agent;
}

// "name" and port of a URL, the name lower-cased; false when libcurl cannot
// parse it.
bool hostOf(const std::string& url, std::string& name, int& port) {
  std::unique_ptr<CURLU, UrlDeleter> u(curl_url());
  if (!u || curl_url_set(u.get(), CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME | CURLU_ALLOW_SPACE) != CURLUE_OK)
    return false;
  char* host = nullptr;
  char* portText = nullptr;
  bool ok = curl_url_get(u.get(), CURLUPART_HOST, &host, 0) == CURLUE_OK &&
            curl_url_get(u.get(), CURLUPART_PORT, &portText, CURLU_DEFAULT_PORT) == CURLUE_OK;
  if (ok) {
    name = host;
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (name.size() > 2 && name.front() == '[' && name.back() == ']') name = name.substr(1, name.size() - 2);
    port = std::atoi(portText);
  }
  curl_free(host);
  curl_free(portText);
  return ok;
}

class Run {
public:
  Run(const ZBLinkCheckSettings& settings, const ZBLinkCheckCallbacks& callbacks)
      : _settings(settings), _callbacks(callbacks) {}

  bool run(const std::vector<std::string>& addresses, std::vector<bool>& broken, NSErrorPtr* error);

private:
  bool _setUp(NSErrorPtr* error);
  void _addTasks(const std::vector<std::string>& addresses, std::vector<std::uint32_t>& taskOfInput);
  std::uint32_t _hostId(const std::string& name, int port);
  void _enqueue(std::uint32_t task, bool front);
  void _schedule(std::uint32_t host, bool front = false);
  bool _drive(NSErrorPtr* error);
  void _start(std::uint32_t task, Slot& slot);
  void _finished(Slot& slot, CURLcode code);
  void _settle(std::uint32_t task, Outcome outcome);
  bool _pause(double seconds);
  bool _cancelled() const { return _callbacks.cancelled && _callbacks.cancelled(); }
  void _report(bool force);
  void _verify();

  const ZBLinkCheckSettings& _settings;
  const ZBLinkCheckCallbacks& _callbacks;
  std::unique_ptr<CURLM, MultiDeleter> _multi;
  std::unique_ptr<curl_slist, SlistDeleter> _resolve;
  bool _resolveLoaded = false;
  std::vector<std::unique_ptr<Slot>> _slots;
  std::vector<std::unique_ptr<CURL, EasyDeleter>> _easies;
  std::vector<Slot*> _free;
  std::vector<Task> _tasks;
  std::vector<Host> _hosts;
  std::unordered_map<std::string, std::uint32_t> _hostIds;
  std::deque<std::uint32_t> _ready;
  using Deferred = std::pair<Clock::time_point, std::uint32_t>;
  std::priority_queue<Deferred, std::vector<Deferred>, std::greater<>> _deferred;
  int _active = 0;
  bool _recheck = false;
  std::size_t _checked = 0;
  Clock::time_point _lastReport{};
};

bool Run::_setUp(NSErrorPtr* error) {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  _multi.reset(curl_multi_init());
  if (!_multi) {
    return ZBSetError(error, NSError::create(ZBWebKitErrorDomain, ZBWebKitInternalError,
                                             "The network library could not be started."));
  }
  // libcurl's own limits count idle pooled connections too, so a host never
  // has more than its share open; the pool holds no more than the global
  // limit.
  curl_multi_setopt(_multi.get(), CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(_settings.maximumConnectionsPerHost));
  curl_multi_setopt(_multi.get(), CURLMOPT_MAX_TOTAL_CONNECTIONS, static_cast<long>(_settings.maximumConnections));
  curl_multi_setopt(_multi.get(), CURLMOPT_MAXCONNECTS, static_cast<long>(_settings.maximumConnections));
  for (const std::string& entry : _settings.resolveOverrides) {
    curl_slist* list = curl_slist_append(_resolve.get(), entry.c_str());
    if (list) {
      (void)_resolve.release();
      _resolve.reset(list);
    }
  }
  return true;
}

std::uint32_t Run::_hostId(const std::string& name, int port) {
  std::string key = name + ":" + std::to_string(port);
  auto [it, inserted] = _hostIds.try_emplace(std::move(key), static_cast<std::uint32_t>(_hosts.size()));
  if (inserted) _hosts.push_back(Host{name, port});
  return it->second;
}

void Run::_addTasks(const std::vector<std::string>& addresses, std::vector<std::uint32_t>& taskOfInput) {
  std::unordered_map<std::string_view, std::uint32_t> seen;
  seen.reserve(addresses.size());
  taskOfInput.assign(addresses.size(), kNone);
  _tasks.reserve(addresses.size());
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    const std::string& address = addresses[i];
    if (address.empty()) {
      ++_checked;  // another scheme: never asked, never broken
      continue;
    }
    auto [it, inserted] = seen.try_emplace(address, static_cast<std::uint32_t>(_tasks.size()));
    if (inserted) {
      Task task;
      task.address = address;
      std::string name;
      int port = 0;
      if (hostOf(address, name, port)) {
        task.host = task.hopHost = _hostId(name, port);
      } else {
        task.outcome = Outcome::Alive;  // nothing libcurl could send
      }
      _tasks.push_back(std::move(task));
    }
    taskOfInput[i] = it->second;
    Task& task = _tasks[it->second];
    ++task.copies;
    if (task.outcome == Outcome::Alive) ++_checked;
  }
  for (std::uint32_t t = 0; t < _tasks.size(); ++t) {
    if (_tasks[t].outcome == Outcome::Pending) _enqueue(t, false);
  }
}

void Run::_enqueue(std::uint32_t task, bool front) {
  Host& host = _hosts[_tasks[task].hopHost];
  if (front) {
    _tasks[task].next = host.head;
    host.head = task;
    if (host.tail == kNone) host.tail = task;
  } else {
    _tasks[task].next = kNone;
    if (host.tail == kNone) host.head = task;
    else _tasks[host.tail].next = task;
    host.tail = task;
  }
  _schedule(_tasks[task].hopHost);
}

void Run::_schedule(std::uint32_t id, bool front) {
  Host& host = _hosts[id];
  if (host.queued || host.head == kNone || host.inFlight >= _settings.maximumConnectionsPerHost) return;
  host.queued = true;
  if (host.notBefore > Clock::now()) _deferred.emplace(host.notBefore, id);
  else if (front) _ready.push_front(id);
  else _ready.push_back(id);
}

void Run::_start(std::uint32_t t, Slot& slot) {
  Task& task = _tasks[t];
  CURL* e = slot.easy;
  curl_easy_reset(e);
  slot.task = t;
  slot.head = !task.get && !task.confirming;
  slot.bodyStarted = false;
  slot.retryAfter = -1;
  curl_easy_setopt(e, CURLOPT_URL, task.url().c_str());
  curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(e, CURLOPT_PATH_AS_IS, 1L);  // send the path as written, dot segments too
  curl_easy_setopt(e, CURLOPT_USERAGENT, userAgent().c_str());
  curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(_settings.connectTimeout * 1000));
  curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, static_cast<long>(_settings.requestTimeout * 1000));
  curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(e, CURLOPT_HEADERDATA, &slot);
  curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, discardBody);
  curl_easy_setopt(e, CURLOPT_WRITEDATA, &slot);
  curl_easy_setopt(e, CURLOPT_PRIVATE, &slot);
  // The overrides go into the multi handle's shared name cache, for good:
  // loading them once is enough (and loading them for every transfer costs
  // more than the transfer when there are hundreds).
  if (_resolve && !_resolveLoaded) {
    curl_easy_setopt(e, CURLOPT_RESOLVE, _resolve.get());
    _resolveLoaded = true;
  }
  if (slot.head) curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
  else curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
  ++_hosts[task.hopHost].inFlight;
  ++_active;
  curl_multi_add_handle(_multi.get(), e);
}

void Run::_settle(std::uint32_t t, Outcome outcome) {
  Task& task = _tasks[t];
  task.outcome = outcome;
  if (!provisional(outcome)) {
    task.chain.clear();
    task.chain.shrink_to_fit();
  }
  if (!_recheck) {
    _checked += task.copies;
    _report(false);
  }
}

void Run::_finished(Slot& slot, CURLcode code) {
  const std::uint32_t t = slot.task;
  Task& task = _tasks[t];
  const std::uint32_t hop = task.hopHost;
  long status = 0;
  long osError = 0;
  char* location = nullptr;
  curl_easy_getinfo(slot.easy, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_getinfo(slot.easy, CURLINFO_OS_ERRNO, &osError);
  curl_easy_getinfo(slot.easy, CURLINFO_REDIRECT_URL, &location);
  std::string next = location ? location : "";
  curl_multi_remove_handle(_multi.get(), slot.easy);
  slot.task = kNone;
  _free.push_back(&slot);
  --_active;
  --_hosts[hop].inFlight;
  // The host goes first, so its next address takes the connection just
  // freed before the pool evicts it for another host's.
  _schedule(hop, true);

  if (code == CURLE_WRITE_ERROR && slot.bodyStarted) code = CURLE_OK;  // stopped by us after the headers
  auto retryAsGet = [&] {
    task.get = true;
    _enqueue(t, true);
  };
  switch (code) {
    case CURLE_OK: break;
    // A time-out wins over whatever status a half-received answer carried.
    case CURLE_OPERATION_TIMEDOUT: return _settle(t, Outcome::Alive);
    case CURLE_COULDNT_RESOLVE_HOST:
      _hosts[hop].failed = Outcome::Unresolved;
      return _settle(t, Outcome::Unresolved);
    case CURLE_COULDNT_CONNECT:
      _hosts[hop].failed = osError == ECONNREFUSED ? Outcome::Refused : Outcome::Unreachable;
      return _settle(t, _hosts[hop].failed);
    case CURLE_GOT_NOTHING:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_PARTIAL_FILE:
      if (slot.head) return retryAsGet();  // some servers drop HEAD
      return _settle(t, Outcome::Alive);
    default: return _settle(t, Outcome::Alive);  // TLS and the rest: not proof of a dead link
  }
  if ((status == 429 || status == 503) && slot.retryAfter > 0) {
    double wait = std::min(slot.retryAfter, _settings.retryAfterMaximum);
    _hosts[hop].notBefore = Clock::now() + std::chrono::milliseconds(static_cast<long long>(wait * 1000));
    return _settle(t, Outcome::Alive);
  }
  if (slot.head && (status == 405 || status == 501)) return retryAsGet();
  if (status == 404 || status == 410) {
    if (slot.head) {
      task.confirming = true;  // HEAD answers are sometimes wrong: a GET must agree
      return _enqueue(t, true);
    }
    return _settle(t, Outcome::Dead);
  }
  task.confirming = false;
  bool redirect = status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
  if (!redirect || next.empty()) return _settle(t, Outcome::Alive);
  if (task.chain.size() >= kMaximumRedirects) return _settle(t, Outcome::Alive);  // too many: not proof
  if (next == task.address) return _settle(t, Outcome::Alive);                    // a loop: not proof
  for (const std::string& seen : task.chain)
    if (seen == next) return _settle(t, Outcome::Alive);
  std::string name;
  int port = 0;
  if (!hostOf(next, name, port)) return _settle(t, Outcome::Alive);
  task.chain.push_back(std::move(next));
  task.hopHost = _hostId(name, port);
  _enqueue(t, true);
}

void Run::_report(bool force) {
  if (!_callbacks.progress) return;
  auto now = Clock::now();
  if (!force && now - _lastReport < std::chrono::milliseconds(50)) return;
  _lastReport = now;
  _callbacks.progress(_checked);
}

bool Run::_pause(double seconds) {
  auto until = Clock::now() + std::chrono::milliseconds(static_cast<long long>(seconds * 1000));
  while (Clock::now() < until) {
    if (_cancelled()) return false;
    curl_multi_poll(_multi.get(), nullptr, 0, 50, nullptr);  // also lets idle connections age out
  }
  return !_cancelled();
}

bool Run::_drive(NSErrorPtr* error) {
  for (;;) {
    if (_cancelled()) return ZBSetError(error, ZBUserCancelledError());
    auto now = Clock::now();
    while (!_deferred.empty() && _deferred.top().first <= now) {
      std::uint32_t id = _deferred.top().second;
      _deferred.pop();
      _hosts[id].queued = false;
      _schedule(id);
    }
    while (!_ready.empty() && _active < _settings.maximumConnections) {
      std::uint32_t id = _ready.front();
      _ready.pop_front();
      Host& host = _hosts[id];
      host.queued = false;
      if (host.head == kNone || host.inFlight >= _settings.maximumConnectionsPerHost) continue;
      if (host.notBefore > now) {
        _schedule(id);
        continue;
      }
      std::uint32_t t = host.head;
      host.head = _tasks[t].next;
      if (host.head == kNone) host.tail = kNone;
      if (host.failed != Outcome::Pending) {
        _settle(t, host.failed);
        _schedule(id);
        continue;
      }
      Slot* slot = nullptr;
      if (!_free.empty()) {
        slot = _free.back();
        _free.pop_back();
      } else {
        _easies.emplace_back(curl_easy_init());
        if (!_easies.back()) {
          return ZBSetError(error, NSError::create(ZBWebKitErrorDomain, ZBWebKitInternalError,
                                                   "The network library could not start a request."));
        }
        _slots.push_back(std::make_unique<Slot>());
        slot = _slots.back().get();
        slot->easy = _easies.back().get();
      }
      _start(t, *slot);
      _schedule(id);
    }
    if (_active == 0 && _ready.empty() && _deferred.empty()) return true;
    int running = 0;
    curl_multi_perform(_multi.get(), &running);
    while (CURLMsg* message = curl_multi_info_read(_multi.get(), &running)) {
      if (message->msg != CURLMSG_DONE) continue;
      Slot* slot = nullptr;
      curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, reinterpret_cast<char**>(&slot));
      _finished(*slot, message->data.result);
    }
    if (!_ready.empty() && _active < _settings.maximumConnections) continue;
    int wait = 100;
    if (!_deferred.empty()) {
      auto until = std::chrono::duration_cast<std::chrono::milliseconds>(_deferred.top().first - Clock::now());
      wait = static_cast<int>(std::clamp<long long>(until.count(), 0, 100));
    }
    curl_multi_poll(_multi.get(), nullptr, 0, wait, nullptr);
  }
}

void Run::_verify() {
  std::vector<ZBLinkCheckProbeTarget> targets;
  std::unordered_map<std::uint32_t, std::size_t> targetOfHost;
  for (const Task& task : _tasks) {
    if (task.outcome != Outcome::Unresolved && task.outcome != Outcome::Refused) continue;
    auto [it, inserted] = targetOfHost.try_emplace(task.hopHost, targets.size());
    if (inserted) {
      const Host& host = _hosts[task.hopHost];
      targets.push_back({host.name, host.port,
                         task.outcome == Outcome::Refused ? ZBLinkCheckProbeKind::Refusal : ZBLinkCheckProbeKind::Name});
    }
  }
  auto verdicts = ZBLinkCheckProbe(targets, _settings.resolveOverrides,
                                   std::max(_settings.connectTimeout, 5.0), _callbacks.cancelled);
  for (Task& task : _tasks) {
    if (!provisional(task.outcome)) continue;
    auto it = targetOfHost.find(task.hopHost);
    bool dead = task.outcome != Outcome::Unreachable && it != targetOfHost.end() &&
                verdicts[it->second] != ZBLinkCheckProbeVerdict::Other;
    task.outcome = dead ? Outcome::Dead : Outcome::Alive;
  }
}

bool Run::run(const std::vector<std::string>& addresses, std::vector<bool>& broken, NSErrorPtr* error) {
  if (!_setUp(error)) return false;
  std::vector<std::uint32_t> taskOfInput;
  _addTasks(addresses, taskOfInput);
  if (!_drive(error)) return false;
  _report(true);

  std::vector<std::uint32_t> again;
  for (std::uint32_t t = 0; t < _tasks.size(); ++t)
    if (provisional(_tasks[t].outcome)) again.push_back(t);
  if (!again.empty()) {
    if (!_pause(_settings.recheckDelay)) return ZBSetError(error, ZBUserCancelledError());
    _recheck = true;
    for (Host& host : _hosts) host.failed = Outcome::Pending;
    for (std::uint32_t t : again) {
      _tasks[t].restart();
      _enqueue(t, false);
    }
    if (!_drive(error)) return false;
  }

  std::unordered_set<std::uint32_t> unreachable;
  for (const Task& task : _tasks)
    if (provisional(task.outcome)) unreachable.insert(task.hopHost);
  if (unreachable.size() * 2 > _hosts.size() && unreachable.size() >= _settings.offlineMinimumHosts) {
    return ZBSetError(
        error, NSError::create(
                   ZBWebKitErrorDomain, ZBWebKitNetworkUnreachableError,
                   Dictionary{{NSLocalizedDescriptionKey, ZBLocalizedString("The network looks unreachable")},
                              {NSLocalizedRecoverySuggestionErrorKey,
                               ZBLocalizedString("Most sites could not be found or refused to connect, so no link "
                                                 "was marked dead. Please check the network connection and try "
                                                 "again.")},
                              {ZBWebKitCheckedHostsErrorKey, static_cast<std::int64_t>(_hosts.size())},
                              {ZBWebKitUnreachableHostsErrorKey, static_cast<std::int64_t>(unreachable.size())}}));
  }
  if (!unreachable.empty()) _verify();
  if (_cancelled()) return ZBSetError(error, ZBUserCancelledError());

  broken.assign(addresses.size(), false);
  for (std::size_t i = 0; i < addresses.size(); ++i)
    if (taskOfInput[i] != kNone) broken[i] = _tasks[taskOfInput[i]].outcome == Outcome::Dead;
  return true;
}

bool isHTTPScheme(std::string_view address) {
  auto starts = [&](std::string_view prefix) {
    return address.size() >= prefix.size() && strncasecmp(address.data(), prefix.data(), prefix.size()) == 0;
  };
  return starts("http://") || starts("https://");
}

}  // namespace

bool ZBLinkCheckRun(const std::vector<std::string>& addresses, const ZBLinkCheckSettings& settings,
                    const ZBLinkCheckCallbacks& callbacks, std::vector<bool>& broken, NSErrorPtr* error) {
  Run run(settings, callbacks);
  return run.run(addresses, broken, error);
}

std::string ZBLinkCheckRequestAddress(const std::string& address) {
  if (!isHTTPScheme(address)) return {};
  static const char hex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(address.size());
  for (char c : address) {
    auto byte = static_cast<unsigned char>(c);
    if (c == '#') break;
    if (byte <= 0x20 || byte >= 0x7f) {
      out += '%';
      out += hex[byte >> 4];
      out += hex[byte & 15];
    } else {
      out += c;
    }
  }
  return out;
}
