#pragma once
// ZBTarrowNetscapeBookmarkParsingOperation: reads one bookmark file in the
// Netscape bookmark file format (nested definition lists of links and folder
// headings, as browsers and bookmarking services export them) into a tree of
// folders and items. It touches neither the store nor the service.
//
// A plain synchronous operation: main() parses, then sets the provider. On
// success the provider yields the root ZBTarrowNetscapeBookmarkFolder (an
// empty one for a document without a body). A file that cannot be read (missing,
// unreadable, a directory, empty) or that the HTML parser cannot make a
// document of yields absent and leaves the error slot empty: callers must
// treat "no folder and no error" as failure.
//
// Lifetime: held by std::shared_ptr (create); one operation parses one file
// once. Thread-safety: as NSOperation; completionProvider() and summary() are
// safe from any thread once the operation has finished.

#include <memory>

#include "import/ZBTarrowNetscapeBookmarkFolder.h"
#include "import/ZBTarrowNetscapeBookmarkSummary.h"
#include "platform/foundation/NSURL.h"
#include "platform/foundation/ZBMutex.h"
#include "platform/operations/NSOperation.h"
#include "platform/operations/ZBCompletionProvider.h"

class ZBTarrowNetscapeBookmarkParsingOperation final : public NSOperation, public ZBCompletionProviding {
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  static std::shared_ptr<ZBTarrowNetscapeBookmarkParsingOperation> create(NSURL bookmarkFileURL);
  ZBTarrowNetscapeBookmarkParsingOperation(Passkey, NSURL bookmarkFileURL);

  const NSURL& bookmarkFileURL() const { return _url; }
  // Before main() has run: see ZBMissingCompletionProvider.
  ZBCompletionProvider completionProvider() const override;
  // Counts of the last parse; all zero before it and after a failure.
  ZBTarrowNetscapeBookmarkSummary summary() const;
  std::string className() const override { return "ZBTarrowNetscapeBookmarkParsingOperation"; }

protected:
  void main() override;
  void mainDidThrow(const NSErrorPtr& error) override;

private:
  const NSURL _url;
  mutable ZBMutex _mutex;
  ZBCompletionProvider _provider ZB_GUARDED_BY(_mutex);
  ZBTarrowNetscapeBookmarkSummary _summary ZB_GUARDED_BY(_mutex);
};
