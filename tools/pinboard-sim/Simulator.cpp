#include "pinboard-sim/Simulator.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

namespace pinboard_sim {

using nlohmann::json;

// The HTTP server with a pool wide enough for the client's parallel requests
// (seven source feeds at once, plus requests held back by injected delays).
class Simulator::Server : public httplib::Server {
public:
  explicit Server(int threads) {
    new_task_queue = [threads] { return new httplib::ThreadPool(static_cast<std::size_t>(threads)); };
    set_keep_alive_timeout(1);
    set_read_timeout(5);
    // Only SO_REUSEADDR: httplib's default adds SO_REUSEPORT, which lets a
    // second simulator bind a busy port and silently share its requests.
    set_socket_options([](socket_t sock) {
      int yes = 1;
      setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
  }
};

namespace {

std::string statusText(int status) {
  switch (status) {
    case 400: return "Bad Request";
    case 401: return "API requires authentication";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 429: return "Too Many Requests";
    case 500: return "Internal Server Error";
    case 502: return "Bad Gateway";
    case 503: return "Service Unavailable";
    default: return "Error " + std::to_string(status);
  }
}

// Closes the connection a request arrived on, without an answer. httplib
// does not hand the socket to handlers, so find it by its two addresses and
// shut it down; the server's own write then fails and it closes the socket.
void dropConnection(const httplib::Request& req) {
  DIR* dir = opendir("/proc/self/fd");
  if (!dir) return;
  while (dirent* entry = readdir(dir)) {
    int fd = std::atoi(entry->d_name);
    if (fd <= 2) continue;
    sockaddr_storage local{}, peer{};
    socklen_t localLen = sizeof local, peerLen = sizeof peer;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLen) != 0) continue;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLen) != 0) continue;
    auto port = [](const sockaddr_storage& a) -> int {
      if (a.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in&>(a).sin_port);
      if (a.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6&>(a).sin6_port);
      return -1;
    };
    if (port(local) == req.local_port && port(peer) == req.remote_port) {
      shutdown(fd, SHUT_RDWR);
      break;
    }
  }
  closedir(dir);
}

std::string garbageBody() {
  // Looks like what a broken proxy or a maintenance page sends back.
  return "<html><head><title>502</title></head><body>\x01\x02\xff\xfe upstream error {\"posts\":[</body>";
}

std::int64_t jsonTime(const json& v) {
  if (v.is_number()) return v.get<std::int64_t>();
  if (v.is_string()) return parseDateTime(v.get<std::string>(), true).value_or(0);
  return 0;
}

}  // namespace

Simulator::Simulator(SimulatorOptions options) : _options(std::move(options)) {}

Simulator::~Simulator() { stop(); }

bool Simulator::start(std::string* error) {
  if (_server) return true;
  // A client that hangs up must not kill the process through SIGPIPE.
  std::signal(SIGPIPE, SIG_IGN);
  _stopping = false;
  _server = std::make_unique<Server>(_options.threads);
  _server->Get(R"(/.*)", [this](const httplib::Request& req, httplib::Response& res) { _handle(req, res); });
  int port = _options.port == 0 ? _server->bind_to_any_port(_options.host)
                                : (_server->bind_to_port(_options.host, _options.port) ? _options.port : -1);
  if (port <= 0) {
    if (error) *error = "cannot bind " + _options.host + ":" + std::to_string(_options.port);
    _server.reset();
    return false;
  }
  _port = port;
  auto ended = std::make_shared<std::atomic<bool>>(false);
  _thread = std::thread([this, ended] {
    _server->listen_after_bind();
    *ended = true;
  });
  // Serve before returning, so a request made right away finds a listener.
  while (!_server->is_running() && !*ended) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  if (*ended) {
    if (error) *error = "the server stopped at once on " + _options.host + ":" + std::to_string(port);
    _thread.join();
    _server.reset();
    return false;
  }
  return true;
}

void Simulator::stop() {
  if (!_server) return;
  {
    std::lock_guard<std::mutex> lock(_sleepMutex);
    _stopping = true;
  }
  _sleepCondition.notify_all();
  _server->stop();
  if (_thread.joinable()) _thread.join();
  _server.reset();
}

std::string Simulator::baseURL() const { return "http://" + _options.host + ":" + std::to_string(_port.load()); }
std::string Simulator::apiURL() const { return baseURL() + "/v1/"; }
std::string Simulator::feedsURL() const { return baseURL() + "/json/"; }

bool Simulator::_sleep(double seconds) {
  std::unique_lock<std::mutex> lock(_sleepMutex);
  return !_sleepCondition.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return _stopping.load(); });
}

double Simulator::_now() const {
  if (_clock) return _clock();
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::optional<Fault> Simulator::_takeFault(const std::string& path) {
  std::lock_guard<std::mutex> lock(_mutex);
  for (auto it = _faults.begin(); it != _faults.end(); ++it) {
    if (!it->matches(path)) continue;
    if (it->after > 0) {
      --it->after;
      continue;
    }
    Fault f = *it;
    if (it->times > 0 && --it->times == 0) _faults.erase(it);
    return f;
  }
  return std::nullopt;
}

void Simulator::_handle(const httplib::Request& req, httplib::Response& res) {
  RequestRecord record;
  record.path = req.path;
  for (const auto& [k, v] : req.params) record.params.emplace(k, v);
  std::optional<Fault> fault = _takeFault(req.path);
  record.faulted = fault.has_value();

  if (fault && fault->delay > 0 && !_sleep(fault->delay)) {
    res.status = 503;
    res.set_content(statusText(503), "text/plain");
    record.status = 503;
    _log(std::move(record));
    return;
  }
  if (fault && fault->drop) {
    dropConnection(req);
    _log(std::move(record));
    return;
  }

  Reply reply;
  if (fault && fault->status) {
    reply.status = fault->status;
    reply.body = statusText(fault->status);
    reply.contentType = "text/plain; charset=utf-8";
  } else {
    std::lock_guard<std::mutex> lock(_mutex);
    const std::string& path = req.path;
    if (path.rfind("/v1/", 0) == 0) {
      bool malformed = false;
      record.user = _authenticate(req, record.basicAuth, malformed);
      if (record.user.empty()) {
        reply = {401, statusText(401), "text/plain; charset=utf-8"};
      } else if (_rateLimited(record.user, path)) {
        reply = {429, statusText(429), "text/plain; charset=utf-8"};
      } else {
        std::string method = path.substr(4);
        while (!method.empty() && method.back() == '/') method.pop_back();
        reply = _api(method, req, *_account(record.user));
      }
    } else if (path.rfind("/json/", 0) == 0) {
      reply = _feed(path, req);
    } else {
      reply = {404, statusText(404), "text/plain; charset=utf-8"};
    }
  }

  // Only an untouched answer may go out straight from the cache.
  if (reply.shared && (fault || quirks().gzip)) {
    reply.body = *reply.shared;
    reply.shared.reset();
  }
  if (fault) {
    switch (fault->body) {
      case Fault::Body::Garbage: reply.body = garbageBody(); break;
      case Fault::Body::Truncated: reply.body.resize(reply.body.size() / 2); break;
      case Fault::Body::Empty: reply.body.clear(); break;
      case Fault::Body::Normal: break;
    }
  }
  std::string contentType = !reply.contentType.empty() ? reply.contentType
                            : quirks().textPlain     ? "text/plain; charset=utf-8"
                                                     : "application/json; charset=utf-8";
  res.status = reply.status;
  record.status = reply.status;
  if (fault && fault->cut) {
    // Promise the whole body, send part of it, then hang up.
    auto body = std::make_shared<std::string>(std::move(reply.body));
    res.set_content_provider(body->size(), contentType,
                             [body](size_t offset, size_t, httplib::DataSink& sink) {
                               if (offset == 0 && body->size() > 1) sink.write(body->data(), body->size() / 2);
                               return false;
                             });
  } else if (reply.shared) {
    auto body = reply.shared;
    res.set_content_provider(body->size(), contentType, [body](size_t offset, size_t length, httplib::DataSink& sink) {
      return sink.write(body->data() + offset, std::min(length, body->size() - offset));
    });
  } else if (quirks().gzip || reply.body.empty()) {
    res.set_content(std::move(reply.body), contentType);  // httplib compresses as the client allows
  } else {
    // Through a provider, httplib sends the bytes as they are, whatever the
    // client accepts: compressing tens of megabytes would dominate every
    // measurement made against the simulator.
    auto body = std::make_shared<std::string>(std::move(reply.body));
    res.set_content_provider(body->size(), contentType, [body](size_t offset, size_t length, httplib::DataSink& sink) {
      return sink.write(body->data() + offset, std::min(length, body->size() - offset));
    });
  }
  _log(std::move(record));
}

std::string Simulator::_authenticate(const httplib::Request& req, bool& basic, bool& malformed) const {
  basic = false;
  malformed = false;
  if (req.has_param("auth_token")) {
    std::string token = req.get_param_value("auth_token");
    std::size_t colon = token.find(':');
    if (colon == std::string::npos) {
      malformed = true;
      return {};
    }
    std::string user = token.substr(0, colon);
    const Account* a = _account(user);
    if (a && !a->token.empty() && a->token == token.substr(colon + 1)) return user;
    return {};
  }
  std::string header = req.get_header_value("Authorization");
  if (header.rfind("Basic ", 0) == 0) {
    basic = true;
    std::optional<std::string> decoded = base64Decode(header.substr(6));
    if (!decoded) return {};
    std::size_t colon = decoded->find(':');
    if (colon == std::string::npos) return {};
    std::string user = decoded->substr(0, colon);
    const Account* a = _account(user);
    if (a && !a->password.empty() && a->password == decoded->substr(colon + 1)) return user;
  }
  return {};
}

bool Simulator::_rateLimited(const std::string& user, const std::string& path) {
  const RateLimits& limits = _options.rateLimits;
  double now = _now();
  std::string cls;
  double classInterval = 0;
  if (path.rfind("/v1/posts/all", 0) == 0) {
    cls = "all";
    classInterval = limits.all;
  } else if (path.rfind("/v1/posts/recent", 0) == 0) {
    cls = "recent";
    classInterval = limits.recent;
  }
  auto tooSoon = [&](const std::string& key, double interval) {
    if (interval <= 0) return false;
    auto it = _lastCall.find(user + '\x1f' + key);
    return it != _lastCall.end() && now - it->second < interval;
  };
  if (tooSoon("general", limits.general) || (!cls.empty() && tooSoon(cls, classInterval))) return true;
  _lastCall[user + '\x1f' + "general"] = now;
  if (!cls.empty()) _lastCall[user + '\x1f' + cls] = now;
  return false;
}

void Simulator::_log(RequestRecord record) {
  std::lock_guard<std::mutex> lock(_mutex);
  _requests.push_back(std::move(record));
}

// ---- Seeding ----

Account* Simulator::_account(const std::string& user) {
  auto it = _accounts.find(user);
  return it == _accounts.end() ? nullptr : &it->second;
}

const Account* Simulator::_account(const std::string& user) const {
  auto it = _accounts.find(user);
  return it == _accounts.end() ? nullptr : &it->second;
}

Account& Simulator::_insertAccount(const AccountSeed& seed) {
  auto [it, fresh] = _accounts.try_emplace(seed.username);
  Account& a = it->second;
  a.username = seed.username;
  if (fresh) a.updateTime = static_cast<std::int64_t>(_now());
  a.token = seed.token;
  if (a.token.empty()) {
    a.token = md5Hex("token:" + seed.username).substr(0, 20);
    for (char& c : a.token) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  a.password = seed.password;
  a.rssKey = seed.rssKey.empty() ? md5Hex("rss:" + seed.username).substr(0, 20) : seed.rssKey;
  a.saveAllPrivate = seed.saveAllPrivate;
  ++_stateVersion;
  return a;
}

std::string Simulator::addAccount(const AccountSeed& seed) {
  std::lock_guard<std::mutex> lock(_mutex);
  Account& a = _insertAccount(seed);
  return a.username + ":" + a.token;
}

bool Simulator::addBookmark(const std::string& user, Bookmark bookmark) {
  std::lock_guard<std::mutex> lock(_mutex);
  Account* a = _account(user);
  if (!a) return false;
  bookmark.refresh();
  std::int64_t time = bookmark.time;
  a->bookmarks[bookmark.url] = std::move(bookmark);
  ++a->version;
  a->updateTime = std::max(a->updateTime, time);
  ++_stateVersion;
  return true;
}

bool Simulator::generateBookmarks(const std::string& user, std::size_t count, const GeneratorOptions& options) {
  std::vector<Bookmark> generated = pinboard_sim::generateBookmarks(user, count, options);
  std::lock_guard<std::mutex> lock(_mutex);
  Account* a = _account(user);
  if (!a) return false;
  a->bookmarks.reserve(a->bookmarks.size() + generated.size());
  for (Bookmark& b : generated) {
    a->updateTime = std::max(a->updateTime, b.time);
    std::string url = b.url;
    a->bookmarks[url] = std::move(b);
  }
  ++a->version;
  ++_stateVersion;
  return true;
}

bool Simulator::addNote(const std::string& user, const std::string& title, const std::string& text,
                        std::int64_t created, std::int64_t updated) {
  std::lock_guard<std::mutex> lock(_mutex);
  Account* a = _account(user);
  if (!a) return false;
  Note n;
  n.title = title;
  n.text = text;
  n.created = created;
  n.updated = updated;
  n.id = md5Hex(user + "\x1f" + std::to_string(a->notes.size()) + "\x1f" + title).substr(0, 20);
  a->notes.push_back(std::move(n));
  ++_stateVersion;
  return true;
}

bool Simulator::setNetwork(const std::string& user, std::vector<std::string> others) {
  std::lock_guard<std::mutex> lock(_mutex);
  Account* a = _account(user);
  if (!a) return false;
  a->network = std::move(others);
  ++_stateVersion;
  return true;
}

bool Simulator::setStarred(const std::string& user, const std::string& url, bool starred) {
  std::lock_guard<std::mutex> lock(_mutex);
  Account* a = _account(user);
  if (!a) return false;
  auto it = a->bookmarks.find(url);
  if (it == a->bookmarks.end()) return false;
  it->second.starred = starred;
  ++_stateVersion;
  return true;
}

bool Simulator::setSource(const std::string& user, const std::string& url, const std::string& source) {
  std::lock_guard<std::mutex> lock(_mutex);
  Account* a = _account(user);
  if (!a) return false;
  auto it = a->bookmarks.find(url);
  if (it == a->bookmarks.end()) return false;
  it->second.source = source;
  ++_stateVersion;
  return true;
}

void Simulator::setPopularTags(const std::string& url, std::vector<std::string> tags) {
  std::lock_guard<std::mutex> lock(_mutex);
  _popularTags[url] = std::move(tags);
  ++_stateVersion;
}

bool Simulator::loadSeed(const json& seed, std::string* error) {
  try {
    if (!seed.is_object()) throw std::runtime_error("the seed must be a JSON object");
    for (const json& acc : seed.value("accounts", json::array())) {
      AccountSeed s;
      s.username = acc.at("username").get<std::string>();
      if (s.username.empty() || s.username.find(':') != std::string::npos)
        throw std::runtime_error("bad user name '" + s.username + "'");
      s.token = acc.value("token", "");
      s.password = acc.value("password", "");
      s.rssKey = acc.value("rssKey", "");
      s.saveAllPrivate = acc.value("saveAllPrivate", false);
      addAccount(s);
      if (acc.contains("network")) setNetwork(s.username, acc["network"].get<std::vector<std::string>>());
      for (const json& jb : acc.value("bookmarks", json::array())) {
        Bookmark b;
        b.url = jb.at("url").get<std::string>();
        b.title = jb.value("title", "");
        b.extended = jb.value("extended", "");
        if (jb.contains("tags")) {
          if (jb["tags"].is_string()) b.tags = splitTags(jb["tags"].get<std::string>());
          else b.tags = jb["tags"].get<std::vector<std::string>>();
        }
        b.time = jb.contains("time") ? jsonTime(jb["time"]) : static_cast<std::int64_t>(_now());
        b.shared = jb.value("shared", true);
        b.toread = jb.value("toread", false);
        b.starred = jb.value("starred", false);
        b.source = jb.value("source", "");
        if (jb.contains("others") && jb["others"].is_number()) b.others = jb["others"].get<std::int64_t>();
        addBookmark(s.username, std::move(b));
      }
      for (const json& jn : acc.value("notes", json::array())) {
        addNote(s.username, jn.value("title", ""), jn.value("text", ""), jsonTime(jn.value("created", json(0))),
                jsonTime(jn.value("updated", jn.value("created", json(0)))));
      }
      if (acc.contains("generate")) {
        GeneratorOptions o;
        o.seed = acc["generate"].value("seed", std::uint64_t(1));
        generateBookmarks(s.username, acc["generate"].value("count", std::size_t(0)), o);
      }
      if (acc.contains("updateTime")) {
        std::lock_guard<std::mutex> lock(_mutex);
        _account(s.username)->updateTime = jsonTime(acc["updateTime"]);
      }
    }
    // A named copy: items() of a temporary would outlive the temporary.
    const json popular = seed.value("popularTags", json::object());
    for (const auto& [url, tags] : popular.items()) setPopularTags(url, tags.get<std::vector<std::string>>());
    return true;
  } catch (const std::exception& e) {
    if (error) *error = std::string("bad seed: ") + e.what();
    return false;
  }
}

bool Simulator::loadSeedFile(const std::string& path, std::string* error) {
  std::ifstream in(path);
  if (!in) {
    if (error) *error = "cannot read " + path;
    return false;
  }
  json seed = json::parse(in, nullptr, false);
  if (seed.is_discarded()) {
    if (error) *error = path + " is not JSON";
    return false;
  }
  return loadSeed(seed, error);
}

json Simulator::exportState() const {
  std::lock_guard<std::mutex> lock(_mutex);
  json accounts = json::array();
  for (const auto& [name, a] : _accounts) {
    json bookmarks = json::array();
    for (const Bookmark* b : a.sorted()) {
      json jb = {{"url", b->url},          {"title", b->title},     {"extended", b->extended},
                 {"tags", b->tags},        {"time", formatDateTime(b->time)},
                 {"shared", b->shared},    {"toread", b->toread},   {"starred", b->starred},
                 {"source", b->source}};
      if (b->others) jb["others"] = *b->others;
      bookmarks.push_back(std::move(jb));
    }
    json notes = json::array();
    for (const Note& n : a.notes)
      notes.push_back({{"title", n.title}, {"text", n.text}, {"created", formatDateTime(n.created)},
                       {"updated", formatDateTime(n.updated)}});
    accounts.push_back({{"username", a.username},
                        {"token", a.token},
                        {"password", a.password},
                        {"rssKey", a.rssKey},
                        {"saveAllPrivate", a.saveAllPrivate},
                        {"network", a.network},
                        {"updateTime", formatDateTime(a.updateTime)},
                        {"bookmarks", std::move(bookmarks)},
                        {"notes", std::move(notes)}});
  }
  return json{{"accounts", std::move(accounts)}, {"popularTags", _popularTags}};
}

bool Simulator::saveState(const std::string& path, std::string* error) const {
  std::string text = exportState().dump(1, ' ', false, json::error_handler_t::replace);
  std::string temporary = path + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << text << '\n';
    if (!out) {
      if (error) *error = "cannot write " + temporary;
      return false;
    }
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    if (error) *error = "cannot replace " + path;
    return false;
  }
  return true;
}

std::uint64_t Simulator::stateVersion() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _stateVersion;
}

// ---- Inspection ----

std::optional<Bookmark> Simulator::bookmark(const std::string& user, const std::string& url) const {
  std::lock_guard<std::mutex> lock(_mutex);
  const Account* a = _account(user);
  if (!a) return std::nullopt;
  auto it = a->bookmarks.find(url);
  if (it == a->bookmarks.end()) return std::nullopt;
  return it->second;
}

std::vector<Bookmark> Simulator::bookmarks(const std::string& user) const {
  std::lock_guard<std::mutex> lock(_mutex);
  std::vector<Bookmark> out;
  if (const Account* a = _account(user))
    for (const Bookmark* b : a->sorted()) out.push_back(*b);
  return out;
}

std::size_t Simulator::bookmarkCount(const std::string& user) const {
  std::lock_guard<std::mutex> lock(_mutex);
  const Account* a = _account(user);
  return a ? a->bookmarks.size() : 0;
}

std::int64_t Simulator::updateTime(const std::string& user) const {
  std::lock_guard<std::mutex> lock(_mutex);
  const Account* a = _account(user);
  return a ? a->updateTime : 0;
}

std::map<std::string, int> Simulator::tagCounts(const std::string& user) const {
  std::lock_guard<std::mutex> lock(_mutex);
  std::map<std::string, int> counts;
  if (const Account* a = _account(user))
    for (const auto& [url, b] : a->bookmarks)
      for (const auto& t : b.tags) ++counts[t];
  return counts;
}

std::string Simulator::token(const std::string& user) const {
  std::lock_guard<std::mutex> lock(_mutex);
  const Account* a = _account(user);
  return a ? a->username + ":" + a->token : std::string();
}

std::string Simulator::rssKey(const std::string& user) const {
  std::lock_guard<std::mutex> lock(_mutex);
  const Account* a = _account(user);
  return a ? a->rssKey : std::string();
}

std::vector<RequestRecord> Simulator::requestLog() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _requests;
}

void Simulator::clearRequestLog() {
  std::lock_guard<std::mutex> lock(_mutex);
  _requests.clear();
}

std::size_t Simulator::requestCount(const std::string& path) const {
  std::lock_guard<std::mutex> lock(_mutex);
  Fault matcher;
  matcher.path = path;
  std::size_t n = 0;
  for (const auto& r : _requests)
    if (matcher.matches(r.path)) ++n;
  return n;
}

// ---- Behaviour ----

void Simulator::addFault(Fault fault) {
  std::lock_guard<std::mutex> lock(_mutex);
  _faults.push_back(std::move(fault));
}

void Simulator::clearFaults() {
  std::lock_guard<std::mutex> lock(_mutex);
  _faults.clear();
}

void Simulator::setRateLimits(RateLimits limits) {
  std::lock_guard<std::mutex> lock(_mutex);
  _options.rateLimits = limits;
  _lastCall.clear();
}

void Simulator::setQuirks(Quirks quirks) {
  std::lock_guard<std::mutex> lock(_mutex);
  _options.quirks = quirks;
  _fullListCache.clear();
}

Quirks Simulator::quirks() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _options.quirks;
}

void Simulator::setClock(std::function<double()> clock) {
  std::lock_guard<std::mutex> lock(_mutex);
  _clock = std::move(clock);
}

}  // namespace pinboard_sim
