#pragma once
// WebSide: the simulator's stand-in for the rest of the web, for link checks.
// It serves plain HTTP/1.1 on its own loopback port with answers chosen by
// the path, and behaves as badly as real sites do (slow, trickling, dropping
// connections, lying about HEAD). It is written on plain sockets rather than
// the API's HTTP library because it must misbehave below HTTP and must see
// every connection open and close, idle keep-alive ones included.
//
// Paths (any of them takes ?delay=MS, waited before answering):
//   /status/CODE[/anything]         answers CODE (200, 404, 410, 403, 999, 500…)
//   /redirect/N[/anything][?code=C] C (302 by default) to /redirect/N-1…, 200 at 0
//   /loop/a, /loop/b                302 to each other
//   /to?url=U                       302 to U (percent-decoded; relative or absolute)
//   /head/H/G                       answers H to HEAD and G to GET
//   /head-drop/G                    closes on HEAD, answers G to GET
//   /exact/RAW?is=E                 200 when RAW arrived exactly as E (percent-decoded) spells it, else 404
//   /retry/CODE?after=S             CODE with Retry-After: S
//   /trickle                        the status line, then a header byte every 100 ms, never done
//   /drop                           closes the connection without a word
// Anything else answers 404.
//
// Ownership: held by value or unique_ptr; destruction stops it. Thread-safe.

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/ZBMutex.h"

namespace pinboard_sim {

struct WebRequestRecord {
  std::string requestLine;  // exactly as received, without CRLF
  std::string method;
  std::string target;
  std::string host;        // the Host header
  std::string userAgent;
};

class WebSide {
public:
  explicit WebSide(std::string address = "127.0.0.1", int port = 0);
  ~WebSide();
  WebSide(const WebSide&) = delete;
  WebSide& operator=(const WebSide&) = delete;

  // Binds and serves on background threads; false with a message. Twice: no-op.
  [[nodiscard]] bool start(std::string* error = nullptr);
  // Closes every connection and waits for the serving threads. Idempotent.
  void stop();
  int port() const { return _port; }
  std::string baseURL() const;  // "http://127.0.0.1:PORT"

  // A port bound but never listening: connections to it are refused. Stays
  // reserved while the web side lives. -1 when none could be bound.
  int refusingPort();
  // A port that refuses connections until `after` seconds from now, then
  // serves the same paths. -1 when none could be bound.
  int latePort(double after);

  std::vector<WebRequestRecord> requests() const;
  void clearRequests();
  // The most connections that were open at once (idle keep-alive ones too):
  // to one Host header value ("name:port"), to the largest of them all, and
  // in total. A connection belongs to the Host of its first request.
  int maximumConnections(const std::string& host) const;
  int maximumConnectionsPerHost() const;
  int maximumConnections() const;
  // The most requests being answered at once. Unlike the connection counts it
  // does not lag behind a client's close, which the server sees only later.
  int maximumRequestsInFlight() const;
  void resetCounters();

  struct Listener;
  struct Connection;

private:
  void _acceptLoop(Listener* listener);
  void _serve(int fd);
  bool _answer(int fd, const WebRequestRecord& request, bool& keepAlive, const std::function<void()>& leaving);
  void _connectionOpened(int fd);
  void _connectionHost(int fd, const std::string& host);
  void _connectionClosed(int fd);
  bool _sleep(int milliseconds) const;

  const std::string _address;
  int _port;
  std::atomic<bool> _running{false};
  std::atomic<bool> _stopping{false};
  mutable ZBMutex _mutex;
  std::vector<std::unique_ptr<Listener>> _listeners ZB_GUARDED_BY(_mutex);
  std::vector<int> _reserved ZB_GUARDED_BY(_mutex);  // refusing ports' sockets
  std::map<int, std::string> _open ZB_GUARDED_BY(_mutex);  // connection fd → its host ("" until known)
  std::map<std::string, int> _openPerHost ZB_GUARDED_BY(_mutex);
  std::map<std::string, int> _maximumPerHost ZB_GUARDED_BY(_mutex);
  int _maximumOpen ZB_GUARDED_BY(_mutex) = 0;
  int _inFlight ZB_GUARDED_BY(_mutex) = 0;
  int _maximumInFlight ZB_GUARDED_BY(_mutex) = 0;
  std::vector<WebRequestRecord> _requests ZB_GUARDED_BY(_mutex);
  std::vector<std::thread> _threads ZB_GUARDED_BY(_mutex);
};

}  // namespace pinboard_sim
