#include "platform/pinboardkit/impl/ZBPinboardRateMemory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <sstream>

namespace {

// One line per (user, line): "user<TAB>line<TAB>seconds". Anything else is
// skipped, so a garbled file reads as one that remembers less.
std::map<std::pair<std::string, std::string>, double> parse(const std::string& text) {
  std::map<std::pair<std::string, std::string>, double> entries;
  std::istringstream in(text);
  std::string row;
  while (std::getline(in, row)) {
    const auto first = row.find('\t');
    const auto second = first == std::string::npos ? first : row.find('\t', first + 1);
    if (second == std::string::npos || first == 0) continue;
    try {
      std::size_t used = 0;
      const std::string number = row.substr(second + 1);
      const double at = std::stod(number, &used);
      if (used != number.size() || !std::isfinite(at)) continue;
      entries[{row.substr(0, first), row.substr(first + 1, second - first - 1)}] = at;
    } catch (const std::exception&) {
    }
  }
  return entries;
}

std::string format(const std::map<std::pair<std::string, std::string>, double>& entries) {
  std::ostringstream out;
  out.precision(17);
  for (const auto& [key, at] : entries) out << key.first << '\t' << key.second << '\t' << at << '\n';
  return out.str();
}

bool plainName(const std::string& name) {
  return !name.empty() && name.find_first_of("\t\n\r") == std::string::npos;
}

}  // namespace

ZBPinboardRateMemory::ZBPinboardRateMemory(std::filesystem::path file) : _file(std::move(file)) {}

template <class Change>
void ZBPinboardRateMemory::_locked(Change&& change) {
  const int fd = ::open(_file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    Entries none;
    change(none);
    return;
  }
  struct Close {
    int fd;
    ~Close() { ::close(fd); }  // also drops the lock
  } closer{fd};
  int locked;
  while ((locked = ::flock(fd, LOCK_EX)) != 0 && errno == EINTR) {
  }
  std::string text;
  if (locked == 0) {
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR))
      if (n > 0) text.append(buffer, static_cast<std::size_t>(n));
  }
  Entries entries = parse(text);
  if (!change(entries) || locked != 0) return;
  const std::string written = format(entries);
  if (::ftruncate(fd, 0) != 0) return;
  std::size_t done = 0;
  while (done < written.size()) {
    const ssize_t n = ::pwrite(fd, written.data() + done, written.size() - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

bool ZBPinboardRateMemory::claim(const std::string& user, const std::vector<Line>& lines, double now,
                                 double* readyAt, std::map<std::string, double>* before) {
  if (!plainName(user)) return true;
  bool claimed = false;
  _locked([&](Entries& entries) {
    double ready = now;
    for (const Line& line : lines) {
      auto it = entries.find({user, line.name});
      // A use "in the future" means the clock was set back: count it as now.
      if (it != entries.end()) ready = std::max(ready, std::min(it->second, now) + line.interval);
    }
    if (ready > now) {
      if (readyAt) *readyAt = ready;
      return false;
    }
    for (const Line& line : lines) {
      if (!plainName(line.name)) continue;
      auto [it, fresh] = entries.try_emplace({user, line.name}, now);
      if (before && !fresh) (*before)[line.name] = it->second;
      it->second = now;
    }
    claimed = true;
    return true;
  });
  return claimed;
}

void ZBPinboardRateMemory::record(const std::string& user, const std::vector<Line>& lines, double at) {
  if (!plainName(user)) return;
  _locked([&](Entries& entries) {
    bool changed = false;
    for (const Line& line : lines) {
      if (!plainName(line.name)) continue;
      auto [it, fresh] = entries.try_emplace({user, line.name}, at);
      if (fresh || it->second < at) {
        it->second = at;
        changed = true;
      }
    }
    return changed;
  });
}

void ZBPinboardRateMemory::release(const std::string& user, const std::vector<Line>& lines,
                                   const std::map<std::string, double>& before, double claimedAt) {
  if (!plainName(user)) return;
  _locked([&](Entries& entries) {
    bool changed = false;
    for (const Line& line : lines) {
      auto it = entries.find({user, line.name});
      if (it == entries.end() || it->second != claimedAt) continue;  // used again since
      auto old = before.find(line.name);
      if (old == before.end()) {
        entries.erase(it);
      } else {
        it->second = old->second;
      }
      changed = true;
    }
    return changed;
  });
}
