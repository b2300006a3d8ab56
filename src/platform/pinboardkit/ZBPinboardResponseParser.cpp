#include "platform/pinboardkit/ZBPinboardResponseParser.h"

#include <simdjson.h>

#include <algorithm>
#include <charconv>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>

#include "platform/foundation/ZBMD5.h"
#include "platform/pinboardkit/ZBPinboardKit.h"
#include "platform/pinboardkit/impl/ZBPinboardErrors.h"

using simdjson::dom::element;

namespace {

Value malformed(const std::string& method, NSErrorPtr* error, const std::string& reason) {
  ZBSetError(error, ZBPinboardMakeError(ZBPinboardKitMalformedResponseError, method,
                                        Dictionary{{NSLocalizedFailureReasonErrorKey, reason}}));
  return Value();
}

// Parses body as one JSON document, skipping a BOM and trailing whitespace.
// The parser owns the returned element's storage.
bool parse(std::string& body, simdjson::dom::parser& parser, element& root, std::string& reason) {
  std::size_t start = 0, end = body.size();
  if (body.compare(0, 3, "\xef\xbb\xbf") == 0) start = 3;
  while (end > start && (body[end - 1] == ' ' || body[end - 1] == '\n' || body[end - 1] == '\r' || body[end - 1] == '\t'))
    --end;
  if (end == start) {
    reason = "empty answer";
    return false;
  }
  // simdjson reads a little past the end; give it room instead of a copy.
  body.reserve(end + simdjson::SIMDJSON_PADDING);
  auto error = parser.parse(reinterpret_cast<const std::uint8_t*>(body.data() + start), end - start, false).get(root);
  if (error) {
    reason = simdjson::error_message(error);
    return false;
  }
  return true;
}

std::optional<std::string_view> string(element e) {
  std::string_view s;
  if (e.get_string().get(s)) return std::nullopt;
  return s;
}

// "YYYY-MM-DDTHH:MM:SSZ", the form the service writes, read directly; any
// other text goes to the general reader, which also has the last word on a
// date this one finds out of range.
std::optional<NSDate> serviceDate(std::string_view s) {
  auto at = [&](std::size_t i, std::size_t n) {
    int v = 0;
    for (std::size_t k = i; k < i + n; ++k) {
      if (s[k] < '0' || s[k] > '9') return -1;
      v = v * 10 + (s[k] - '0');
    }
    return v;
  };
  if (s.size() != 20 || s[4] != '-' || s[7] != '-' || s[10] != 'T' || s[13] != ':' || s[16] != ':' || s[19] != 'Z')
    return NSDate::dateFromISO8601String(s);
  const int y = at(0, 4), m = at(5, 2), d = at(8, 2), h = at(11, 2), mi = at(14, 2), sec = at(17, 2);
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (y < 0 || m < 1 || m > 12 || d < 1 || h < 0 || h > 23 || mi < 0 || mi > 59 || sec < 0 || sec > 59 ||
      d > kDays[m - 1] + (m == 2 && y % 4 == 0 && (y % 100 != 0 || y % 400 == 0)))
    return NSDate::dateFromISO8601String(s);
  // Days since 1970-01-01 of a proleptic Gregorian date (Howard Hinnant's
  // days_from_civil).
  const int yy = y - (m <= 2);
  const int era = (yy >= 0 ? yy : yy - 399) / 400;
  const int yoe = yy - era * 400;
  const int doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  const std::int64_t days = std::int64_t(era) * 146097 + doe - 719468;
  constexpr std::int64_t kReferenceDays = 11323;  // 1970-01-01 to 2001-01-01
  return NSDate(static_cast<double>((days - kReferenceDays) * 86400 + h * 3600 + mi * 60 + sec));
}

std::optional<NSDate> date(element e) {
  auto s = string(e);
  if (!s) return std::nullopt;
  return serviceDate(*s);
}

// "yes"/"no" as the service writes them; real JSON booleans are accepted too.
std::optional<bool> yesNo(element e) {
  bool b;
  if (!e.get_bool().get(b)) return b;
  auto s = string(e);
  if (s == "yes") return true;
  if (s == "no") return false;
  return std::nullopt;
}

// A count sent as a number or as a numeric string.
std::optional<std::int64_t> count(element e) {
  std::int64_t n;
  if (!e.get_int64().get(n)) return n;
  double d;
  if (!e.get_double().get(d) && d >= -9.2e18 && d <= 9.2e18) return static_cast<std::int64_t>(d);
  auto s = string(e);
  if (!s || s->empty()) return std::nullopt;
  auto [ptr, ec] = std::from_chars(s->data(), s->data() + s->size(), n);
  if (ec != std::errc() || ptr != s->data() + s->size()) return std::nullopt;
  return n;
}

Value tagArray(std::string_view text) {
  // Untagged posts share one empty list instead of allocating their own.
  static const Value none{Array()};
  if (text.empty()) return none;
  std::size_t words = 1;
  for (char c : text) words += c == ' ';
  Array tags;
  tags.reserve(words);
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t j = text.find(' ', i);
    if (j == std::string_view::npos) j = text.size();
    if (j > i) tags.emplace_back(text.substr(i, j - i));
    i = j + 1;
  }
  if (tags.empty()) return none;
  return Value(std::move(tags));
}

enum class PostField { Other, Href, Description, Extended, Meta, Hash, Time, Shared, Toread, Tags, Others };

// Keys of the service's post objects; the length and first letter pick the
// one candidate to compare with.
PostField postField(std::string_view k) {
  auto is = [&](std::string_view name, PostField f) { return k == name ? f : PostField::Other; };
  switch (k.size()) {
    case 4:
      switch (k[0]) {
        case 'h': return k[1] == 'r' ? is("href", PostField::Href) : is("hash", PostField::Hash);
        case 'm': return is("meta", PostField::Meta);
        case 't': return k[1] == 'i' ? is("time", PostField::Time) : is("tags", PostField::Tags);
        default: return PostField::Other;
      }
    case 6:
      switch (k[0]) {
        case 's': return is("shared", PostField::Shared);
        case 't': return is("toread", PostField::Toread);
        case 'o': return is("others", PostField::Others);
        default: return PostField::Other;
      }
    case 8: return is("extended", PostField::Extended);
    case 11: return is("description", PostField::Description);
    default: return PostField::Other;
  }
}

// What a post of the API says, as views into its parsed document.
struct PostFields {
  std::optional<std::string_view> url, title, desc, meta, identifier, tags;
  std::optional<NSDate> date;
  std::optional<std::int64_t> others;
  std::optional<bool> shared, unread;
  std::string hash;  // the identifier when the service sent none
};

// Reads one post into f; false (with the reason) for anything but a post.
bool postFields(element e, PostFields& f, std::string& reason) {
  simdjson::dom::object o;
  if (e.get_object().get(o)) {
    reason = "a post is not an object";
    return false;
  }
  for (auto field : o) {
    element v = field.value;
    switch (postField(field.key)) {
      case PostField::Href:
        if (auto s = string(v)) f.url = s;
        break;
      case PostField::Description:
        if (auto s = string(v)) f.title = s;
        break;
      case PostField::Extended:
        if (auto s = string(v)) f.desc = s;
        break;
      case PostField::Meta:
        if (auto s = string(v)) f.meta = s;
        break;
      case PostField::Hash:
        if (auto s = string(v)) f.identifier = s;
        break;
      case PostField::Time:
        if (auto d = date(v)) f.date = d;
        break;
      case PostField::Shared: f.shared = yesNo(v); break;
      case PostField::Toread: f.unread = yesNo(v); break;
      case PostField::Tags:
        if (auto s = string(v)) f.tags = s;
        break;
      case PostField::Others:
        if (auto n = count(v)) f.others = n;
        break;
      case PostField::Other: break;
    }
  }
  if (!f.url || f.url->empty()) {
    reason = "a post has no href";
    return false;
  }
  if (!f.identifier || f.identifier->empty()) {
    f.hash = ZBMD5HexString(*f.url);
    f.identifier = f.hash;
  }
  return true;
}

// The post dictionary, each value made once, in its place.
Value postDictionary(const PostFields& f, const Value& username) {
  // In key order, so the dictionary takes the entries as they are.
  std::vector<Dictionary::Entry> entries;
  entries.reserve(3 + !!f.date + !!f.desc + !!f.meta + !!f.others + !!f.shared + !!f.tags + !!f.title + !!f.unread);
  auto add = [&entries](const std::string& key, auto&& value) {
    entries.emplace_back(std::piecewise_construct, std::forward_as_tuple(key),
                         std::forward_as_tuple(std::forward<decltype(value)>(value)));
  };
  if (f.date) add(ZBPinboardPostDateKey, *f.date);
  if (f.desc) add(ZBPinboardPostDescKey, *f.desc);
  add(ZBPinboardPostIdentifierKey, *f.identifier);
  if (f.meta) add(ZBPinboardPostMetaKey, *f.meta);
  if (f.others) add(ZBPinboardPostOthersKey, *f.others);
  if (f.shared) add(ZBPinboardPostSharedKey, *f.shared);
  if (f.tags) add(ZBPinboardPostTagsKey, tagArray(*f.tags));
  if (f.title) add(ZBPinboardPostTitleKey, *f.title);
  if (f.unread) add(ZBPinboardPostUnreadKey, *f.unread);
  add(ZBPinboardPostURLKey, *f.url);
  add(ZBPinboardPostUsernameKey, username);
  return Value(Dictionary::fromSortedEntries(std::move(entries)));
}

// Reads the posts of a parsed list into posts; false (with the reason) at the
// first element that is not a post.
bool listFields(element list, std::vector<PostFields>& posts, std::string& reason) {
  simdjson::dom::array elements;
  if (list.get_array().get(elements)) return false;
  for (element e : elements) {
    if (!postFields(e, posts.emplace_back(), reason)) {
      posts.pop_back();
      return false;
    }
  }
  return true;
}

bool feedItem(element e, Dictionary& out, std::string& reason) {
  simdjson::dom::object o;
  if (e.get_object().get(o)) {
    reason = "a feed item is not an object";
    return false;
  }
  Value dateV, desc, tags, title, url, username;
  for (auto field : o) {
    std::string_view k = field.key;
    element v = field.value;
    if (k == "u") {
      if (auto s = string(v)) url = Value(*s);
    } else if (k == "d") {
      if (auto s = string(v)) title = Value(*s);
    } else if (k == "n") {
      if (auto s = string(v)) desc = Value(*s);
    } else if (k == "dt") {
      if (auto d = date(v)) dateV = Value(*d);
    } else if (k == "a") {
      if (auto s = string(v)) username = Value(*s);
    } else if (k == "t") {
      simdjson::dom::array a;
      if (!v.get_array().get(a)) {
        Array list;
        for (element t : a)
          if (auto s = string(t); s && !s->empty()) list.emplace_back(*s);  // untagged items carry [""]
        tags = Value(std::move(list));
      } else if (auto s = string(v)) {
        tags = tagArray(*s);
      }
    }
  }
  if (!url.isString() || url.asString().empty()) {
    reason = "a feed item has no u";
    return false;
  }
  out.reserve(7);
  out.set(ZBPinboardPostDateKey, std::move(dateV));
  out.set(ZBPinboardPostDescKey, std::move(desc));
  out.set(ZBPinboardPostIdentifierKey, Value(ZBMD5HexString(url.asString())));
  out.set(ZBPinboardPostTagsKey, std::move(tags));
  out.set(ZBPinboardPostTitleKey, std::move(title));
  out.set(ZBPinboardPostURLKey, std::move(url));
  out.set(ZBPinboardPostUsernameKey, std::move(username));
  return true;
}

bool isSpace(char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }

enum class Shape { Undecided, List, Other };

// Whether text (an answer's first bytes) opens a bare list, and where its '['
// is; undecided while there is nothing but a BOM and whitespace.
Shape shapeOf(std::string_view text, std::size_t& bracket) {
  static constexpr std::string_view bom = "\xef\xbb\xbf";
  std::size_t i = 0;
  if (text.substr(0, 3) == bom) i = 3;
  else if (text.size() < 3 && bom.substr(0, text.size()) == text) return Shape::Undecided;
  while (i < text.size() && isSpace(text[i])) ++i;
  if (i == text.size()) return Shape::Undecided;
  bracket = i;
  return text[i] == '[' ? Shape::List : Shape::Other;
}


// Finds in text[from, end) a '}' followed by ',' and '{' (whitespace allowed
// around the comma): where a post ends and the next begins. Sets cut after
// the '}' and next on the '{'. Otherwise sets resume where a later search
// (with more bytes) must start again. A '}' inside a string may look the
// same; the run cut there does not parse, which the caller handles.
bool boundary(const char* text, std::size_t from, std::size_t end, std::size_t& cut, std::size_t& next,
              std::size_t& resume) {
  std::size_t i = from;
  while (i < end) {
    const void* found = std::memchr(text + i, '}', end - i);
    if (!found) break;
    const std::size_t b = static_cast<std::size_t>(static_cast<const char*>(found) - text);
    std::size_t j = b + 1;
    while (j < end && isSpace(text[j])) ++j;
    if (j < end && text[j] == ',') {
      ++j;
      while (j < end && isSpace(text[j])) ++j;
      if (j < end && text[j] == '{') {
        cut = b + 1;
        next = j;
        return true;
      }
    }
    if (j == end) {  // undecided until more bytes come
      resume = b;
      return false;
    }
    i = b + 1;
  }
  resume = end;
  return false;
}

// Parses text[slot, cut) as a list into document: the byte at slot stands in
// for its '[' and, unless final, the byte at cut for its ']'. Both are given
// back afterwards (the document holds copies of the strings). text needs
// SIMDJSON_PADDING bytes of room after the list.
simdjson::error_code parseRun(simdjson::dom::parser& parser, simdjson::dom::document& document, char* text,
                              std::size_t slot, std::size_t cut, bool final) {
  const char open = text[slot];
  const char close = final ? '\0' : text[cut];
  text[slot] = '[';
  if (!final) text[cut] = ']';
  const std::size_t length = (final ? cut : cut + 1) - slot;
  simdjson::dom::array list;
  auto error = parser.parse_into_document(document, reinterpret_cast<const std::uint8_t*>(text + slot), length, false)
                   .get_array()
                   .get(list);
  text[slot] = open;
  if (!final) text[cut] = close;
  return error;
}

// The posts of a bare list, read run by run with one small parser: a parser
// sized for a whole account would touch hundreds of megabytes of fresh
// memory, one sized for a run stays in the cache. Runs are cut where a post
// ends; if a cut turns out to be inside a string (the run does not parse),
// the rest of the list is read in one piece at the end instead.
class PostList {
public:
  PostList(const std::string& username, std::size_t runBytes) : _owner(username), _runBytes(runBytes) {}

  // text[slot] is the list's '[' or the separator before the first unread
  // post, text[slot + 1, end) the bytes at hand, and text has
  // SIMDJSON_PADDING bytes of room after end. Reads the runs of complete
  // posts at hand (all of the rest when final, which must then end the list)
  // and returns the slot of what is left. Leaves the bytes as they were.
  std::size_t read(char* text, std::size_t slot, std::size_t end, bool final) {
    while (_reason.empty() && !_whole) {
      std::size_t cut, next, resume;
      if (!boundary(text, std::max(slot + 1 + _runBytes, slot + _searched), end, cut, next, resume)) {
        _searched = resume - slot;
        break;
      }
      if (parseRun(_parser, _document, text, slot, cut, false)) {
        _whole = true;
        break;
      }
      if (!add(_document.root())) break;
      slot = next - 1;
      _searched = 0;
    }
    if (final && _reason.empty()) {
      if (auto error = parseRun(_parser, _document, text, slot, end, true)) _reason = simdjson::error_message(error);
      else add(_document.root());
    }
    return slot;
  }

  // Adds the posts of a parsed list; false (with the reason) when it holds
  // something other than posts.
  bool add(element list) {
    if (!_reason.empty()) return false;
    _fields.clear();
    std::string reason;
    listFields(list, _fields, reason);
    add(_fields, reason);
    return _reason.empty();
  }

  // Adds posts read elsewhere; a reason says the list went wrong after them.
  void add(const std::vector<PostFields>& posts, const std::string& reason) {
    if (!_reason.empty()) return;
    if (!reason.empty()) {
      _reason = reason;  // the answer is malformed: its posts are of no use
      return;
    }
    for (const PostFields& f : posts) _posts.push_back(postDictionary(f, _owner));
  }

  bool failed() const { return !_reason.empty(); }

  // The posts, or absent and a malformed-response error.
  Value result(const std::string& method, NSErrorPtr* error) {
    if (failed()) return malformed(method, error, _reason);
    return Value(std::move(_posts));
  }

private:
  simdjson::dom::parser _parser;
  simdjson::dom::document _document;
  const Value _owner;
  const std::size_t _runBytes;
  std::vector<PostFields> _fields;
  Array _posts;
  std::string _reason;        // why the answer is malformed, once known
  bool _whole = false;        // a cut run did not parse: the rest goes in one piece
  std::size_t _searched = 0;  // bytes after the slot known to hold no cut
};

}  // namespace

Value ZBPinboardResponseParser::updateTime(std::string& body, const std::string& method, NSErrorPtr* error) {
  simdjson::dom::parser parser;
  element root;
  std::string reason;
  if (!parse(body, parser, root, reason)) return malformed(method, error, reason);
  element v;
  if (root.at_key("update_time").get(v)) return malformed(method, error, "no update_time");
  auto d = date(v);
  if (!d) return malformed(method, error, "update_time is not a date");
  return Value(*d);
}

Value ZBPinboardResponseParser::posts(std::string& body, const std::string& username, const std::string& method,
                                      NSErrorPtr* error) {
  std::size_t bracket = 0;
  if (shapeOf(body, bracket) == Shape::List) {
    body.reserve(body.size() + simdjson::SIMDJSON_PADDING);
    PostList list(username, ZBPinboardPostListReader::kDefaultRunBytes);
    list.read(body.data(), bracket, body.size(), true);
    return list.result(method, error);
  }
  // An envelope {"posts": […]} (posts/get, posts/recent), or no list at all.
  simdjson::dom::parser parser;
  element root;
  std::string reason;
  if (!parse(body, parser, root, reason)) return malformed(method, error, reason);
  simdjson::dom::array list;
  element inner;
  if (root.at_key("posts").get(inner) || inner.get_array().get(list))
    return malformed(method, error, "neither a list of posts nor an envelope with posts");
  std::vector<PostFields> fields;
  if (!listFields(inner, fields, reason)) return malformed(method, error, reason);
  const Value owner(username);
  Array out;
  out.reserve(fields.size());
  for (const PostFields& f : fields) out.push_back(postDictionary(f, owner));
  return Value(std::move(out));
}

// ---- ZBPinboardPostListReader ----
//
// The appending side cuts a bare list into runs, parses each into a document
// and reads its posts' fields; the reading side turns the fields into
// dictionaries, so that they are allocated on the thread that asked for them.
// Runs go back to the appending side once read: fresh memory costs more than
// parsing. Should a cut turn out to be inside a string (the run does not
// parse), the rest of the list goes to the reading side whole.

namespace {

// A run of posts read on the appending side.
struct ParsedRun {
  simdjson::dom::document document;
  std::vector<PostFields> posts;  // views into document
  std::string reason;             // why the run holds something other than posts
};

struct Piece {
  enum class Kind { Run, Rest, Whole };
  Kind kind = Kind::Run;
  std::unique_ptr<ParsedRun> run;  // Run
  std::string text;                // Rest: the end of the list, text[slot] its slot; Whole: the whole answer
  std::size_t slot = 0;
};

}  // namespace

struct ZBPinboardPostListReader::State {
  State(std::string username, std::string method, std::size_t runBytes)
      : username(std::move(username)), method(std::move(method)), runBytes(runBytes), list(this->username, runBytes) {
    // Room for the usual run, made here rather than on the appending thread:
    // documents that grow run after run would take fresh memory each time,
    // and a short-lived thread would leave it in an allocator arena of its own.
    const std::size_t capacity = 2 * runBytes + 4096;
    if (parser.allocate(capacity)) return;  // out of memory: the parser grows when it must
    text.reserve(capacity + simdjson::SIMDJSON_PADDING);
    for (std::size_t i = 0; i < kRunsAhead + 2; ++i) {
      runs.push_back(std::make_unique<ParsedRun>());
      runs.back()->posts.reserve(capacity / 256);
      if (runs.back()->document.allocate(capacity)) break;
    }
  }

  void recycle(std::unique_ptr<ParsedRun> run) {
    std::lock_guard<std::mutex> lock(mutex);
    runs.push_back(std::move(run));
  }

  std::unique_ptr<ParsedRun> spareRun() {
    std::lock_guard<std::mutex> lock(mutex);
    if (runs.empty()) return std::make_unique<ParsedRun>();
    auto r = std::move(runs.back());
    runs.pop_back();
    return r;
  }

  void ship(Piece piece) {
    bool idle;
    {
      std::unique_lock<std::mutex> lock(mutex);
      // While the reading side is at work, stay a few runs ahead of it: the
      // answer waits on the wire instead of in memory. Before it starts (or
      // when both sides are one thread) there is nobody to wait for.
      if (piece.kind == Piece::Kind::Run) room.wait(lock, [&] { return !reading || pieces.size() < kRunsAhead; });
      idle = pieces.empty();  // the reading side waits only when there is nothing to take
      pieces.push_back(std::move(piece));
    }
    if (idle) arrived.notify_one();
  }

  static constexpr std::size_t kRunsAhead = 8;

  const std::string username, method;
  const std::size_t runBytes;

  // Appending side.
  std::string text;  // bytes not cut off yet
  Shape shape = Shape::Undecided;
  std::size_t slot = 0;      // List: the slot of the first post in text
  std::size_t searched = 0;  // bytes after the slot known to hold no cut
  bool whole = false;        // a cut did not parse: the rest goes in one piece
  bool failed = false;       // a run held something other than posts
  simdjson::dom::parser parser;

  std::mutex mutex;
  std::condition_variable arrived, room;
  std::deque<Piece> pieces;                      // guarded by mutex
  bool reading = false;                          // guarded by mutex: finish() has begun
  std::vector<std::unique_ptr<ParsedRun>> runs;  // guarded by mutex: read, to use again

  // Reading side.
  PostList list;
};

ZBPinboardPostListReader::ZBPinboardPostListReader(std::string username, std::string method, std::size_t runBytes)
    : _state(std::make_unique<State>(std::move(username), std::move(method), std::max<std::size_t>(runBytes, 1))) {}

ZBPinboardPostListReader::~ZBPinboardPostListReader() = default;

void ZBPinboardPostListReader::append(std::string_view bytes) {
  State& s = *_state;
  if (s.failed) return;
  s.text.append(bytes);
  if (s.shape == Shape::Undecided) s.shape = shapeOf(s.text, s.slot);
  if (s.shape != Shape::List || s.whole) return;
  while (s.text.size() - s.slot > s.runBytes) {
    std::size_t cut, next, resume;
    if (!boundary(s.text.data(), std::max(s.slot + 1 + s.runBytes, s.slot + s.searched), s.text.size(), cut, next,
                  resume)) {
      s.searched = resume - s.slot;
      break;
    }
    if (s.text.capacity() < cut + 1 + simdjson::SIMDJSON_PADDING) s.text.reserve(cut + 1 + simdjson::SIMDJSON_PADDING);
    auto run = s.spareRun();
    if (parseRun(s.parser, run->document, s.text.data(), s.slot, cut, false)) {
      s.whole = true;
      s.recycle(std::move(run));
      break;
    }
    run->posts.clear();
    run->reason.clear();
    const bool posts = listFields(run->document.root(), run->posts, run->reason);
    s.ship(Piece{Piece::Kind::Run, std::move(run), {}, 0});
    if (!posts) {  // the verdict is in: the rest changes nothing
      s.failed = true;
      s.text = std::string();
      return;
    }
    s.slot = next - 1;
    s.searched = 0;
  }
  if (!s.whole && s.slot >= s.runBytes) {
    s.text.erase(0, s.slot);  // what is left is shorter than what was cut off
    s.slot = 0;
  }
}

void ZBPinboardPostListReader::close() {
  State& s = *_state;
  Piece last{s.shape == Shape::List ? Piece::Kind::Rest : Piece::Kind::Whole, nullptr, std::move(s.text), s.slot};
  s.text = std::string();
  s.ship(std::move(last));
}

Value ZBPinboardPostListReader::finish(NSErrorPtr* error) {
  State& s = *_state;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    s.reading = true;
  }
  for (;;) {
    Piece piece;
    {
      std::unique_lock<std::mutex> lock(s.mutex);
      s.arrived.wait(lock, [&] { return !s.pieces.empty(); });
      piece = std::move(s.pieces.front());
      s.pieces.pop_front();
    }
    s.room.notify_one();
    switch (piece.kind) {
      case Piece::Kind::Run: {
        s.list.add(piece.run->posts, piece.run->reason);
        s.recycle(std::move(piece.run));
        continue;
      }
      case Piece::Kind::Rest:
        piece.text.reserve(piece.text.size() + simdjson::SIMDJSON_PADDING);
        s.list.read(piece.text.data(), piece.slot, piece.text.size(), true);
        return s.list.result(s.method, error);
      case Piece::Kind::Whole: return ZBPinboardResponseParser::posts(piece.text, s.username, s.method, error);
    }
  }
}

Value ZBPinboardResponseParser::feed(std::string& body, const std::string& method, NSErrorPtr* error) {
  simdjson::dom::parser parser;
  element root;
  std::string reason;
  if (!parse(body, parser, root, reason)) return malformed(method, error, reason);
  simdjson::dom::array list;
  if (root.get_array().get(list)) return malformed(method, error, "a feed is not a list");
  Array out;
  out.reserve(list.size());
  for (element e : list) {
    Dictionary d;
    if (!feedItem(e, d, reason)) return malformed(method, error, reason);
    out.emplace_back(std::move(d));
  }
  return Value(std::move(out));
}

Value ZBPinboardResponseParser::resultText(std::string& body, const std::string& method, NSErrorPtr* error) {
  simdjson::dom::parser parser;
  element root;
  std::string reason;
  if (!parse(body, parser, root, reason)) return malformed(method, error, reason);
  // Posts methods answer in "result_code", tags and user methods in "result".
  element v;
  if (root.at_key("result_code").get(v) && root.at_key("result").get(v))
    return malformed(method, error, "no result");
  auto s = string(v);
  if (!s) return malformed(method, error, "the result is not text");
  return Value(*s);
}

Value ZBPinboardResponseParser::suggestedTags(std::string& body, const std::string& method, NSErrorPtr* error) {
  simdjson::dom::parser parser;
  element root;
  std::string reason;
  if (!parse(body, parser, root, reason)) return malformed(method, error, reason);
  Array tags;
  bool ok = true;
  auto take = [&](element group) {
    simdjson::dom::object o;
    if (group.get_object().get(o)) return false;
    for (auto field : o) {
      if (field.key != "popular" && field.key != "recommended") continue;
      simdjson::dom::array a;
      if (field.value.get_array().get(a)) return false;
      for (element t : a) {
        auto s = string(t);
        if (!s) return false;
        tags.emplace_back(*s);
      }
    }
    return true;
  };
  // The service sends [{"popular":[…]},{"recommended":[…]}]; one object with
  // both keys is read the same way.
  simdjson::dom::array groups;
  if (!root.get_array().get(groups)) {
    for (element g : groups) ok = ok && take(g);
  } else {
    ok = take(root);
  }
  if (!ok) return malformed(method, error, "suggestions are not lists of tags");
  return Value(std::move(tags));
}

Value ZBPinboardResponseParser::tagCounts(std::string& body, const std::string& method, NSErrorPtr* error) {
  simdjson::dom::parser parser;
  element root;
  std::string reason;
  if (!parse(body, parser, root, reason)) return malformed(method, error, reason);
  simdjson::dom::array empty;
  if (!root.get_array().get(empty)) {
    if (empty.size() != 0) return malformed(method, error, "tags are a non-empty list");
    return Value(Dictionary());  // an empty map goes out as []
  }
  simdjson::dom::object o;
  if (root.get_object().get(o)) return malformed(method, error, "tags are not a map");
  std::vector<Dictionary::Entry> entries;
  for (auto field : o) {
    auto n = count(field.value);
    if (!n) return malformed(method, error, "a tag count is not a number");
    entries.emplace_back(std::string(field.key), Value(*n));
  }
  return Value(Dictionary::fromEntries(std::move(entries)));
}
