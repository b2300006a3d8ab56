#pragma once
// ZBTarrowNetscapeBookmarkItem: a link of a bookmark file. url is the address
// as cleaned from the file, not a parsed URL: it may be empty or not a URL at
// all. Lifetime and threads: as ZBTarrowNetscapeBookmark.

#include "import/ZBTarrowNetscapeBookmark.h"

class ZBTarrowNetscapeBookmarkItem final : public ZBTarrowNetscapeBookmark {
public:
  static std::shared_ptr<ZBTarrowNetscapeBookmarkItem> create() {
    return std::make_shared<ZBTarrowNetscapeBookmarkItem>();
  }

  const std::optional<std::string>& url() const { return _url; }
  void setUrl(std::optional<std::string> url) { _url = std::move(url); }

  std::string className() const override { return "ZBTarrowNetscapeBookmarkItem"; }

private:
  std::optional<std::string> _url;
};
