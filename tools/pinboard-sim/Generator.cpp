#include "pinboard-sim/Generator.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <unordered_set>

namespace pinboard_sim {

namespace {

// splitmix64: small, fast and the same everywhere.
class Random {
public:
  explicit Random(std::uint64_t seed) : _state(seed) {}
  std::uint64_t next() {
    std::uint64_t z = (_state += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
  }
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  std::size_t below(std::size_t n) { return static_cast<std::size_t>(next() % n); }
  bool chance(double p) { return uniform() < p; }
  template <class T>
  const T& pick(const std::vector<T>& v) { return v[below(v.size())]; }

private:
  std::uint64_t _state;
};

const std::vector<std::string>& words() {
  static const std::vector<std::string> w = {
      "apple", "river", "network", "python", "design", "garden", "history", "music", "kernel", "coffee",
      "travel", "recipe", "science", "climate", "startup", "privacy", "typography", "linux", "database",
      "history", "photography", "economics", "poetry", "security", "compiler", "bicycle", "ocean", "mountain",
      "archive", "library", "browser", "protocol", "language", "podcast", "journal", "essay", "interview",
      "tutorial", "review", "analysis", "guide", "notes", "lecture", "paper", "dataset", "video", "map",
      "energy", "health", "sleep", "memory", "cinema", "theatre", "painting", "architecture", "urbanism",
      "rust", "swift", "haskell", "javascript", "css", "html", "unicode", "emoji", "keyboard", "terminal"};
  return w;
}

// Titles and tags that exercise escaping and Unicode handling.
const std::vector<std::string>& nonASCIITitles() {
  static const std::vector<std::string> t = {
      "Über die Kunst des Programmierens", "日本語の記事：東京の歴史", "Café naïve — résumé", "Ελληνική γλώσσα",
      "Русский текст о погоде", "정보통신 기술 동향", "Ñandú y pingüino", "Emoji ✔ and ® signs 🎉",
      "Zürich → Genève", "“Quoted” and ‘single’ – dashes…", "中文网页标题", "עברית ימין לשמאל"};
  return t;
}

// Characters above U+FFFF: emoji, a flag, musical and mathematical symbols.
const std::vector<std::string>& astralTitles() {
  static const std::vector<std::string> t = {
      "Weekend plans \U0001F600\U0001F389", "\U0001F4DA Reading list", "Flags \U0001F1E9\U0001F1EA and \U0001F1EF\U0001F1F5",
      "\U0001D11E Music theory notes", "\U0001D518\U0001D52B\U0001D526\U0001D520\U0001D52C\U0001D521\U0001D522 in mathematics",
      "Family \U0001F468\u200D\U0001F469\u200D\U0001F467 recipes", "\U00020BB7 and rare CJK"};
  return t;
}

// Decomposed text: a base letter followed by combining marks, Hangul as jamo.
const std::vector<std::string>& decomposedTitles() {
  static const std::vector<std::string> t = {
      "Cafe\u0301 and re\u0301sume\u0301", "U\u0308ber Zu\u0308rich", "\u1100\u1161\u11ab\u1100\u1173\u11af NFD Hangul",
      "Pin\u0303a colada", "A\u030angstro\u0308m units"};
  return t;
}

const std::vector<std::string>& hosts() {
  static const std::vector<std::string> h = {
      "github.com", "news.ycombinator.com", "www.nytimes.com", "en.wikipedia.org", "www.theguardian.com",
      "medium.com", "arxiv.org", "www.youtube.com", "blog.example.org", "lwn.net", "stackoverflow.com",
      "www.bbc.co.uk", "ja.wikipedia.org", "harrypotter.fandom.com", "www.economist.com", "kottke.org",
      "daringfireball.net", "www.nature.com", "developer.mozilla.org", "www.heise.de"};
  return h;
}

std::vector<std::string> tagVocabulary(std::size_t n) {
  static const std::vector<std::string> special = {
      "日本語", "café", "naïve", "c++", "web_dev", ".private", "toread_later", "Python", "w3c", "a/b",
      "home+improvement", "c#", "drum&bass", "for:someone", "!tobuy", "c/c++", "to:fb", "cafe\u0301", "\U0001F4DA"};
  std::vector<std::string> v;
  std::unordered_set<std::string> seen;
  auto add = [&](std::string t) {
    if (v.size() < n && seen.insert(t).second) v.push_back(std::move(t));
  };
  // The odd tags among the common ones, so that small accounts carry them.
  for (std::size_t i = 0; i < words().size(); ++i) {
    add(words()[i]);
    if (i % 3 == 2 && i / 3 < special.size()) add(special[i / 3]);
  }
  for (const auto& s : special) add(s);
  for (std::size_t i = 0; v.size() < n; ++i) {
    const auto& w = words();
    add(w[i % w.size()] + "_" + w[(i / w.size() + i * 7) % w.size()] + (i >= w.size() * w.size() ? std::to_string(i) : ""));
  }
  return v;
}

// Cumulative Zipf weights over ranks 1..n, for inverse-transform sampling.
std::vector<double> zipfTable(std::size_t n, double s) {
  std::vector<double> cdf(n);
  double total = 0;
  for (std::size_t k = 0; k < n; ++k) {
    total += 1.0 / std::pow(static_cast<double>(k + 1), s);
    cdf[k] = total;
  }
  for (auto& c : cdf) c /= total;
  return cdf;
}

std::size_t zipfDraw(Random& r, const std::vector<double>& cdf) {
  double u = r.uniform();
  return static_cast<std::size_t>(std::lower_bound(cdf.begin(), cdf.end(), u) - cdf.begin()) % cdf.size();
}

std::string capitalized(std::string w) {
  if (!w.empty() && w[0] >= 'a' && w[0] <= 'z') w[0] = static_cast<char>(w[0] - 'a' + 'A');
  return w;
}

}  // namespace

const std::vector<std::string>& sourceNames() {
  static const std::vector<std::string> s = {"twitter", "twitter_favs", "instapaper", "pocket",
                                             "iphone",  "delicious",    "readability"};
  return s;
}

std::vector<Bookmark> generateBookmarks(const std::string& username, std::size_t count,
                                        const GeneratorOptions& o) {
  // The account name enters the URLs, not the random stream: two accounts
  // with one seed get the same shapes under different addresses.
  Random r(o.seed * 0x2545f4914f6cdd1dull + 1);
  const std::vector<std::string> vocab = tagVocabulary(std::max<std::size_t>(o.tagVocabulary, 20));
  const std::vector<double> tagCDF = zipfTable(vocab.size(), o.zipfExponent);
  const std::vector<double> othersCDF = zipfTable(500, 1.3);
  std::vector<Bookmark> out;
  out.reserve(count);
  std::unordered_set<std::string> urls;
  double t = static_cast<double>(o.newest);
  std::size_t importLeft = 0;  // bookmarks still to come in the current import run
  for (std::size_t i = 0; i < count; ++i) {
    Bookmark b;
    const std::string& host = r.pick(hosts());
    bool popular = r.chance(0.05);
    std::string slug = r.pick(words()) + "-" + r.pick(words());
    if (popular) {
      // A small pool shared by every account: popular feeds and suggestions
      // find the same URL saved by several users.
      std::size_t p = r.below(200);
      b.url = "https://" + hosts()[p % hosts().size()] + "/popular/" + std::to_string(p);
    } else {
      b.url = (r.chance(0.15) ? "http://" : "https://") + host + "/" + username + "/" + slug + "-" +
              std::to_string(i) + (r.chance(0.3) ? "/" : "");
    }
    if (!o.webBase.empty() && o.webShare > 0) {
      // Its own stream per index, so the main one is not disturbed.
      Random w((o.seed + 0x9e3779b97f4a7c15ull) ^ (i * 0xbf58476d1ce4e5b9ull));
      if (w.uniform() < o.webShare) {
        const char* status = w.uniform() < o.deadShare ? (w.chance(0.5) ? "404" : "410") : "200";
        b.url = o.webBase + "/status/" + status + "/" + username + "/" + slug + "-" + std::to_string(i);
      }
    }
    if (!urls.insert(b.url).second) {
      b.url += "?v=" + std::to_string(i);
      urls.insert(b.url);
    }
    const double kind = r.uniform();
    double edge = o.astralShare;
    if (i % 97 == 0 || kind < edge) {
      b.title = r.pick(astralTitles());
    } else if (kind < (edge += o.untitledShare)) {
      b.title = r.chance(0.5) ? "" : "[no title]";
    } else if (kind < (edge += o.decomposedShare)) {
      b.title = r.pick(decomposedTitles());
    } else if (kind < edge + o.nonASCIIShare) {
      b.title = r.pick(nonASCIITitles());
    } else {
      std::size_t n = 2 + r.below(6);
      for (std::size_t k = 0; k < n; ++k) {
        if (k) b.title += ' ';
        b.title += k == 0 ? capitalized(r.pick(words())) : r.pick(words());
      }
      if (r.chance(0.1)) b.title += " | \"" + capitalized(r.pick(words())) + "\" & <more>";
    }
    if (r.chance(0.6)) {
      std::size_t n = 5 + r.below(40);
      for (std::size_t k = 0; k < n; ++k) {
        if (k) b.extended += ' ';
        b.extended += r.pick(words());
      }
      b.extended += '.';
      if (r.chance(0.2)) b.extended += "\nSee https://" + r.pick(hosts()) + "/ref\tfor more.";
      if (r.chance(o.decomposedShare)) b.extended += " " + r.pick(decomposedTitles());
      if (r.chance(o.untidyNotesShare)) {
        static const char* const endings[] = {" ", "  ", "\n", "\r\n", " \n\n", "\t"};
        b.extended += endings[r.below(6)];
      }
    }
    double u = r.uniform();
    std::size_t tagCount = u < 0.1 ? 0 : u < 0.3 ? 1 : u < 0.55 ? 2 : u < 0.75 ? 3 : u < 0.87 ? 4 : u < 0.95 ? 5 : 6 + r.below(8);
    for (std::size_t k = 0; k < tagCount; ++k) {
      const std::string& tag = vocab[zipfDraw(r, tagCDF)];
      // The service cannot hold "Python" and "python" on one bookmark.
      std::string folded = foldTag(tag);
      if (std::none_of(b.tags.begin(), b.tags.end(), [&](const std::string& x) { return foldTag(x) == folded; }))
        b.tags.push_back(tag);
    }
    b.time = static_cast<std::int64_t>(t);
    // An import: this bookmark and the next importLeft share one second.
    if (importLeft == 0 && r.chance(o.importShare)) importLeft = 4 + r.below(56);
    if (importLeft > 0) --importLeft;
    else t -= o.averageGap * (0.1 + 1.8 * r.uniform());
    b.shared = !r.chance(o.privateShare);
    b.toread = r.chance(o.unreadShare);
    b.starred = r.chance(o.starredShare);
    if (r.chance(o.sourcedShare)) b.source = r.pick(sourceNames());
    if (r.chance(o.othersShare)) b.others = static_cast<std::int64_t>(zipfDraw(r, othersCDF)) + 1;
    b.refresh();
    out.push_back(std::move(b));
  }
  return out;
}

}  // namespace pinboard_sim
