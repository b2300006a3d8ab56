#pragma once
// Writing bookmark files into a temporary directory, parsing them, and
// rendering the resulting tree as one line that tests compare whole.

#include <fstream>
#include <string>

#include "import/ZBTarrowNetscapeBookmarkItem.h"
#include "import/ZBTarrowNetscapeBookmarkParsingOperation.h"
#include "support/TemporaryDirectory.h"

struct ParsedFile {
  ZBTarrowNetscapeBookmarkFolderPtr root;  // null on failure
  NSErrorPtr error;
  ZBTarrowNetscapeBookmarkSummary summary;
};

inline ParsedFile parseFile(const std::filesystem::path& path) {
  auto operation = ZBTarrowNetscapeBookmarkParsingOperation::create(NSURL::fileURLWithPath(path.string()));
  operation->start();
  ParsedFile parsed;
  parsed.error = NSError::create("untouched", 1);  // a failure must clear the slot
  Value result = operation->completionProvider()(&parsed.error);
  parsed.root = result.as<ZBTarrowNetscapeBookmarkFolder>();
  parsed.summary = operation->summary();
  return parsed;
}

inline ParsedFile parseBytes(const TemporaryDirectory& directory, const std::string& bytes) {
  auto path = directory / "bookmarks.html";
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  return parseFile(path);
}

// F"title"(desc){children} for a folder, I"title"<url>(desc) for an item;
// nil for a missing title; line breaks and tabs escaped.
inline std::string render(const ZBTarrowNetscapeBookmark& bookmark) {
  auto escaped = [](const std::string& text) {
    std::string out;
    for (char c : text) out += c == '\n' ? "\\n" : c == '\r' ? "\\r" : c == '\t' ? "\\t" : std::string(1, c);
    return out;
  };
  std::string out;
  auto* item = dynamic_cast<const ZBTarrowNetscapeBookmarkItem*>(&bookmark);
  out += item ? "I" : "F";
  out += bookmark.title() ? "\"" + escaped(*bookmark.title()) + "\"" : "nil";
  if (item) out += "<" + item->url().value_or("nil") + ">";
  if (bookmark.desc()) out += "(" + escaped(*bookmark.desc()) + ")";
  auto* folder = dynamic_cast<const ZBTarrowNetscapeBookmarkFolder*>(&bookmark);
  if (folder && folder->items()) {
    out += "{";
    for (std::size_t i = 0; i < folder->items()->size(); ++i) out += (i ? " " : "") + render(*(*folder->items())[i]);
    out += "}";
  }
  return out;
}
