#pragma once
// ZBTarrowNetscapeBookmarkFolder: a folder of a bookmark file, holding items
// and subfolders in document order. items() is nullopt until the first
// appendBookmark(). Lifetime and threads: as ZBTarrowNetscapeBookmark.

#include <vector>

#include "import/ZBTarrowNetscapeBookmark.h"

class ZBTarrowNetscapeBookmarkFolder final : public ZBTarrowNetscapeBookmark {
public:
  static std::shared_ptr<ZBTarrowNetscapeBookmarkFolder> create() {
    return std::make_shared<ZBTarrowNetscapeBookmarkFolder>();
  }
  ZBTarrowNetscapeBookmarkFolder() = default;
  // Releases nested folders without recursing, so that a tree nested
  // 100 000 levels deep does not overflow the stack.
  ~ZBTarrowNetscapeBookmarkFolder() override;

  const std::optional<std::vector<ZBTarrowNetscapeBookmarkPtr>>& items() const { return _items; }
  // Appends bookmark at the end, creating the list on first use.
  void appendBookmark(ZBTarrowNetscapeBookmarkPtr bookmark) {
    if (!_items) _items.emplace();
    _items->push_back(std::move(bookmark));
  }

  std::string className() const override { return "ZBTarrowNetscapeBookmarkFolder"; }

private:
  std::optional<std::vector<ZBTarrowNetscapeBookmarkPtr>> _items;
};

using ZBTarrowNetscapeBookmarkFolderPtr = std::shared_ptr<ZBTarrowNetscapeBookmarkFolder>;
