#include "platform/webkit/impl/ZBLinkCheckProbe.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>
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

// Lookups run on a few helper threads of their own (getaddrinfo blocks, and
// glibc's getaddrinfo_a starts threads that sanitizers cannot follow). The
// state is shared, so a probe that stops waiting (cancelled, past its
// deadline) leaves stuck lookups to finish on their own.
struct Lookups {
  std::mutex mutex;
  std::vector<std::string> names, services;
  std::vector<int> codes;  // EAI_INPROGRESS until done
  std::vector<std::vector<Address>> found;
  std::size_t next = 0, done = 0;
};

void lookUp(const std::shared_ptr<Lookups>& lookups) {
  for (;;) {
    std::size_t i;
    std::string name, service;
    {
      std::lock_guard lock(lookups->mutex);
      if (lookups->next == lookups->names.size()) return;
      i = lookups->next++;
      name = lookups->names[i];
      service = lookups->services[i];
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* result = nullptr;
    int code = getaddrinfo(name.c_str(), service.c_str(), &hints, &result);
    std::vector<Address> addresses;
    for (addrinfo* ai = code == 0 ? result : nullptr; ai; ai = ai->ai_next) {
      Address a;
      std::memcpy(&a.storage, ai->ai_addr, ai->ai_addrlen);
      a.length = ai->ai_addrlen;
      addresses.push_back(a);
    }
    if (result) freeaddrinfo(result);
    std::lock_guard lock(lookups->mutex);
    lookups->codes[i] = code;
    lookups->found[i] = std::move(addresses);
    ++lookups->done;
  }
}

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
  auto lookups = std::make_shared<Lookups>();
  std::vector<std::size_t> lookupOf(targets.size(), SIZE_MAX);
  for (std::size_t i = 0; i < targets.size(); ++i) {
    if (overrideAddresses(overrides, targets[i].name, targets[i].port, addresses[i])) continue;
    lookupOf[i] = lookups->names.size();
    lookups->names.push_back(targets[i].name);
    lookups->services.push_back(std::to_string(targets[i].port));
  }
  lookups->codes.assign(lookups->names.size(), EAI_INPROGRESS);
  lookups->found.resize(lookups->names.size());
  const std::size_t helpers = std::min<std::size_t>(lookups->names.size(), 8);
  for (std::size_t h = 0; h < helpers; ++h) {
    try {
      std::thread([lookups] { lookUp(lookups); }).detach();
    } catch (const std::system_error&) {
      break;  // fewer helpers; with none every lookup stays undecided (Other)
    }
  }
  while (helpers > 0) {
    {
      std::lock_guard lock(lookups->mutex);
      if (lookups->done == lookups->names.size()) break;
    }
    if ((cancelled && cancelled()) || Clock::now() >= deadline) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  {
    std::lock_guard lock(lookups->mutex);
    for (std::size_t i = 0; i < targets.size(); ++i) {
      std::size_t k = lookupOf[i];
      if (k == SIZE_MAX) continue;
      if (lookups->codes[k] == EAI_NONAME) verdicts[i] = ZBLinkCheckProbeVerdict::NoSuchName;
      if (lookups->codes[k] == 0) addresses[i] = lookups->found[k];
    }
  }
  for (std::size_t i = 0; i < targets.size(); ++i) {
    if (targets[i].kind == ZBLinkCheckProbeKind::Refusal && verdicts[i] == ZBLinkCheckProbeVerdict::Other &&
        allRefuse(addresses[i], deadline, cancelled))
      verdicts[i] = ZBLinkCheckProbeVerdict::AllRefused;
  }
  return verdicts;
}
