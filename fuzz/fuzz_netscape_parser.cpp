// Bookmark-file parser: any bytes must give a tree (or nothing), never a
// crash; every link the summary counts is an item of the tree or listed as
// left out, and every title and address is valid UTF-8 without control
// characters at its ends.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "import/ZBTarrowNetscapeBookmarkItem.h"
#include "import/impl/ZBNetscapeBookmarkDecoding.h"
#include "import/impl/ZBNetscapeBookmarkTree.h"
#include "platform/foundation/impl/ZBUTF8.h"

namespace {

void checkCleaned(const std::optional<std::string>& text) {
  if (!text) return;
  if (!zb::isValidUTF8(*text)) std::abort();
  for (char c : *text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) std::abort();
  }
  if (!text->empty() && (text->front() == ' ' || text->back() == ' ')) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  std::string text = zb::netscape::decodeToUTF8(std::string(reinterpret_cast<const char*>(bytes), size));
  if (!zb::isValidUTF8(text)) std::abort();
  ZBTarrowNetscapeBookmarkSummary summary;
  ZBTarrowNetscapeBookmarkFolderPtr root = zb::netscape::parseBookmarkTree(std::move(text), summary);
  if (!root) return 0;
  std::size_t items = 0;
  std::vector<const ZBTarrowNetscapeBookmarkFolder*> pending = {root.get()};
  while (!pending.empty()) {
    const auto* folder = pending.back();
    pending.pop_back();
    checkCleaned(folder->title());
    if (!folder->items()) continue;
    for (const auto& bookmark : *folder->items()) {
      if (auto* sub = dynamic_cast<const ZBTarrowNetscapeBookmarkFolder*>(bookmark.get())) {
        pending.push_back(sub);
      } else {
        auto* item = static_cast<const ZBTarrowNetscapeBookmarkItem*>(bookmark.get());
        if (!item->url() || !item->title()) std::abort();
        checkCleaned(item->title());
        checkCleaned(item->url());
        ++items;
      }
    }
  }
  std::size_t notItems = 0;
  for (const auto& leftOut : summary.leftOut) {
    if (leftOut.reason != ZBTarrowNetscapeBookmarkSummary::Reason::LinkWithoutAddress) ++notItems;
  }
  if (items != summary.itemCount || summary.linkCount != items + notItems) std::abort();
  return 0;
}
