#pragma once
// Cutting the service's full list (a bare JSON array of posts, tens of
// megabytes for a large account) into runs of whole posts, each parsed on its
// own: a parser sized for a whole account would touch hundreds of megabytes
// of fresh memory, one sized for a run stays in the cache. Used by
// ZBPinboardResponseParser::posts on a whole answer and by
// ZBPinboardPostListReader on one that is still arriving.

#include <simdjson.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/pinboardkit/impl/ZBPinboardPostFields.h"

namespace zb::pinboard {

enum class Shape { Undecided, List, Other };

// Whether text (an answer's first bytes) opens a bare list, and where its '['
// is; undecided while there is nothing but a BOM and whitespace.
Shape shapeOf(std::string_view text, std::size_t& bracket);

// Finds in text[from, end) a '}' followed by ',' and '{' (whitespace allowed
// around the comma): where a post ends and the next begins. Sets cut after
// the '}' and next on the '{'. Otherwise sets resume where a later search
// (with more bytes) must start again. A '}' inside a string may look the
// same; the run cut there does not parse, which the caller handles.
bool boundary(const char* text, std::size_t from, std::size_t end, std::size_t& cut, std::size_t& next,
              std::size_t& resume);

// Parses text[slot, cut) as a list into document: the byte at slot stands in
// for its '[' and, unless final, the byte at cut for its ']'. Both are given
// back afterwards (the document holds copies of the strings). text needs
// SIMDJSON_PADDING bytes of room after the list.
simdjson::error_code parseRun(simdjson::dom::parser& parser, simdjson::dom::document& document, char* text,
                              std::size_t slot, std::size_t cut, bool final);

// The posts of a bare list, read run by run with one small parser. Runs are
// cut where a post ends; if a cut turns out to be inside a string (the run
// does not parse), the rest of the list is read in one piece at the end
// instead. Use from one thread at a time.
class PostList {
public:
  PostList(const std::string& username, std::size_t runBytes) : _owner(username), _runBytes(runBytes) {}

  // text[slot] is the list's '[' or the separator before the first unread
  // post, text[slot + 1, end) the bytes at hand, and text has
  // SIMDJSON_PADDING bytes of room after end. Reads the runs of complete
  // posts at hand (all of the rest when final, which must then end the list)
  // and returns the slot of what is left. Leaves the bytes as they were.
  std::size_t read(char* text, std::size_t slot, std::size_t end, bool final);

  // Adds the posts of a parsed list; false (with the reason) when it holds
  // something other than posts.
  bool add(element list);
  // Adds posts read elsewhere; a reason says the list went wrong after them.
  void add(const std::vector<PostFields>& posts, const std::string& reason);

  bool failed() const { return !_reason.empty(); }
  // The posts, or absent and a malformed-response error.
  Value result(const std::string& method, NSErrorPtr* error);

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

}  // namespace zb::pinboard
