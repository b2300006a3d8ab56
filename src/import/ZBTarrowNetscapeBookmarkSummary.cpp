#include "import/ZBTarrowNetscapeBookmarkSummary.h"

std::string_view ZBTarrowNetscapeBookmarkSummary::reasonText(Reason reason) {
  switch (reason) {
    case Reason::LinkInNote:
      return "link inside a note";
    case Reason::LinkWithoutAddress:
      return "link without an address";
    case Reason::LinkOutsideEntry:
      return "link outside any entry";
    case Reason::ExtraLinkInEntry:
      return "second link in one entry";
  }
  return {};
}
