// The JSON feeds: /json/popular/, /json/recent/, /json/u:USER/…, /json/t:TAG/…
// and the secret feeds /json/secret:KEY/u:USER/{private,toread,starred,network,…}.
#include <httplib.h>

#include <algorithm>
#include <unordered_map>

#include "pinboard-sim/Simulator.h"

namespace pinboard_sim {

namespace {

struct FeedItem {
  const Bookmark* bookmark;
  const std::string* author;
};

std::string hostOf(std::string_view url) {
  std::size_t start = url.find("://");
  if (start == std::string_view::npos) return {};
  start += 3;
  std::size_t end = url.find_first_of("/:?#", start);
  return foldTag(url.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
}

bool endsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

// Kana or CJK ideographs in the title.
bool looksJapanese(std::string_view text) {
  for (std::size_t i = 0; i + 2 < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if ((c & 0xf0) != 0xe0) continue;
    unsigned code = ((c & 0x0f) << 12) | ((static_cast<unsigned char>(text[i + 1]) & 0x3f) << 6) |
                    (static_cast<unsigned char>(text[i + 2]) & 0x3f);
    if ((code >= 0x3040 && code <= 0x30ff) || (code >= 0x4e00 && code <= 0x9fff)) return true;
  }
  return false;
}

// What feeds show of b at now: b itself, or while an API write is still
// lagging, the version before it (nothing for a new bookmark).
const Bookmark* shown(const Bookmark& b, double now) {
  return b.feedVisibleAt <= now ? &b : b.feedPrevious.get();
}

bool newestFirst(const FeedItem& x, const FeedItem& y) {
  if (x.bookmark->time != y.bookmark->time) return x.bookmark->time > y.bookmark->time;
  if (*x.author != *y.author) return *x.author < *y.author;
  return x.bookmark->url < y.bookmark->url;
}

}  // namespace

Simulator::Reply Simulator::_feed(const std::string& fullPath, const httplib::Request& req) {
  const Reply notFound{404, "Not Found", "text/plain; charset=utf-8"};
  const Reply forbidden{401, "Forbidden", "text/plain; charset=utf-8"};
  std::string_view path(fullPath);
  path.remove_prefix(6);  // "/json/"
  if (path.substr(0, 3) == "v1/") path.remove_prefix(3);
  std::vector<std::string> segments;
  while (!path.empty()) {
    std::size_t slash = path.find('/');
    std::string_view seg = path.substr(0, slash);
    if (!seg.empty()) segments.emplace_back(seg);
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
  }
  if (segments.empty()) return notFound;
  const double now = _now();

  std::vector<FeedItem> items;
  std::size_t i = 0;
  const Account* user = nullptr;
  bool secret = false;
  if (segments[0] == "popular") {
    std::string category = segments.size() > 1 ? segments[1] : "";
    if (segments.size() > 2 || (!category.empty() && category != "wikipedia" && category != "fandom" &&
                                category != "japanese"))
      return notFound;
    // One item per URL, by how many users saved it publicly; the first saver
    // stands as the author.
    std::unordered_map<std::string, std::pair<int, FeedItem>> byURL;
    for (const auto& [name, a] : _accounts) {
      for (const auto& [url, stored] : a.bookmarks) {
        const Bookmark* b = shown(stored, now);
        if (!b || !b->shared) continue;
        auto [it, inserted] = byURL.try_emplace(url, 0, FeedItem{b, &a.username});
        ++it->second.first;
        if (!inserted && b->time < it->second.second.bookmark->time) it->second.second = FeedItem{b, &a.username};
      }
    }
    std::vector<std::pair<int, FeedItem>> ranked;
    for (auto& [url, entry] : byURL) {
      const Bookmark& b = *entry.second.bookmark;
      std::string host = hostOf(b.url);
      if (category == "wikipedia" && !endsWith(host, "wikipedia.org")) continue;
      if (category == "fandom" && !endsWith(host, "fandom.com")) continue;
      if (category == "japanese" && !looksJapanese(b.title)) continue;
      ranked.push_back(entry);
    }
    std::sort(ranked.begin(), ranked.end(), [](const auto& x, const auto& y) {
      if (x.first != y.first) return x.first > y.first;
      return newestFirst(x.second, y.second);
    });
    for (auto& [n, item] : ranked) items.push_back(item);
  } else if (segments[0] == "recent") {
    if (segments.size() > 1) return notFound;
    for (const auto& [name, a] : _accounts)
      for (const auto& [url, stored] : a.bookmarks)
        if (const Bookmark* b = shown(stored, now); b && b->shared) items.push_back({b, &a.username});
    std::sort(items.begin(), items.end(), newestFirst);
  } else {
    if (segments[i].rfind("secret:", 0) == 0) {
      std::string key = segments[i].substr(7);
      ++i;
      if (i >= segments.size() || segments[i].rfind("u:", 0) != 0) return notFound;
      user = _account(segments[i].substr(2));
      if (!user || user->rssKey != key) return forbidden;
      secret = true;
      ++i;
    } else if (segments[i].rfind("u:", 0) == 0) {
      user = _account(segments[i].substr(2));
      if (!user) return notFound;
      ++i;
    }
    std::vector<std::string> tags;
    std::string source;
    enum class View { All, Public, Private, ToRead, Starred, Network } view = View::All;
    for (; i < segments.size(); ++i) {
      const std::string& s = segments[i];
      if (s.rfind("t:", 0) == 0 && s.size() > 2) tags.push_back(s.substr(2));
      else if (s.rfind("from:", 0) == 0 && user) source = s.substr(5);
      else if (s == "public" && user) view = View::Public;
      else if (s == "private" && secret) view = View::Private;
      else if ((s == "toread" || s == "unread") && secret) view = View::ToRead;
      else if (s == "starred" && secret) view = View::Starred;
      else if (s == "network" && secret) view = View::Network;
      else if (!secret && (s == "private" || s == "toread" || s == "starred" || s == "network")) return forbidden;
      else return notFound;
    }
    if (!user && tags.empty()) return notFound;
    auto accept = [&](const Bookmark* shownBookmark, bool own) {
      if (!shownBookmark) return false;
      const Bookmark& b = *shownBookmark;
      if (!b.shared && !(secret && own)) return false;
      if (view == View::Public && !b.shared) return false;
      if (view == View::Private && b.shared) return false;
      if (view == View::ToRead && !b.toread) return false;
      if (view == View::Starred && !b.starred) return false;
      if (!source.empty() && b.source != source) return false;
      return std::all_of(tags.begin(), tags.end(), [&](const std::string& t) { return hasTag(b, t); });
    };
    if (view == View::Network) {
      for (const std::string& other : user->network)
        if (const Account* o = _account(other))
          for (const auto& [url, b] : o->bookmarks)
            if (accept(shown(b, now), false)) items.push_back({shown(b, now), &o->username});
    } else if (user) {
      for (const auto& [url, b] : user->bookmarks)
        if (accept(shown(b, now), true)) items.push_back({shown(b, now), &user->username});
    } else {
      for (const auto& [name, a] : _accounts)
        for (const auto& [url, b] : a.bookmarks)
          if (accept(shown(b, now), false)) items.push_back({shown(b, now), &a.username});
    }
    std::sort(items.begin(), items.end(), newestFirst);
  }

  // A window onto the newest items, never the whole list.
  int count = _feedWindow.defaultCount;
  if (req.has_param("count")) {
    try {
      count = std::stoi(req.get_param_value("count"));
    } catch (const std::exception&) {
    }
  }
  count = std::clamp(count, 0, std::max(0, _feedWindow.maxCount));
  if (items.size() > static_cast<std::size_t>(count)) items.resize(static_cast<std::size_t>(count));

  std::string body = "[";
  for (std::size_t k = 0; k < items.size(); ++k) {
    if (k) body += ',';
    bool own = secret && items[k].author == &user->username;
    appendFeedItem(body, *items[k].bookmark, *items[k].author, own, _quirks);
  }
  body += ']';
  if (req.has_param("cb")) body = req.get_param_value("cb") + "(" + body + ")";
  return {200, frame(std::move(body), _quirks, "\n"), {}};
}

}  // namespace pinboard_sim
