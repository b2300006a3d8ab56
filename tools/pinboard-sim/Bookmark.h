#pragma once
// The simulator's data: accounts, their bookmarks and notes, and the small
// helpers (time stamps, digests, tag matching) that the routes share.
// Plain values; the Simulator guards them with its own lock.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace pinboard_sim {

struct Bookmark {
  std::string url;       // exact text as stored; the identity within an account
  std::string title;     // "description" on the wire
  std::string extended;  // notes
  std::vector<std::string> tags;
  std::int64_t time = 0;  // seconds since 1970, UTC
  bool shared = true;
  bool toread = false;
  bool starred = false;                // website-only mark, visible in the starred feed
  std::string source;                  // "twitter", "pocket", … or empty
  std::optional<std::int64_t> others;  // how many other users saved the URL
  std::string hash;                    // md5(url), filled by refresh()
  std::string meta;                    // change signature, filled by refresh()
  // Feeds lag behind API writes: until feedVisibleAt (simulator clock) they
  // show feedPrevious instead, or nothing for a bookmark that is new.
  double feedVisibleAt = 0;
  std::shared_ptr<const Bookmark> feedPrevious;

  // Recomputes hash and meta from the other fields.
  void refresh();
  std::string tagString() const;  // tags joined by single spaces
};

struct Note {
  std::string id;  // 20 hex characters
  std::string title;
  std::string text;
  std::int64_t created = 0;
  std::int64_t updated = 0;
  std::string hash() const;  // first 20 hex digits of SHA-1(text)
  std::int64_t length() const;  // characters (code points) of text
};

struct Account {
  std::string username;
  std::string password;
  std::string token;   // secret part of the API token (without "username:")
  std::string rssKey;  // secret key of the private feeds
  bool saveAllPrivate = false;        // default of posts/add "shared"
  std::vector<std::string> network;   // users whose bookmarks the network feed shows
  std::int64_t updateTime = 0;
  std::vector<Note> notes;
  std::unordered_map<std::string, Bookmark> bookmarks;
  std::uint64_t version = 0;  // bumped by every change of bookmarks

  // Bookmarks newest first; those of one second by URL, ascending (imports
  // give many bookmarks one time, and paging must not skip or repeat them).
  // Cached until the next change.
  const std::vector<const Bookmark*>& sorted() const;
  // Records a change made at now (whole seconds of the simulator's clock):
  // bumps version and sets updateTime to now, so two changes within one
  // second share their update time, as on the service.
  void touch(std::int64_t now);

private:
  mutable std::vector<const Bookmark*> _sorted;
  mutable std::uint64_t _sortedVersion = ~std::uint64_t(0);
};

// "2010-12-11T19:48:02Z". offsetStyle writes "+00:00" instead of "Z".
std::string formatDateTime(std::int64_t seconds, bool offsetStyle = false);
std::string formatDate(std::int64_t seconds);       // "2010-12-11"
std::string formatNoteTime(std::int64_t seconds);   // "2010-12-11 19:48:02"
// Accepts "YYYY-MM-DDTHH:MM:SSZ" (also "+00:00") and, when allowDateOnly,
// "YYYY-MM-DD". Range 0001-01-01 to 2100-01-01.
std::optional<std::int64_t> parseDateTime(std::string_view text, bool allowDateOnly = false);

std::string md5Hex(std::string_view bytes);
std::string sha1Hex(std::string_view bytes);
std::optional<std::string> base64Decode(std::string_view text);

// Tags compare without regard to ASCII letter case, as the site's filters do.
std::string foldTag(std::string_view tag);
bool hasTag(const Bookmark& bookmark, std::string_view tag);
// Splits at whitespace and commas, dropping empty pieces: the service stores
// "a,b" as two tags and reads a filter "a,b" as both tags.
std::vector<std::string> splitTags(std::string_view text);
// Number of Unicode code points of UTF-8 text (invalid bytes count one each).
std::size_t characterCount(std::string_view text);
// The first `characters` code points of text.
std::string firstCharacters(std::string_view text, std::size_t characters);

}  // namespace pinboard_sim
