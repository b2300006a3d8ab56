#include "import/impl/ZBNetscapeBookmarkTree.h"

#include <libxml/HTMLparser.h>
#include <libxml/tree.h>

#include <climits>
#include <cstring>
#include <memory>
#include <vector>

#include "import/ZBTarrowNetscapeBookmarkItem.h"
#include "import/impl/ZBNetscapeBookmarkText.h"

// How the walk reads libxml2's tree.
//
// A bookmark file is a list of entries: `<DT><A HREF=…>title</A>` is a link,
// `<DT><H3>title</H3>` a folder heading whose list is the `<DL>` that follows
// it, and a `<DD>` right after an entry holds the entry's description (for a
// folder, the `<DD>` may also hold the folder's `<DL>`). Writers leave `<DT>`,
// `<DD>` and `<p>` unclosed, and libxml2 closes them at other points than a
// tidier would (a folder's list may end up inside its `<DT>` or beside it,
// the next `<DT>` inside a `<DD>`), but it keeps the elements in document
// order, and a `<DL>` ends where its `</DL>` (or its parent) ends. So the walk
// does not trust the nesting of `<DT>`, `<DD>` and `<p>`: it visits the tree
// in document order and reads it as this sequence of events:
//
// - `<DL>` opens a list. It is the list of the folder whose heading came
//   last, if no other entry came between (a description may); otherwise it
//   continues the current folder (the top list of the file, a list under a
//   description of the whole file, a list without heading). Leaving the
//   `<DL>` element ends it. Entries with no `<DL>` at all (`<DT>`s straight in
//   the body) belong to the root.
// - `<DT>` starts an entry. Its first `<A>` is the link (no href: no item),
//   or its `<H3>` is a folder heading; anything else in it is not an entry.
// - `<DD>` ends the entry. When the entry just made an item or folder, the
//   `<DD>`'s first child, if it is text and not only white space (a tidier
//   drops such text between elements), becomes its description, uncleaned. A
//   description of the whole file describes no entry and is dropped. Everything up to the next `<DT>`, `<DD>`,
//   `<DL>` or end of list belongs to the note: links in it are not items, and
//   markup in it (Delicious notes hold raw `<li>`, `<code>`) stays in it.
// - A title is the text of everything inside the `<A>` or `<H3>`, the text
//   inside markup included (a raw `<canvas>` in a title stays in it and ends
//   nothing), up to its end, or up to the next `<DT>`, `<DD>` or `<DL>` when
//   libxml2 left it open across them.
// - A `<DD>` holding an `<H3>` (a file already in the tidied shape) is an
//   entry like a `<DT>`.
// - An `<H3>` straight in the body, before anything else, titles the root.
//
// The walk keeps one frame per open `<DL>`, so its memory grows with the
// nesting depth only, and it follows parent links instead of recursing.

namespace zb::netscape {
namespace {

struct DocumentFree {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using Document = std::unique_ptr<xmlDoc, DocumentFree>;

enum class Tag { Other, Dl, Dt, Dd, H3, A, Body };

Tag tagOf(const xmlNode* node) {
  if (node->type != XML_ELEMENT_NODE || !node->name) return Tag::Other;
  // libxml2's HTML parser gives element names in lower case.
  const char* name = reinterpret_cast<const char*>(node->name);
  switch (name[0]) {
    case 'a':
      return name[1] == 0 ? Tag::A : Tag::Other;
    case 'd':
      if (name[1] == 0 || name[2] != 0) return Tag::Other;
      return name[1] == 'l' ? Tag::Dl : name[1] == 't' ? Tag::Dt : name[1] == 'd' ? Tag::Dd : Tag::Other;
    case 'h':
      return std::strcmp(name, "h3") == 0 ? Tag::H3 : Tag::Other;
    case 'b':
      return std::strcmp(name, "body") == 0 ? Tag::Body : Tag::Other;
    default:
      return Tag::Other;
  }
}

const xmlNode* childElement(const xmlNode* node, const char* name) {
  for (const xmlNode* child = node ? node->children : nullptr; child; child = child->next) {
    if (child->type == XML_ELEMENT_NODE && std::strcmp(reinterpret_cast<const char*>(child->name), name) == 0) {
      return child;
    }
  }
  return nullptr;
}

std::optional<std::string> attribute(const xmlNode* node, const char* name) {
  for (const xmlAttr* attr = node->properties; attr; attr = attr->next) {
    if (std::strcmp(reinterpret_cast<const char*>(attr->name), name) != 0) continue;
    std::string value;
    for (const xmlNode* text = attr->children; text; text = text->next) {
      if (text->content) value += reinterpret_cast<const char*>(text->content);
    }
    return value;
  }
  return std::nullopt;
}

bool isBlank(const char* text) {
  for (; *text; ++text) {
    if (*text != ' ' && *text != '\t' && *text != '\n' && *text != '\r' && *text != '\f') return false;
  }
  return true;
}

std::string shortened(const std::string& text) {
  constexpr std::size_t limit = 80;
  if (text.size() <= limit) return text;
  std::size_t cut = limit;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  return text.substr(0, cut) + "…";
}

class Walk {
public:
  Walk(ZBTarrowNetscapeBookmarkFolder& root, ZBTarrowNetscapeBookmarkSummary& summary)
      : _root(root), _summary(summary) {}

  void run(const xmlNode* body) {
    const xmlNode* node = body->children;
    while (node) {
      bool descend = enter(node);
      if (descend && node->children) {
        node = node->children;
        continue;
      }
      // Leave node and every ancestor whose last child it was.
      while (node != body) {
        leave(node);
        if (node->next) {
          node = node->next;
          break;
        }
        node = node->parent;
      }
      if (node == body) break;
    }
    closeTitle();
  }

private:
  enum class Context { List, Entry, Note };
  struct List {
    const xmlNode* element;
    ZBTarrowNetscapeBookmarkFolder* folder;
  };
  struct Title {
    const xmlNode* element = nullptr;
    ZBTarrowNetscapeBookmark* bookmark = nullptr;
    std::string text;
  };

  ZBTarrowNetscapeBookmarkFolder& currentFolder() { return _lists.empty() ? _root : *_lists.back().folder; }

  // Returns whether to visit node's children.
  bool enter(const xmlNode* node) {
    if (node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE) {
      if (_title.element && node->content) _title.text += reinterpret_cast<const char*>(node->content);
      return false;
    }
    switch (tagOf(node)) {
      case Tag::Dl:
        closeTitle();
        _lists.push_back({node, _heading ? _heading : &currentFolder()});
        _heading = nullptr;
        _described = nullptr;
        _context = Context::List;
        return true;
      case Tag::Dt:
        closeTitle();
        _heading = nullptr;
        _described = nullptr;
        _context = Context::Entry;
        _entryTaken = false;
        return true;
      case Tag::Dd:
        closeTitle();
        enterNote(node);
        return true;
      case Tag::H3:
        enterHeading(node);
        return true;
      case Tag::A:
        enterLink(node);
        return true;
      default:
        return true;
    }
  }

  void leave(const xmlNode* node) {
    if (node == _title.element) closeTitle();
    if (!_lists.empty() && _lists.back().element == node) {
      _lists.pop_back();
      _heading = nullptr;
      _described = nullptr;
      _context = Context::List;
    }
  }

  void enterNote(const xmlNode* dd) {
    if (childElement(dd, "h3")) {
      // Already in the tidied folder shape: the <DD> is the folder's entry.
      _heading = nullptr;
      _described = nullptr;
      _context = Context::Entry;
      _entryTaken = false;
      return;
    }
    const xmlNode* first = dd->children;
    if (_described && !_described->desc() && first && first->type == XML_TEXT_NODE && first->content &&
        !isBlank(reinterpret_cast<const char*>(first->content))) {
      _described->setDesc(std::string(reinterpret_cast<const char*>(first->content)));
    }
    // One description per entry; a folder's heading stays open for its list.
    _described = nullptr;
    _context = Context::Note;
  }

  void enterHeading(const xmlNode* h3) {
    if (_title.element || _context == Context::Note) return;  // markup inside a title or note
    if (_context == Context::Entry && _entryTaken) return;
    if (!_rootTitled && _lists.empty() && _context != Context::Entry && h3->parent && tagOf(h3->parent) == Tag::Body) {
      _rootTitled = true;
      _root.setTitle(std::string());
      openTitle(h3, &_root);
      return;
    }
    auto folder = ZBTarrowNetscapeBookmarkFolder::create();
    openTitle(h3, folder.get());
    _heading = folder.get();
    _described = folder.get();
    _entryTaken = true;
    currentFolder().appendBookmark(std::move(folder));
  }

  void enterLink(const xmlNode* a) {
    std::optional<std::string> href = attribute(a, "href");
    if (_context == Context::Entry && !_entryTaken && !_title.element) {
      _entryTaken = true;
      if (!href) {
        leaveOut(ZBTarrowNetscapeBookmarkSummary::Reason::LinkWithoutAddress, a, std::nullopt);
        return;
      }
      ++_summary.linkCount;
      ++_summary.itemCount;
      auto item = ZBTarrowNetscapeBookmarkItem::create();
      item->setUrl(cleanedString(*href));
      openTitle(a, item.get());
      _described = item.get();
      currentFolder().appendBookmark(std::move(item));
      return;
    }
    if (!href) return;
    ++_summary.linkCount;
    using Reason = ZBTarrowNetscapeBookmarkSummary::Reason;
    Reason reason = _context == Context::Note    ? Reason::LinkInNote
                    : _context == Context::Entry && !_title.element ? Reason::ExtraLinkInEntry
                                                                    : Reason::LinkOutsideEntry;
    leaveOut(reason, a, cleanedString(*href));
  }

  void leaveOut(ZBTarrowNetscapeBookmarkSummary::Reason reason, const xmlNode* a, std::optional<std::string> url) {
    std::string title;
    for (const xmlNode* child = a->children; child && title.size() < 200; child = child->next) {
      if (child->type == XML_TEXT_NODE && child->content) title += reinterpret_cast<const char*>(child->content);
    }
    _summary.leftOut.push_back({reason, shortened(cleanedString(title)), std::move(url)});
  }

  void openTitle(const xmlNode* element, ZBTarrowNetscapeBookmark* bookmark) {
    _title.element = element;
    _title.bookmark = bookmark;
    _title.text.clear();
  }

  void closeTitle() {
    if (!_title.element) return;
    _title.bookmark->setTitle(cleanedString(_title.text));
    _title.element = nullptr;
    _title.bookmark = nullptr;
    _title.text.clear();
    if (_title.text.capacity() > 65536) _title.text.shrink_to_fit();  // after a megabyte title
  }

  ZBTarrowNetscapeBookmarkFolder& _root;
  ZBTarrowNetscapeBookmarkSummary& _summary;
  std::vector<List> _lists;
  Context _context = Context::List;
  bool _entryTaken = false;
  bool _rootTitled = false;
  ZBTarrowNetscapeBookmarkFolder* _heading = nullptr;  // the folder whose list the next <DL> is
  ZBTarrowNetscapeBookmark* _described = nullptr;      // the entry the next <DD> describes
  Title _title;
};

const xmlNode* bodyOf(const xmlDoc* doc) {
  const xmlNode* root = xmlDocGetRootElement(doc);
  if (!root || std::strcmp(reinterpret_cast<const char*>(root->name), "html") != 0) return nullptr;
  return childElement(root, "body");
}

}  // namespace

ZBTarrowNetscapeBookmarkFolderPtr parseBookmarkTree(std::string text, ZBTarrowNetscapeBookmarkSummary& summary) {
  summary = {};
  if (text.empty() || text.size() > static_cast<std::size_t>(INT_MAX)) return nullptr;
  constexpr int options = HTML_PARSE_RECOVER | HTML_PARSE_NOERROR | HTML_PARSE_NOWARNING | HTML_PARSE_NONET |
                          HTML_PARSE_COMPACT | HTML_PARSE_IGNORE_ENC | XML_PARSE_HUGE;
  Document doc(htmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, "UTF-8", options));
  std::string().swap(text);
  if (!doc) return nullptr;
  auto root = ZBTarrowNetscapeBookmarkFolder::create();
  const xmlNode* body = bodyOf(doc.get());
  if (!body) return root;
  root->setTitle(std::string());
  Walk(*root, summary).run(body);
  return root;
}

}  // namespace zb::netscape
