// The v1 API routes: posts, tags, notes and user.
#include <httplib.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>

#include "pinboard-sim/Simulator.h"

namespace pinboard_sim {

// Answers keep their keys in the order written, as the service sends them.
using OrderedJson = nlohmann::ordered_json;

namespace {

constexpr std::size_t kMaxTitle = 255;
constexpr std::size_t kMaxExtended = 65536;
constexpr std::size_t kMaxTags = 100;
constexpr std::size_t kMaxTag = 255;
constexpr std::size_t kMaxFilterTags = 3;
constexpr std::int64_t kFutureSlack = 600;  // a dt further ahead is replaced by now

// The service answers XML unless asked for JSON.
bool wantsXML(const httplib::Request& req) { return req.get_param_value("format") != "json"; }

std::string param(const httplib::Request& req, const char* name) { return req.get_param_value(name); }

std::string xmlEscape(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (char c : s) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out.push_back(c);
    }
  }
  return out;
}

std::string xmlDocument(const std::string& body) { return "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n" + body + "\n"; }

std::string xmlPost(const Bookmark& b) {
  return "<post href=\"" + xmlEscape(b.url) + "\" time=\"" + formatDateTime(b.time) + "\" description=\"" +
         xmlEscape(b.title) + "\" extended=\"" + xmlEscape(b.extended) + "\" tag=\"" + xmlEscape(b.tagString()) +
         "\" hash=\"" + b.hash + "\" meta=\"" + b.meta + "\" shared=\"" + (b.shared ? "yes" : "no") +
         "\" toread=\"" + (b.toread ? "yes" : "no") + "\" />";
}

// Safari's feed: addresses are stored as the http: ones they stand for
// ("feed://host/" and "feed:https://host/" alike).
std::string storedURL(std::string url) {
  if (url.size() < 5 || foldTag(url.substr(0, 5)) != "feed:") return url;
  std::string rest = url.substr(5);
  std::string folded = foldTag(rest.substr(0, 8));
  if (folded.rfind("http://", 0) == 0 || folded.rfind("https://", 0) == 0) return rest;
  return "http:" + rest;
}

bool validURL(std::string_view url) {
  std::size_t colon = url.find(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  std::string scheme = foldTag(url.substr(0, colon));
  static const std::set<std::string> allowed = {"http", "https", "javascript", "mailto", "ftp", "file", "feed"};
  if (!allowed.count(scheme)) return false;
  std::string_view rest = url.substr(colon + 1);
  if (scheme == "http" || scheme == "https" || scheme == "ftp" || scheme == "feed")
    return rest.size() > 2 && rest.substr(0, 2) == "//" && rest[2] != '/';
  return !rest.empty();
}

std::vector<std::string> filterTags(const httplib::Request& req) {
  std::vector<std::string> tags = splitTags(param(req, "tag"));
  if (tags.size() > kMaxFilterTags) tags.resize(kMaxFilterTags);
  return tags;
}

bool matchesAll(const Bookmark& b, const std::vector<std::string>& tags) {
  return std::all_of(tags.begin(), tags.end(), [&](const std::string& t) { return hasTag(b, t); });
}

std::string joined(const std::vector<std::string>& tags, char separator) {
  std::string s;
  for (const auto& t : tags) {
    if (!s.empty()) s += separator;
    s += t;
  }
  return s;
}

// The "date" of a post envelope: the first post listed; without one, the
// user's latest bookmark, else the update time.
std::int64_t envelopeDate(const Account& a, const std::vector<const Bookmark*>& posts) {
  if (!posts.empty()) return posts.front()->time;
  const auto& sorted = a.sorted();
  return sorted.empty() ? a.updateTime : sorted.front()->time;
}

// A date argument: absent, or parsed; a malformed one is refused, never
// taken as "no limit".
struct DateArgument {
  std::optional<std::int64_t> value;
  bool malformed = false;
};

DateArgument dateArgument(const httplib::Request& req, const char* name, bool allowDateOnly) {
  if (!req.has_param(name)) return {};
  std::optional<std::int64_t> t = parseDateTime(param(req, name), allowDateOnly);
  return {t, !t};
}

}  // namespace

Simulator::Reply Simulator::_api(const std::string& method, const httplib::Request& req, Account& a) {
  if (method == "posts/update") {
    if (wantsXML(req))
      return {200, xmlDocument("<update time=\"" + formatDateTime(a.updateTime) + "\" />"), "text/xml; charset=utf-8"};
    return _postsUpdate(a);
  }
  if (method == "posts/add") return _postsAdd(req, a);
  if (method == "posts/delete") return _postsDelete(req, a);
  if (method == "posts/get") return _postsGet(req, a);
  if (method == "posts/recent") return _postsRecent(req, a);
  if (method == "posts/dates") return _postsDates(req, a);
  if (method == "posts/all") return _postsAll(req, a);
  if (method == "posts/suggest") return _postsSuggest(req, a);
  if (method == "tags/get") {
    if (wantsXML(req)) {
      std::map<std::string, int> counts;
      for (const auto& [url, b] : a.bookmarks)
        for (const auto& t : b.tags) ++counts[t];
      std::string s = "<tags>\n";
      for (const auto& [t, n] : counts) s += "  <tag count=\"" + std::to_string(n) + "\" tag=\"" + xmlEscape(t) + "\" />\n";
      return {200, xmlDocument(s + "</tags>"), "text/xml; charset=utf-8"};
    }
    return _tagsGet(a);
  }
  if (method == "tags/delete" || method == "tags/rename") {
    Reply reply = method == "tags/delete" ? _tagsDelete(req, a) : _tagsRename(req, a);
    if (wantsXML(req)) {
      // The JSON answer is {"result":"…"}; XML carries the same text.
      OrderedJson parsed = OrderedJson::parse(reply.body, nullptr, false);
      std::string text = parsed.is_object() ? parsed.value("result", "") : "";
      return {200, xmlDocument("<result>" + xmlEscape(text) + "</result>"), "text/xml; charset=utf-8"};
    }
    return reply;
  }
  if (method == "user/api_token" || method == "user/secret") {
    const std::string& value = method == "user/api_token" ? a.token : a.rssKey;
    if (wantsXML(req)) return {200, xmlDocument("<result>" + xmlEscape(value) + "</result>"), "text/xml; charset=utf-8"};
    return _resultCode(value, "result");
  }
  if (method == "notes/list") return _notesList(a);
  if (method.rfind("notes/", 0) == 0) return _note(method.substr(6), a);
  return {404, "Not Found", "text/plain; charset=utf-8"};
}

Simulator::Reply Simulator::_json(const OrderedJson& value) const {
  return {200, frame(dump(value, _quirks), _quirks), {}};
}

Simulator::Reply Simulator::_failure(const httplib::Request& req) const {
  if (wantsXML(req)) return {200, xmlDocument("<result code=\"something went wrong\" />"), "text/xml; charset=utf-8"};
  return _resultCode("something went wrong");
}

Simulator::Reply Simulator::_resultCode(const std::string& text, const char* key) const {
  return _json(OrderedJson{{key, text}});
}

Simulator::Reply Simulator::_postsUpdate(const Account& a) { return _json(OrderedJson{{"update_time", formatDateTime(a.updateTime)}}); }

Simulator::Reply Simulator::_postsAdd(const httplib::Request& req, Account& a) {
  const bool xml = wantsXML(req);
  auto result = [&](const std::string& code) -> Reply {
    _mutex.assertHeld();  // called below, under the lock this route runs with
    if (xml) return {200, xmlDocument("<result code=\"" + xmlEscape(code) + "\" />"), "text/xml; charset=utf-8"};
    return _resultCode(code);
  };
  const std::int64_t now = static_cast<std::int64_t>(_now());
  // Stored as answered later: well-formed UTF-8, feed: as http:, so that
  // sending back what was read changes nothing.
  std::string url = storedURL(wellFormedUTF8(param(req, "url")));
  if (url.empty() || !validURL(url)) return result("missing url");
  std::string title = wellFormedUTF8(param(req, "description"));
  if (title.empty()) return result("missing description");
  std::string extended = wellFormedUTF8(param(req, "extended"));
  std::vector<std::string> tags;
  for (auto& t : splitTags(wellFormedUTF8(param(req, "tags")))) {
    // One tag in two cases cannot be stored: the first spelling wins.
    bool seen = std::any_of(tags.begin(), tags.end(), [&](const std::string& u) { return foldTag(u) == foldTag(t); });
    if (!seen) tags.push_back(std::move(t));
  }
  bool overlong = characterCount(title) > kMaxTitle || characterCount(extended) > kMaxExtended || tags.size() > kMaxTags ||
                  std::any_of(tags.begin(), tags.end(), [](const std::string& t) { return characterCount(t) > kMaxTag; });
  if (overlong && !_quirks.truncateOverlong) return result("something went wrong");
  if (overlong) {
    title = firstCharacters(title, kMaxTitle);
    extended = firstCharacters(extended, kMaxExtended);
    if (tags.size() > kMaxTags) tags.resize(kMaxTags);
    for (auto& t : tags) t = firstCharacters(t, kMaxTag);
  }
  std::optional<std::int64_t> dt;
  if (req.has_param("dt")) {
    // An empty dt= means now (and resets the time of a replaced bookmark).
    dt = param(req, "dt").empty() ? std::optional<std::int64_t>(now) : parseDateTime(param(req, "dt"));
    if (!dt) return result("something went wrong");
    if (*dt > now + kFutureSlack) dt = now;
  }
  auto existing = a.bookmarks.find(url);
  if (existing != a.bookmarks.end() && param(req, "replace") == "no") return result("item already exists");

  Bookmark b;
  b.url = url;
  b.title = std::move(title);
  b.extended = std::move(extended);
  b.tags = std::move(tags);
  std::string shared = param(req, "shared"), toread = param(req, "toread");
  b.shared = shared == "yes" ? true : shared == "no" ? false : !a.saveAllPrivate;
  b.toread = toread == "yes";
  // Replacing overwrites every field the caller sends and drops what it leaves
  // out; the website's own marks (star, source, others) stay with the URL.
  if (dt) b.time = *dt;
  else if (existing != a.bookmarks.end() && _quirks.keepTimeOnReplace) b.time = existing->second.time;
  else b.time = now;
  if (existing != a.bookmarks.end()) {
    b.starred = existing->second.starred;
    b.source = existing->second.source;
    b.others = existing->second.others;
  }
  b.refresh();
  _written(b, existing != a.bookmarks.end() ? &existing->second : nullptr);
  a.bookmarks[url] = std::move(b);
  _changed(a);
  return result("done");
}

Simulator::Reply Simulator::_postsDelete(const httplib::Request& req, Account& a) {
  auto it = a.bookmarks.find(param(req, "url"));
  std::string code = "item not found";
  if (it != a.bookmarks.end()) {
    a.bookmarks.erase(it);
    _changed(a);
    code = "done";
  }
  if (wantsXML(req)) return {200, xmlDocument("<result code=\"" + code + "\" />"), "text/xml; charset=utf-8"};
  return _resultCode(code);
}

// Builds {"date","user","posts":[…]} with the posts written by the fast writer.
static std::string envelope(const Account& a, std::int64_t date, const std::vector<const Bookmark*>& posts,
                            const Quirks& quirks) {
  std::string s = "{\"date\":\"" + formatDateTime(date) + "\",\"user\":";
  appendJSONString(s, a.username, quirks);
  s += ",\"posts\":";
  s += postsArray(posts, quirks);
  s += '}';
  return s;
}

static std::string xmlPosts(const Account& a, std::int64_t date, const std::vector<const Bookmark*>& posts) {
  std::string s = "<posts user=\"" + xmlEscape(a.username) + "\" dt=\"" + formatDateTime(date) + "\">\n";
  for (const Bookmark* b : posts) s += "  " + xmlPost(*b) + "\n";
  return xmlDocument(s + "</posts>");
}

Simulator::Reply Simulator::_postsGet(const httplib::Request& req, const Account& a) {
  std::vector<std::string> tags = filterTags(req);
  std::vector<const Bookmark*> posts;
  if (req.has_param("url")) {
    auto it = a.bookmarks.find(param(req, "url"));
    if (it != a.bookmarks.end() && matchesAll(it->second, tags)) posts.push_back(&it->second);
  } else {
    DateArgument dt = dateArgument(req, "dt", true);
    if (dt.malformed) return _failure(req);
    std::optional<std::int64_t> day = dt.value;
    if (!day) {
      for (const Bookmark* b : a.sorted())
        if (matchesAll(*b, tags)) {
          day = b->time;
          break;
        }
    }
    if (day) {
      std::int64_t start = *day - ((*day % 86400) + 86400) % 86400;
      for (const Bookmark* b : a.sorted())
        if (b->time >= start && b->time < start + 86400 && matchesAll(*b, tags)) posts.push_back(b);
    }
  }
  const std::int64_t date = envelopeDate(a, posts);
  if (wantsXML(req)) return {200, xmlPosts(a, date, posts), "text/xml; charset=utf-8"};
  return {200, frame(envelope(a, date, posts, _quirks), _quirks), {}};
}

Simulator::Reply Simulator::_postsRecent(const httplib::Request& req, const Account& a) {
  std::vector<std::string> tags = filterTags(req);
  int count = 15;
  if (req.has_param("count")) {
    try {
      count = std::clamp(std::stoi(param(req, "count")), 0, 100);
    } catch (const std::exception&) {
      count = 15;
    }
  }
  std::vector<const Bookmark*> posts;
  for (const Bookmark* b : a.sorted()) {
    if (static_cast<int>(posts.size()) >= count) break;
    if (matchesAll(*b, tags)) posts.push_back(b);
  }
  const std::int64_t date = envelopeDate(a, posts);
  if (wantsXML(req)) return {200, xmlPosts(a, date, posts), "text/xml; charset=utf-8"};
  return {200, frame(envelope(a, date, posts, _quirks), _quirks), {}};
}

Simulator::Reply Simulator::_postsDates(const httplib::Request& req, const Account& a) {
  std::vector<std::string> tags = filterTags(req);
  std::map<std::string, int, std::greater<>> counts;  // newest day first
  for (const Bookmark* b : a.sorted())
    if (matchesAll(*b, tags)) ++counts[formatDate(b->time)];
  if (wantsXML(req)) {
    std::string s = "<dates user=\"" + xmlEscape(a.username) + "\" tag=\"" + xmlEscape(joined(tags, '+')) + "\">\n";
    for (const auto& [d, n] : counts) s += "  <date date=\"" + d + "\" count=\"" + std::to_string(n) + "\" />\n";
    return {200, xmlDocument(s + "</dates>"), "text/xml; charset=utf-8"};
  }
  OrderedJson dates = OrderedJson::object();  // newest day first, as counted
  for (const auto& [d, n] : counts) dates[d] = _quirks.stringCounts ? OrderedJson(std::to_string(n)) : OrderedJson(n);
  if (dates.empty() && _quirks.emptyMapAsArray) dates = OrderedJson::array();
  return _json(OrderedJson{{"user", a.username}, {"tag", joined(tags, '+')}, {"dates", dates}});
}

Simulator::Reply Simulator::_postsAll(const httplib::Request& req, Account& a) {
  std::vector<std::string> tags = filterTags(req);
  DateArgument fromArgument = dateArgument(req, "fromdt", false), toArgument = dateArgument(req, "todt", false);
  if (fromArgument.malformed || toArgument.malformed) return _failure(req);
  const std::optional<std::int64_t> from = fromArgument.value, to = toArgument.value;
  // Created after fromdt and before todt; the ends themselves only with the quirk.
  const bool inclusive = _quirks.inclusiveDateRange;
  auto outside = [&](std::int64_t t) {
    if (from && (inclusive ? t < *from : t <= *from)) return true;
    return to && (inclusive ? t > *to : t >= *to);
  };
  std::size_t start = 0, results = SIZE_MAX;
  try {
    if (req.has_param("start")) start = std::stoul(param(req, "start"));
    if (req.has_param("results")) results = std::stoul(param(req, "results"));
  } catch (const std::exception&) {
  }
  const bool xml = wantsXML(req);
  const bool unfiltered = tags.empty() && !from && !to && start == 0 && results == SIZE_MAX && !xml;
  if (unfiltered) {
    // The full list is the one large answer: build it once per change.
    auto& cached = _fullListCache[a.username];
    if (!cached.second || cached.first != a.version)
      cached = {a.version, std::make_shared<const std::string>(frame(postsArray(a.sorted(), _quirks), _quirks, "\t"))};
    Reply reply;
    reply.shared = cached.second;
    return reply;
  }
  std::vector<const Bookmark*> posts;
  std::size_t skipped = 0;
  for (const Bookmark* b : a.sorted()) {
    if (posts.size() >= results) break;
    if (outside(b->time)) continue;
    if (!matchesAll(*b, tags)) continue;
    if (skipped < start) {
      ++skipped;
      continue;
    }
    posts.push_back(b);
  }
  if (xml) return {200, xmlPosts(a, envelopeDate(a, {}), posts), "text/xml; charset=utf-8"};
  return {200, frame(postsArray(posts, _quirks), _quirks, "\t"), {}};
}

Simulator::Reply Simulator::_postsSuggest(const httplib::Request& req, const Account& a) {
  std::string url = param(req, "url");
  if (url.empty()) return _resultCode("missing url");
  std::vector<std::string> popular;
  if (auto it = _popularTags.find(url); it != _popularTags.end()) {
    popular = it->second;
  } else {
    // What other users tagged the URL with, most used first.
    std::map<std::string, int> uses;
    for (const auto& [name, other] : _accounts) {
      if (name == a.username) continue;
      auto b = other.bookmarks.find(url);
      if (b != other.bookmarks.end() && b->second.shared)
        for (const auto& t : b->second.tags)
          if (t.empty() || t[0] != '.') ++uses[t];
    }
    std::vector<std::pair<std::string, int>> ranked(uses.begin(), uses.end());
    std::stable_sort(ranked.begin(), ranked.end(), [](auto& x, auto& y) { return x.second > y.second; });
    for (std::size_t i = 0; i < ranked.size() && i < 10; ++i) popular.push_back(ranked[i].first);
  }
  // Recommended: the user's own tags for the URL, then their tags that occur in
  // the URL, most used first.
  std::vector<std::string> recommended;
  if (auto b = a.bookmarks.find(url); b != a.bookmarks.end()) recommended = b->second.tags;
  std::map<std::string, int> own;
  for (const auto& [u, b] : a.bookmarks)
    for (const auto& t : b.tags) ++own[t];
  std::vector<std::pair<std::string, int>> ranked(own.begin(), own.end());
  std::stable_sort(ranked.begin(), ranked.end(), [](auto& x, auto& y) { return x.second > y.second; });
  std::string foldedURL = foldTag(url);
  for (const auto& [t, n] : ranked) {
    if (recommended.size() >= 10) break;
    if (t.size() >= 3 && foldedURL.find(foldTag(t)) != std::string::npos &&
        std::find(recommended.begin(), recommended.end(), t) == recommended.end())
      recommended.push_back(t);
  }
  if (wantsXML(req)) {
    std::string s = "<suggested>\n";
    for (const auto& t : popular) s += "  <popular>" + xmlEscape(t) + "</popular>\n";
    for (const auto& t : recommended) s += "  <recommended>" + xmlEscape(t) + "</recommended>\n";
    return {200, xmlDocument(s + "</suggested>"), "text/xml; charset=utf-8"};
  }
  return _json(OrderedJson::array({OrderedJson{{"popular", popular}}, OrderedJson{{"recommended", recommended}}}));
}

Simulator::Reply Simulator::_tagsGet(const Account& a) {
  // Ordered as a case-insensitive database collation orders them: compared
  // upper-cased, so '_' sorts after the letters.
  auto collate = [](const std::string& x, const std::string& y) {
    auto upper = [](std::string s) {
      for (char& c : s)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
      return s;
    };
    std::string ux = upper(x), uy = upper(y);
    return ux != uy ? ux < uy : x < y;
  };
  std::map<std::string, int, decltype(collate)> counts(collate);
  for (const auto& [url, b] : a.bookmarks)
    for (const auto& t : b.tags) ++counts[t];
  OrderedJson out = OrderedJson::object();
  for (const auto& [t, n] : counts) out[t] = _quirks.stringCounts ? OrderedJson(std::to_string(n)) : OrderedJson(n);
  if (out.empty() && _quirks.emptyMapAsArray) out = OrderedJson::array();
  return _json(out);
}

Simulator::Reply Simulator::_tagsDelete(const httplib::Request& req, Account& a) {
  std::string tag = foldTag(param(req, "tag"));
  bool changed = false;
  if (!tag.empty()) {
    for (auto& [url, b] : a.bookmarks) {
      if (!hasTag(b, tag)) continue;
      Bookmark before = b;
      b.tags.erase(std::remove_if(b.tags.begin(), b.tags.end(), [&](const std::string& t) { return foldTag(t) == tag; }),
                   b.tags.end());
      b.refresh();
      _written(b, &before);
      changed = true;
    }
  }
  if (changed) _changed(a);
  return _resultCode("done", "result");
}

Simulator::Reply Simulator::_tagsRename(const httplib::Request& req, Account& a) {
  std::string old = foldTag(param(req, "old"));
  std::string renamed = param(req, "new");
  std::vector<std::string> pieces = splitTags(renamed);
  if (pieces.empty()) return _resultCode("rename to null", "result");
  renamed = pieces.front();
  bool changed = false;
  if (!old.empty()) {
    for (auto& [url, b] : a.bookmarks) {
      auto it = std::find_if(b.tags.begin(), b.tags.end(), [&](const std::string& t) { return foldTag(t) == old; });
      if (it == b.tags.end()) continue;
      Bookmark before = b;
      // Renaming onto a tag the bookmark already has folds the two together.
      bool present = std::any_of(b.tags.begin(), b.tags.end(), [&](const std::string& t) {
        return &t != &*it && foldTag(t) == foldTag(renamed);
      });
      if (present) b.tags.erase(it);
      else *it = renamed;
      b.refresh();
      _written(b, &before);
      changed = true;
    }
  }
  if (changed) _changed(a);
  return _resultCode("done", "result");
}

Simulator::Reply Simulator::_notesList(const Account& a) {
  OrderedJson notes = OrderedJson::array();
  for (const Note& n : a.notes) {
    notes.push_back({{"id", n.id},
                     {"hash", n.hash()},
                     {"title", n.title},
                     {"length", _quirks.stringCounts ? OrderedJson(std::to_string(n.length())) : OrderedJson(n.length())},
                     {"created_at", formatNoteTime(n.created)},
                     {"updated_at", formatNoteTime(n.updated)}});
  }
  return _json(OrderedJson{{"count", a.notes.size()}, {"notes", notes}});
}

Simulator::Reply Simulator::_note(const std::string& id, const Account& a) {
  for (const Note& n : a.notes) {
    if (n.id != id) continue;
    return _json(OrderedJson{{"id", n.id},
                      {"title", n.title},
                      {"created_at", formatNoteTime(n.created)},
                      {"updated_at", formatNoteTime(n.updated)},
                      {"length", n.length()},
                      {"text", n.text},
                      {"hash", n.hash()}});
  }
  return {404, "Not Found", "text/plain; charset=utf-8"};
}

}  // namespace pinboard_sim
