#pragma once
// Builds the folder tree of a bookmark file from its UTF-8 text, with
// libxml2's HTML parser and one iterative walk over its tree (see the .cpp for
// how the walk reads libxml2's shapes).

#include <string>

#include "import/ZBTarrowNetscapeBookmarkFolder.h"
#include "import/ZBTarrowNetscapeBookmarkSummary.h"

namespace zb::netscape {

// The root folder, or nullptr when libxml2 makes no document of the text
// (empty input, more than 2 GiB). text is released once libxml2 holds its
// tree. summary receives the counts of this parse.
ZBTarrowNetscapeBookmarkFolderPtr parseBookmarkTree(std::string text, ZBTarrowNetscapeBookmarkSummary& summary);

}  // namespace zb::netscape
