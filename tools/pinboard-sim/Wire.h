#pragma once
// How the simulator writes its answers: the service's wire quirks (each one
// switchable) and a fast writer for bookmark lists, which can run to tens of
// megabytes and are written by hand rather than through a JSON tree.

#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "pinboard-sim/Bookmark.h"

namespace pinboard_sim {

// Each switch reproduces one habit of the live service. The defaults match the
// recorded exchanges; tests turn them on and off to prove a client copes.
struct Quirks {
  bool stringCounts = false;        // tags/get, posts/dates counts and notes/list length as strings (before 2020)
  bool emptyMapAsArray = true;      // an empty map is sent as []
  bool trailingWhitespace = true;   // bodies end with "\n\t" (posts/all: "\t")
  bool escapeSlashes = true;        // "/" written as "\/"
  bool escapeNonASCII = true;       // non-ASCII as \uXXXX (surrogate pairs above U+FFFF); off: raw UTF-8
  bool byteOrderMark = false;       // bodies begin with U+FEFF
  bool textPlain = true;            // Content-Type text/plain instead of application/json
  bool untaggedFeedItemEmptyTag = true;  // feed items without tags carry "t":[""]
  bool feedDatesWithOffset = false;      // feed "dt" ends in "+00:00" instead of "Z"
  bool keepTimeOnReplace = true;    // posts/add replacing without dt keeps the old time
  bool includeOthers = false;       // posts carry "others" when known
  bool gzip = false;                // compress text/plain answers when the client accepts it
  bool inclusiveDateRange = false;  // posts/all fromdt/todt include their ends (default: exclusive)
  bool truncateOverlong = false;    // posts/add cuts over-long title, text, tags instead of refusing
};

// Appends text as a JSON string literal, quotes included. Invalid UTF-8 bytes
// become U+FFFD so that the output always parses.
void appendJSONString(std::string& out, std::string_view text, const Quirks& quirks);

// One post object of the v1 API.
void appendPost(std::string& out, const Bookmark& b, const Quirks& quirks);
// A JSON array of posts.
std::string postsArray(const std::vector<const Bookmark*>& posts, const Quirks& quirks);
// One feed item ({"u","d","n","dt","a","t"}). Private tags (".tag") are left
// out unless the reader is the owner.
void appendFeedItem(std::string& out, const Bookmark& b, const std::string& author, bool privateTags,
                    const Quirks& quirks);

// Serialises a small JSON document with the slash and ASCII quirks. Ordered:
// keys go out in the order they were put in, as the service writes them.
std::string dump(const nlohmann::ordered_json& value, const Quirks& quirks);
// text with every byte that is not well-formed UTF-8 replaced by U+FFFD: what
// the simulator stores, so that what it answers is what it holds.
std::string wellFormedUTF8(std::string_view text);
// The body as sent: optional BOM before, optional trailing whitespace after.
std::string frame(std::string json, const Quirks& quirks, std::string_view trailer = "\n\t");

}  // namespace pinboard_sim
