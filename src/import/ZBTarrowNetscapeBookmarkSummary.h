#pragma once
// What a parse kept and what it left out, so that a caller can tell the user
// that every link of the file is accounted for: linkCount - itemCount equals
// the number of leftOut entries other than LinkWithoutAddress.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct ZBTarrowNetscapeBookmarkSummary {
  enum class Reason {
    LinkInNote,          // an <a href> inside an entry's description
    LinkWithoutAddress,  // an entry whose <a> has no href (not counted in linkCount)
    LinkOutsideEntry,    // an <a href> in no entry (in a heading, loose in a list)
    ExtraLinkInEntry,    // a second <a href> in one entry; only the first is the item
  };
  struct LeftOut {
    Reason reason;
    std::string title;               // cleaned, cut to a few dozen characters
    std::optional<std::string> url;  // cleaned href, if any
  };

  std::size_t linkCount = 0;  // <a> elements with an href in the file
  std::size_t itemCount = 0;  // items in the tree
  std::vector<LeftOut> leftOut;  // in document order

  // "link inside a note", "link without an address", …
  static std::string_view reasonText(Reason reason);
};
