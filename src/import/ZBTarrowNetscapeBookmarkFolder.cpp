#include "import/ZBTarrowNetscapeBookmarkFolder.h"

ZBTarrowNetscapeBookmarkFolder::~ZBTarrowNetscapeBookmarkFolder() {
  if (!_items) return;
  std::vector<ZBTarrowNetscapeBookmarkPtr> pending = std::move(*_items);
  while (!pending.empty()) {
    ZBTarrowNetscapeBookmarkPtr last = std::move(pending.back());
    pending.pop_back();
    // Only a folder this tree alone holds is emptied here; one held elsewhere
    // keeps its items.
    if (last.use_count() != 1) continue;
    auto* folder = dynamic_cast<ZBTarrowNetscapeBookmarkFolder*>(last.get());
    if (!folder || !folder->_items) continue;
    for (auto& item : *folder->_items) pending.push_back(std::move(item));
    folder->_items.reset();
  }
}
