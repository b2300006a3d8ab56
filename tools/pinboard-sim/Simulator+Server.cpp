// Serving: the HTTP server on loopback and its thread, and the way of every
// request through it: injected faults, authentication, rate limits, the
// route, and the answer written out.
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>

#include "pinboard-sim/Simulator.h"

namespace pinboard_sim {

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
    case 401: return "Forbidden";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 429: return "Too Many Requests";
    case 500: return "Internal Server Error";
    case 502: return "Bad Gateway";
    case 503: return "Service Unavailable";
    default: return "Error " + std::to_string(status);
  }
}

// The socket a request arrived on, or -1. httplib does not hand it to
// handlers, so find it by its two addresses.
int connectionSocket(const httplib::Request& req) {
  int found = -1;
  DIR* dir = opendir("/proc/self/fd");
  if (!dir) return found;
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
      found = fd;
      break;
    }
  }
  closedir(dir);
  return found;
}

// Closes the connection without an answer; the server's own write then fails
// and it closes the socket.
void dropConnection(const httplib::Request& req) {
  int fd = connectionSocket(req);
  if (fd >= 0) shutdown(fd, SHUT_RDWR);
}

// httplib writes the standard reason phrase of a status; the service answers a
// refused login "401 Forbidden". Writes that answer itself and closes the
// connection. False when the socket could not be found or written.
bool answerWithReason(const httplib::Request& req, int status, const std::string& reason, const std::string& body,
                      const std::string& contentType) {
  int fd = connectionSocket(req);
  if (fd < 0) return false;
  std::string answer = "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\nContent-Type: " + contentType +
                       "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
  std::size_t sent = 0;
  while (sent < answer.size()) {
    ssize_t n = send(fd, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  shutdown(fd, SHUT_RDWR);
  return true;
}

std::string garbageBody() {
  // Looks like what a broken proxy or a maintenance page sends back.
  return "<html><head><title>502</title></head><body>\x01\x02\xff\xfe upstream error {\"posts\":[</body>";
}

}  // namespace

Simulator::Simulator(SimulatorOptions options)
    : _options(std::move(options)),
      _quirks(_options.quirks),
      _rateLimits(_options.rateLimits),
      _feedWindow(_options.feeds) {}

Simulator::~Simulator() { stop(); }

bool Simulator::start(std::string* error) {
  if (_server) return true;
  // A client that hangs up must not kill the process through SIGPIPE.
  std::signal(SIGPIPE, SIG_IGN);
  {
    ZBMutexLock hold(_sleepMutex);
    _stopping = false;
  }
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
    ZBMutexLock hold(_sleepMutex);
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
  ZBMutexLock hold(_sleepMutex);
  return !hold.waitFor(_sleepCondition, std::chrono::duration<double>(seconds), [this] {
    _sleepMutex.assertHeld();
    return _stopping;
  });
}

std::optional<Fault> Simulator::_takeFault(const std::string& path) {
  ZBMutexLock hold(_mutex);
  for (auto it = _faults.begin(); it != _faults.end(); ++it) {
    if (!it->matches(path)) continue;
    if (it->after > 0) {
      --it->after;
      continue;
    }
    Fault f = *it;
    ++_faultsTaken;
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
  const std::string& path = req.path;
  std::string method = path.rfind("/v1/", 0) == 0 ? path.substr(4) : std::string();
  while (!method.empty() && method.back() == '/') method.pop_back();
  const bool write = method == "posts/add" || method == "posts/delete" || method == "tags/rename" ||
                     method == "tags/delete";
  // Without apply a fault replaces the call: a write is not stored, and what
  // the fault spoils is a refusal. With apply the call is served (a write is
  // stored, the update time moves) and the fault spoils its answer.
  const bool serve = !fault || fault->apply || (!write && !fault->drop && !fault->status);
  Reply reply;
  if (!serve) {
    std::string refusal = std::string("{\"") + (method.rfind("tags/", 0) == 0 ? "result" : "result_code") +
                          "\":\"something went wrong\"}\n";
    reply = {200, std::move(refusal), {}};
  } else {
    ZBMutexLock hold(_mutex);
    if (path.rfind("/v1/", 0) == 0) {
      bool malformed = false;
      record.user = _authenticate(req, record.basicAuth, malformed);
      if (record.user.empty()) {
        reply = {401, statusText(401), "text/plain; charset=utf-8"};
      } else if (_rateLimited(record.user, path)) {
        reply = {429, statusText(429), "text/plain; charset=utf-8"};
      } else {
        reply = _api(method, req, *_account(record.user));
      }
    } else if (path.rfind("/json/", 0) == 0) {
      reply = _feed(path, req);
    } else {
      reply = {404, statusText(404), "text/plain; charset=utf-8"};
    }
  }
  if (fault && fault->drop) {
    dropConnection(req);
    _log(std::move(record));
    return;
  }
  if (fault && fault->status) {
    reply = {fault->status, statusText(fault->status), "text/plain; charset=utf-8"};
  }

  const Quirks quirks = this->quirks();
  // Only an untouched answer may go out straight from the cache.
  if (reply.shared && (fault || quirks.gzip)) {
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
    if (fault->bom) reply.body.insert(0, "\xef\xbb\xbf");
  }
  std::string contentType = !reply.contentType.empty() ? reply.contentType
                            : quirks.textPlain       ? "text/plain; charset=utf-8"
                                                     : "application/json; charset=utf-8";
  res.status = reply.status;
  record.status = reply.status;
  if (reply.status == 401 && !(fault && fault->cut) && answerWithReason(req, 401, "Forbidden", reply.body, contentType)) {
    _log(std::move(record));
    return;
  }
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
  } else if (quirks.gzip || reply.body.empty()) {
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
  const RateLimits& limits = _rateLimits;
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
    _mutex.assertHeld();  // called below, under the caller's lock
    if (interval <= 0) return false;
    auto it = _lastCall.find(user + '\x1f' + key);
    return it != _lastCall.end() && now - it->second < interval;
  };
  if (tooSoon("general", limits.general) || (!cls.empty() && tooSoon(cls, classInterval))) {
    ++_violations[user];
    return true;
  }
  _lastCall[user + '\x1f' + "general"] = now;
  if (!cls.empty()) _lastCall[user + '\x1f' + cls] = now;
  return false;
}

void Simulator::_log(RequestRecord record) {
  ZBMutexLock hold(_mutex);
  _requests.push_back(std::move(record));
}

}  // namespace pinboard_sim
