#pragma once
// ZBTarrowNetscapeBookmark: one entry of a parsed bookmark file, the common
// part of items (links) and folders. Either string may be missing (absent in
// the file), which is not the same as empty.
//
// Lifetime: held by std::shared_ptr; a tree is owned by whoever holds its
// root. Thread-safety: requires external synchronisation.

#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/NSObject.h"

class ZBTarrowNetscapeBookmark : public NSObject {
public:
  static std::shared_ptr<ZBTarrowNetscapeBookmark> create() { return std::make_shared<ZBTarrowNetscapeBookmark>(); }

  const std::optional<std::string>& title() const { return _title; }
  void setTitle(std::optional<std::string> title) { _title = std::move(title); }
  // The description, exactly as written in the file.
  const std::optional<std::string>& desc() const { return _desc; }
  void setDesc(std::optional<std::string> desc) { _desc = std::move(desc); }

  std::string className() const override { return "ZBTarrowNetscapeBookmark"; }

private:
  std::optional<std::string> _title;
  std::optional<std::string> _desc;
};

using ZBTarrowNetscapeBookmarkPtr = std::shared_ptr<ZBTarrowNetscapeBookmark>;
