#include "pinboard-sim/WebSide.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

namespace pinboard_sim {

struct WebSide::Listener {
  int fd = -1;
  int port = 0;
  std::chrono::steady_clock::time_point listenAt;
  std::thread thread;
};

namespace {

using Clock = std::chrono::steady_clock;

// A TCP socket bound to address:port (0: any) but not listening yet; -1 on failure.
int boundSocket(const std::string& address, int port, int* boundPort, std::string* error) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    if (error) *error = std::string("socket: ") + std::strerror(errno);
    return -1;
  }
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<std::uint16_t>(port));
  if (inet_pton(AF_INET, address.c_str(), &a.sin_addr) != 1 || bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    if (error) *error = "cannot bind " + address + ":" + std::to_string(port) + ": " + std::strerror(errno);
    close(fd);
    return -1;
  }
  socklen_t length = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length);
  *boundPort = ntohs(a.sin_port);
  return fd;
}

bool sendAll(int fd, const std::string& data) {
  std::size_t sent = 0;
  while (sent < data.size()) {
    ssize_t n = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

std::string reason(int status) {
  switch (status) {
    case 200: return "OK";
    case 301: return "Moved Permanently";
    case 302: return "Found";
    case 303: return "See Other";
    case 307: return "Temporary Redirect";
    case 308: return "Permanent Redirect";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 410: return "Gone";
    case 429: return "Too Many Requests";
    case 500: return "Internal Server Error";
    case 501: return "Not Implemented";
    case 503: return "Service Unavailable";
    case 999: return "Request denied";
    default: return "Status";
  }
}

std::string percentDecode(const std::string& s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '%' && i + 2 < s.size() && std::isxdigit(static_cast<unsigned char>(s[i + 1])) &&
        std::isxdigit(static_cast<unsigned char>(s[i + 2]))) {
      out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += s[i] == '+' ? ' ' : s[i];
    }
  }
  return out;
}

std::map<std::string, std::string> queryOf(const std::string& query) {
  std::map<std::string, std::string> params;
  std::size_t start = 0;
  while (start < query.size()) {
    std::size_t end = query.find('&', start);
    std::string item = query.substr(start, end == std::string::npos ? std::string::npos : end - start);
    std::size_t eq = item.find('=');
    if (eq != std::string::npos) params[item.substr(0, eq)] = percentDecode(item.substr(eq + 1));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return params;
}

std::vector<std::string> segmentsOf(const std::string& path) {
  std::vector<std::string> parts;
  std::size_t start = 1;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    parts.push_back(path.substr(start, end == std::string::npos ? std::string::npos : end - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return parts;
}

int number(const std::string& text, int fallback) {
  try {
    return std::stoi(text);
  } catch (...) {
    return fallback;
  }
}

}  // namespace

WebSide::WebSide(std::string address, int port) : _address(std::move(address)), _port(port) {}

WebSide::~WebSide() { stop(); }

std::string WebSide::baseURL() const { return "http://" + _address + ":" + std::to_string(_port); }

bool WebSide::start(std::string* error) {
  if (_running.exchange(true)) return true;
  int port = 0;
  int fd = boundSocket(_address, _port, &port, error);
  if (fd < 0 || listen(fd, 256) != 0) {
    if (fd >= 0) close(fd);
    _running = false;
    return false;
  }
  _port = port;
  auto listener = std::make_unique<Listener>();
  listener->fd = fd;
  listener->port = port;
  listener->listenAt = Clock::now();
  Listener* raw = listener.get();
  ZBMutexLock lock(_mutex);
  _listeners.push_back(std::move(listener));
  raw->thread = std::thread([this, raw] { _acceptLoop(raw); });
  return true;
}

int WebSide::refusingPort() {
  int port = 0;
  int fd = boundSocket(_address, 0, &port, nullptr);
  if (fd < 0) return -1;
  ZBMutexLock lock(_mutex);
  _reserved.push_back(fd);
  return port;
}

int WebSide::latePort(double after) {
  int port = 0;
  int fd = boundSocket(_address, 0, &port, nullptr);
  if (fd < 0) return -1;
  auto listener = std::make_unique<Listener>();
  listener->fd = fd;
  listener->port = port;
  listener->listenAt = Clock::now() + std::chrono::milliseconds(static_cast<long long>(after * 1000));
  Listener* raw = listener.get();
  ZBMutexLock lock(_mutex);
  _listeners.push_back(std::move(listener));
  raw->thread = std::thread([this, raw] { _acceptLoop(raw); });
  return port;
}

void WebSide::stop() {
  if (!_running.load() || _stopping.exchange(true)) return;
  std::vector<Listener*> listeners;
  {
    ZBMutexLock lock(_mutex);
    for (auto& l : _listeners) listeners.push_back(l.get());
  }
  for (Listener* l : listeners)
    if (l->thread.joinable()) l->thread.join();
  {
    ZBMutexLock lock(_mutex);
    for (auto& l : _listeners) close(l->fd);
    _listeners.clear();
    for (int fd : _reserved) close(fd);
    _reserved.clear();
    for (auto& [fd, host] : _open) shutdown(fd, SHUT_RDWR);
  }
  // Connection threads are detached; each leaves _open as its very last act.
  for (;;) {
    {
      ZBMutexLock lock(_mutex);
      if (_open.empty()) break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  _running = false;
}

bool WebSide::_sleep(int milliseconds) const {
  auto until = Clock::now() + std::chrono::milliseconds(milliseconds);
  while (Clock::now() < until) {
    if (_stopping.load()) return false;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
    std::this_thread::sleep_for(std::min(left, std::chrono::milliseconds(50)));  // one sleep for short delays
  }
  return true;
}

void WebSide::_acceptLoop(Listener* listener) {
  while (Clock::now() < listener->listenAt)
    if (!_sleep(10)) return;
  if (listen(listener->fd, 256) != 0) return;
  while (!_stopping.load()) {
    pollfd p{listener->fd, POLLIN, 0};
    if (poll(&p, 1, 50) <= 0) continue;
    int fd = accept4(listener->fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    _connectionOpened(fd);
    std::thread([this, fd] { _serve(fd); }).detach();
  }
}

void WebSide::_connectionOpened(int fd) {
  ZBMutexLock lock(_mutex);
  _open[fd] = "";
  _maximumOpen = std::max(_maximumOpen, static_cast<int>(_open.size()));
}

void WebSide::_connectionHost(int fd, const std::string& host) {
  ZBMutexLock lock(_mutex);
  auto it = _open.find(fd);
  if (it == _open.end() || !it->second.empty()) return;
  it->second = host;
  int& n = _openPerHost[host];
  ++n;
  int& maximum = _maximumPerHost[host];
  maximum = std::max(maximum, n);
}

void WebSide::_connectionClosed(int fd) {
  ZBMutexLock lock(_mutex);
  auto it = _open.find(fd);
  if (it == _open.end()) return;
  if (!it->second.empty()) --_openPerHost[it->second];
  close(fd);
  _open.erase(it);
}

void WebSide::_serve(int fd) {
  std::string buffer;
  auto idleSince = Clock::now();
  bool keepAlive = true;
  while (keepAlive && !_stopping.load()) {
    std::size_t end = buffer.find("\r\n\r\n");
    if (end == std::string::npos) {
      if (Clock::now() - idleSince > std::chrono::seconds(30) || buffer.size() > 65536) break;
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      char chunk[4096];
      ssize_t n = recv(fd, chunk, sizeof chunk, 0);
      if (n <= 0) break;
      buffer.append(chunk, static_cast<std::size_t>(n));
      continue;
    }
    std::string head = buffer.substr(0, end);
    buffer.erase(0, end + 4);
    WebRequestRecord request;
    std::size_t lineEnd = head.find("\r\n");
    request.requestLine = head.substr(0, lineEnd);
    std::size_t sp1 = request.requestLine.find(' ');
    std::size_t sp2 = request.requestLine.rfind(' ');
    if (sp1 == std::string::npos || sp2 <= sp1) break;
    request.method = request.requestLine.substr(0, sp1);
    request.target = request.requestLine.substr(sp1 + 1, sp2 - sp1 - 1);
    bool http10 = request.requestLine.compare(sp2 + 1, std::string::npos, "HTTP/1.0") == 0;
    keepAlive = !http10;
    std::size_t pos = lineEnd;
    while (pos != std::string::npos && pos < head.size()) {
      std::size_t next = head.find("\r\n", pos + 2);
      std::string line = head.substr(pos + 2, next == std::string::npos ? std::string::npos : next - pos - 2);
      pos = next;
      std::size_t colon = line.find(':');
      if (colon == std::string::npos) continue;
      std::string value = line.substr(colon + 1);
      value.erase(0, value.find_first_not_of(' '));
      std::string name = line.substr(0, colon);
      if (strcasecmp(name.c_str(), "host") == 0) request.host = value;
      else if (strcasecmp(name.c_str(), "user-agent") == 0) request.userAgent = value;
      else if (strcasecmp(name.c_str(), "connection") == 0) keepAlive = strcasecmp(value.c_str(), "close") != 0;
    }
    _connectionHost(fd, request.host);
    {
      ZBMutexLock lock(_mutex);
      _requests.push_back(request);
      _maximumInFlight = std::max(_maximumInFlight, ++_inFlight);
    }
    // A request stops counting just before its answer leaves: once the client
    // has the answer it may send the next one, which must not overlap it here.
    bool counted = true;
    auto leaving = [&] {
      if (!counted) return;
      counted = false;
      ZBMutexLock lock(_mutex);
      --_inFlight;
    };
    bool answered = _answer(fd, request, keepAlive, leaving);
    leaving();
    if (!answered) break;
    idleSince = Clock::now();
  }
  _connectionClosed(fd);
}

bool WebSide::_answer(int fd, const WebRequestRecord& request, bool& keepAlive,
                      const std::function<void()>& leaving) {
  std::size_t q = request.target.find('?');
  std::string path = request.target.substr(0, q);
  auto params = queryOf(q == std::string::npos ? "" : request.target.substr(q + 1));
  auto parts = segmentsOf(path);
  const bool head = request.method == "HEAD";
  if (params.count("delay") && !_sleep(number(params["delay"], 0))) return false;

  int status = 404;
  std::string extra;
  const std::string what = parts.empty() ? "" : parts[0];
  if (what == "status" && parts.size() >= 2) {
    status = number(parts[1], 404);
  } else if (what == "redirect" && parts.size() >= 2) {
    int n = number(parts[1], 0);
    if (n <= 0) {
      status = 200;
    } else {
      status = params.count("code") ? number(params["code"], 302) : 302;
      extra = "Location: " + std::to_string(n - 1) + (params.count("code") ? "?code=" + params["code"] : "") + "\r\n";
    }
  } else if (what == "loop" && parts.size() >= 2) {
    status = 302;
    extra = std::string("Location: /loop/") + (parts[1] == "a" ? "b" : "a") + "\r\n";
  } else if (what == "to" && params.count("url")) {
    status = 302;
    extra = "Location: " + params["url"] + "\r\n";
  } else if (what == "head" && parts.size() >= 3) {
    status = number(head ? parts[1] : parts[2], 404);
  } else if (what == "head-drop" && parts.size() >= 2) {
    if (head) {
      leaving();
      return false;
    }
    status = number(parts[1], 404);
  } else if (what == "exact" && params.count("is")) {
    // 200 only when the path arrived byte for byte as ?is= spells it: sites
    // whose paths hold %2F, '+' or escaped UTF-8 answer 404 to a client that
    // rewrote them.
    std::string raw = path.substr(std::string("/exact/").size() < path.size() ? 7 : path.size());
    status = raw == params["is"] ? 200 : 404;
  } else if (what == "retry" && parts.size() >= 2) {
    status = number(parts[1], 503);
    extra = "Retry-After: " + (params.count("after") ? params["after"] : std::string("1")) + "\r\n";
  } else if (what == "trickle") {
    if (!sendAll(fd, "HTTP/1.1 200 OK\r\n")) return false;
    while (_sleep(100))
      if (!sendAll(fd, "X")) return false;
    return false;
  } else if (what == "drop") {
    leaving();
    return false;
  }
  const std::string body = std::to_string(status) + " " + reason(status) + "\n";
  std::string response = "HTTP/1.1 " + std::to_string(status) + " " + reason(status) +
                         "\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
                         // Lets the linkchecker tool lift its own per-host rate limit (its
                         // maxrequestspersecond), for side-by-side runs at equal concurrency.
                         "LinkChecker: allowed\r\n" +
                         extra + (keepAlive ? "" : "Connection: close\r\n") + "\r\n";
  if (!head) response += body;
  leaving();
  return sendAll(fd, response);
}

std::vector<WebRequestRecord> WebSide::requests() const {
  ZBMutexLock lock(_mutex);
  return _requests;
}

void WebSide::clearRequests() {
  ZBMutexLock lock(_mutex);
  _requests.clear();
}

int WebSide::maximumConnections(const std::string& host) const {
  ZBMutexLock lock(_mutex);
  auto it = _maximumPerHost.find(host);
  return it == _maximumPerHost.end() ? 0 : it->second;
}

int WebSide::maximumConnectionsPerHost() const {
  ZBMutexLock lock(_mutex);
  int maximum = 0;
  for (const auto& [host, n] : _maximumPerHost) maximum = std::max(maximum, n);
  return maximum;
}

int WebSide::maximumConnections() const {
  ZBMutexLock lock(_mutex);
  return _maximumOpen;
}

int WebSide::maximumRequestsInFlight() const {
  ZBMutexLock lock(_mutex);
  return _maximumInFlight;
}

void WebSide::resetCounters() {
  ZBMutexLock lock(_mutex);
  _maximumInFlight = _inFlight;
  _maximumOpen = static_cast<int>(_open.size());
  _maximumPerHost = _openPerHost;
}

}  // namespace pinboard_sim
