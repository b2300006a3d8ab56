// The simulated accounts: seeding, inspection, and the switches that shape
// the answers (faults, rate limits, quirks, the clock).
#include "pinboard-sim/Simulator.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>

namespace pinboard_sim {

double Simulator::_now() const {
  if (_clock) return _clock();
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
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

void Simulator::_changed(Account& a) {
  a.touch(static_cast<std::int64_t>(std::floor(_now())));
  ++_stateVersion;
}

void Simulator::_written(Bookmark& b, const Bookmark* before) {
  if (_feedWindow.lag <= 0) return;
  b.feedVisibleAt = _now() + _feedWindow.lag;
  b.feedPrevious.reset();
  if (!before) return;
  if (before->feedVisibleAt > _now()) {
    // Several writes within the lag: feeds keep the version they last showed.
    b.feedPrevious = before->feedPrevious;
  } else {
    auto shown = std::make_shared<Bookmark>(*before);
    shown->feedPrevious.reset();
    b.feedPrevious = std::move(shown);
  }
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
  ZBMutexLock hold(_mutex);
  Account& a = _insertAccount(seed);
  return a.username + ":" + a.token;
}

bool Simulator::addBookmark(const std::string& user, Bookmark bookmark) {
  ZBMutexLock hold(_mutex);
  Account* a = _account(user);
  if (!a) return false;
  bookmark.refresh();
  a->bookmarks[bookmark.url] = std::move(bookmark);
  _changed(*a);
  return true;
}

bool Simulator::generateBookmarks(const std::string& user, std::size_t count, const GeneratorOptions& options) {
  std::vector<Bookmark> generated = pinboard_sim::generateBookmarks(user, count, options);
  ZBMutexLock hold(_mutex);
  Account* a = _account(user);
  if (!a) return false;
  a->bookmarks.reserve(a->bookmarks.size() + generated.size());
  for (Bookmark& b : generated) {
    std::string url = b.url;
    a->bookmarks[url] = std::move(b);
  }
  _changed(*a);
  return true;
}

bool Simulator::addNote(const std::string& user, const std::string& title, const std::string& text,
                        std::int64_t created, std::int64_t updated) {
  ZBMutexLock hold(_mutex);
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
  ZBMutexLock hold(_mutex);
  Account* a = _account(user);
  if (!a) return false;
  a->network = std::move(others);
  ++_stateVersion;
  return true;
}

bool Simulator::_changeBookmark(const std::string& user, const std::string& url,
                                const std::function<void(Bookmark&)>& change) {
  ZBMutexLock hold(_mutex);
  Account* a = _account(user);
  if (!a) return false;
  auto it = a->bookmarks.find(url);
  if (it == a->bookmarks.end()) return false;
  change(it->second);
  _changed(*a);
  return true;
}

bool Simulator::setStarred(const std::string& user, const std::string& url, bool starred) {
  return _changeBookmark(user, url, [starred](Bookmark& b) { b.starred = starred; });
}

bool Simulator::setSource(const std::string& user, const std::string& url, const std::string& source) {
  return _changeBookmark(user, url, [&source](Bookmark& b) { b.source = source; });
}

void Simulator::setPopularTags(const std::string& url, std::vector<std::string> tags) {
  ZBMutexLock hold(_mutex);
  _popularTags[url] = std::move(tags);
  ++_stateVersion;
}

std::uint64_t Simulator::stateVersion() const {
  ZBMutexLock hold(_mutex);
  return _stateVersion;
}

// ---- Inspection ----

std::optional<Bookmark> Simulator::bookmark(const std::string& user, const std::string& url) const {
  ZBMutexLock hold(_mutex);
  const Account* a = _account(user);
  if (!a) return std::nullopt;
  auto it = a->bookmarks.find(url);
  if (it == a->bookmarks.end()) return std::nullopt;
  return it->second;
}

std::vector<Bookmark> Simulator::bookmarks(const std::string& user) const {
  ZBMutexLock hold(_mutex);
  std::vector<Bookmark> out;
  if (const Account* a = _account(user))
    for (const Bookmark* b : a->sorted()) out.push_back(*b);
  return out;
}

std::size_t Simulator::bookmarkCount(const std::string& user) const {
  ZBMutexLock hold(_mutex);
  const Account* a = _account(user);
  return a ? a->bookmarks.size() : 0;
}

std::int64_t Simulator::updateTime(const std::string& user) const {
  ZBMutexLock hold(_mutex);
  const Account* a = _account(user);
  return a ? a->updateTime : 0;
}

std::map<std::string, int> Simulator::tagCounts(const std::string& user) const {
  ZBMutexLock hold(_mutex);
  std::map<std::string, int> counts;
  if (const Account* a = _account(user))
    for (const auto& [url, b] : a->bookmarks)
      for (const auto& t : b.tags) ++counts[t];
  return counts;
}

std::string Simulator::token(const std::string& user) const {
  ZBMutexLock hold(_mutex);
  const Account* a = _account(user);
  return a ? a->username + ":" + a->token : std::string();
}

std::string Simulator::rssKey(const std::string& user) const {
  ZBMutexLock hold(_mutex);
  const Account* a = _account(user);
  return a ? a->rssKey : std::string();
}

std::vector<RequestRecord> Simulator::requestLog() const {
  ZBMutexLock hold(_mutex);
  return _requests;
}

void Simulator::clearRequestLog() {
  ZBMutexLock hold(_mutex);
  _requests.clear();
}

std::size_t Simulator::requestCount(const std::string& path) const {
  ZBMutexLock hold(_mutex);
  Fault matcher;
  matcher.path = path;
  std::size_t n = 0;
  for (const auto& r : _requests)
    if (matcher.matches(r.path)) ++n;
  return n;
}

std::size_t Simulator::rateLimitViolations(const std::string& user) const {
  ZBMutexLock hold(_mutex);
  auto it = _violations.find(user);
  return it == _violations.end() ? 0 : it->second;
}

std::size_t Simulator::rateLimitViolations() const {
  ZBMutexLock hold(_mutex);
  std::size_t n = 0;
  for (const auto& [user, count] : _violations) n += count;
  return n;
}

// ---- Behaviour ----

void Simulator::addFault(Fault fault) {
  ZBMutexLock hold(_mutex);
  _faults.push_back(std::move(fault));
}

void Simulator::clearFaults() {
  ZBMutexLock hold(_mutex);
  _faults.clear();
}

std::size_t Simulator::faultsTaken() const {
  ZBMutexLock hold(_mutex);
  return _faultsTaken;
}

void Simulator::setRateLimits(RateLimits limits) {
  ZBMutexLock hold(_mutex);
  _rateLimits = limits;
  _lastCall.clear();
}

void Simulator::setQuirks(Quirks quirks) {
  ZBMutexLock hold(_mutex);
  _quirks = quirks;
  _fullListCache.clear();
}

void Simulator::setFeedWindow(FeedWindow window) {
  ZBMutexLock hold(_mutex);
  _feedWindow = window;
}

Quirks Simulator::quirks() const {
  ZBMutexLock hold(_mutex);
  return _quirks;
}

void Simulator::setClock(std::function<double()> clock) {
  ZBMutexLock hold(_mutex);
  _clock = std::move(clock);
}

}  // namespace pinboard_sim
