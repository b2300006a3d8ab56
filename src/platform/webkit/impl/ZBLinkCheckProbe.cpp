#include "platform/webkit/impl/ZBLinkCheckProbe.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

struct Address {
  sockaddr_storage storage{};
  socklen_t length = 0;
};

// The addresses an override gives name:port, or false when none names it.
bool overrideAddresses(const std::vector<std::string>& overrides, const std::string& name, int port,
                       std::vector<Address>& out) {
  std::string prefix = name + ":" + std::to_string(port) + ":";
  for (const std::string& entry : overrides) {
    if (entry.size() <= prefix.size() || strncasecmp(entry.c_str(), prefix.c_str(), prefix.size()) != 0) continue;
    std::string list = entry.substr(prefix.size());
    std::size_t start = 0;
    while (start <= list.size()) {
      std::size_t comma = list.find(',', start);
      std::string text = list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
      if (!text.empty() && text.front() == '[' && text.back() == ']') text = text.substr(1, text.size() - 2);
      Address a;
      auto* v4 = reinterpret_cast<sockaddr_in*>(&a.storage);
      auto* v6 = reinterpret_cast<sockaddr_in6*>(&a.storage);
      if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<std::uint16_t>(port));
        a.length = sizeof *v4;
        out.push_back(a);
      } else if (inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<std::uint16_t>(port));
        a.length = sizeof *v6;
        out.push_back(a);
      }
      if (comma == std::string::npos) break;
      start = comma + 1;
    }
    return true;
  }
  return false;
}

// One asynchronous resolver request. Its storage must outlive the request,
// so it is heap-held and, when a running lookup cannot be cancelled, left to
// the resolver (a few bytes, once per stuck lookup) rather than freed under it.
struct Lookup {
  std::string name, service;
  addrinfo hints{};
  gaicb request{};
  bool done = false;
  int code = EAI_INPROGRESS;
};

struct Socket {
  int fd = -1;
  ~Socket() {
    if (fd >= 0) close(fd);
  }
};

// Whether every address refused: connects to all at once, without blocking.
bool allRefuse(const std::vector<Address>& addresses, Clock::time_point deadline,
               const std::function<bool()>& cancelled) {
  if (addresses.empty()) return false;
  std::vector<Socket> sockets(addresses.size());
  std::vector<pollfd> waits;
  std::vector<std::size_t> waiting;
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    const Address& a = addresses[i];
    int fd = socket(a.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockets[i].fd = fd;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&a.storage), a.length) == 0) return false;
    if (errno == ECONNREFUSED) continue;
    if (errno != EINPROGRESS) return false;
    waits.push_back({fd, POLLOUT, 0});
    waiting.push_back(i);
  }
  while (!waits.empty()) {
    if ((cancelled && cancelled()) || Clock::now() >= deadline) return false;
    int n = poll(waits.data(), waits.size(), 50);
    if (n < 0 && errno != EINTR) return false;
    for (std::size_t k = 0; k < waits.size();) {
      if (!waits[k].revents) {
        ++k;
        continue;
      }
      int err = 0;
      socklen_t len = sizeof err;
      getsockopt(waits[k].fd, SOL_SOCKET, SO_ERROR, &err, &len);
      if (err != ECONNREFUSED) return false;
      waits.erase(waits.begin() + static_cast<std::ptrdiff_t>(k));
    }
  }
  return true;
}

}  // namespace

std::vector<ZBLinkCheckProbeVerdict> ZBLinkCheckProbe(const std::vector<ZBLinkCheckProbeTarget>& targets,
                                                      const std::vector<std::string>& overrides, double timeout,
                                                      const std::function<bool()>& cancelled) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(static_cast<long long>(timeout * 1000));
  std::vector<ZBLinkCheckProbeVerdict> verdicts(targets.size(), ZBLinkCheckProbeVerdict::Other);
  std::vector<std::vector<Address>> addresses(targets.size());
  std::vector<std::unique_ptr<Lookup>> lookups(targets.size());
  std::vector<gaicb*> batch;
  for (std::size_t i = 0; i < targets.size(); ++i) {
    if (overrideAddresses(overrides, targets[i].name, targets[i].port, addresses[i])) continue;
    auto lookup = std::make_unique<Lookup>();
    lookup->name = targets[i].name;
    lookup->service = std::to_string(targets[i].port);
    lookup->hints.ai_family = AF_UNSPEC;
    lookup->hints.ai_socktype = SOCK_STREAM;
    lookup->hints.ai_flags = AI_NUMERICSERV;
    lookup->request.ar_name = lookup->name.c_str();
    lookup->request.ar_service = lookup->service.c_str();
    lookup->request.ar_request = &lookup->hints;
    batch.push_back(&lookup->request);
    lookups[i] = std::move(lookup);
  }
  // The resolver's own threads run the lookups; this thread only polls them,
  // so that cancellation and the deadline hold even when a resolver hangs.
  if (!batch.empty() && getaddrinfo_a(GAI_NOWAIT, batch.data(), static_cast<int>(batch.size()), nullptr) != 0) {
    for (auto& lookup : lookups) lookup.reset();  // nothing was queued; every lookup stays Other
  }
  for (;;) {
    bool pending = false;
    for (auto& lookup : lookups) {
      if (!lookup || lookup->done) continue;
      int code = gai_error(&lookup->request);
      if (code == EAI_INPROGRESS) {
        pending = true;
      } else {
        lookup->done = true;
        lookup->code = code;
      }
    }
    if (!pending) break;
    if ((cancelled && cancelled()) || Clock::now() >= deadline) {
      for (auto& lookup : lookups) {
        if (!lookup || lookup->done) continue;
        if (gai_cancel(&lookup->request) == EAI_CANCELED) lookup->done = true;
        else (void)lookup.release();  // still running: its storage belongs to the resolver now
      }
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  for (std::size_t i = 0; i < targets.size(); ++i) {
    Lookup* lookup = lookups[i].get();
    if (lookup) {
      if (!lookup->done) continue;
      if (lookup->code == EAI_NONAME) verdicts[i] = ZBLinkCheckProbeVerdict::NoSuchName;
      if (lookup->code == 0) {
        for (addrinfo* ai = lookup->request.ar_result; ai; ai = ai->ai_next) {
          Address a;
          std::memcpy(&a.storage, ai->ai_addr, ai->ai_addrlen);
          a.length = ai->ai_addrlen;
          addresses[i].push_back(a);
        }
        freeaddrinfo(lookup->request.ar_result);
      }
    }
    if (targets[i].kind == ZBLinkCheckProbeKind::Refusal && verdicts[i] == ZBLinkCheckProbeVerdict::Other &&
        allRefuse(addresses[i], deadline, cancelled))
      verdicts[i] = ZBLinkCheckProbeVerdict::AllRefused;
  }
  return verdicts;
}
