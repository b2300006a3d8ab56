// tarrow import FILE: reads a bookmark file in the Netscape format (what
// browsers and bookmarking services export) and shows its tree. Standard
// error says how many links the file holds and how many items the tree has,
// and which links were left out and why. With --apply the items become new
// local bookmarks (their folders' names as tags), URLs already stored are
// skipped, and the next sync sends them.

#include <functional>

#include <nlohmann/json.hpp>

#include "TarrowCommands.h"
#include "TarrowErrors.h"
#include "TarrowStore.h"
#include "TarrowText.h"
#include "import/ZBTarrowNetscapeBookmarkFolder.h"
#include "import/ZBTarrowNetscapeBookmarkItem.h"
#include "import/ZBTarrowNetscapeBookmarkParsingOperation.h"
#include "platform/foundation/NSURL.h"

namespace {

// Deeper than this, the JSON form is refused (its writer recurses).
constexpr std::size_t kMaximumJSONDepth = 2000;

nlohmann::json optionalText(const std::optional<std::string>& text) {
  return text ? nlohmann::json(*text) : nlohmann::json(nullptr);
}

// A folder name as one tag: the service splits tags at commas and spaces.
std::string folderTag(const std::string& name) {
  std::string tag;
  for (char c : name) tag += (c == ',' || std::isspace(static_cast<unsigned char>(c))) ? '_' : c;
  return tag;
}

// A description as stored: the file's layout around it (line breaks, indent) is
// not part of the note.
std::string trimmedNote(const std::string& text) {
  const char* space = " \t\r\n\f\v";
  const std::size_t first = text.find_first_not_of(space);
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(space) - first + 1);
}

class TarrowCommandImport final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("import", "Read a bookmark file (Netscape format) and show or add what it holds");
    command->add_option("file", _file, "The bookmark file, as a browser exports it")->required();
    command->add_flag("--json", _json, "Print the tree as nested JSON objects");
    command->add_flag("--apply", _apply,
                      "Add the bookmarks as new local posts (folder names become tags; the next sync sends them)");
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    auto parsing = ZBTarrowNetscapeBookmarkParsingOperation::create(NSURL::fileURLWithPath(_file));
    parsing->start();
    NSErrorPtr error;
    Value result = parsing->completionProvider()(&error);
    auto root = result.isObject() ? result.as<ZBTarrowNetscapeBookmarkFolder>() : nullptr;
    if (!root) {
      if (error) return error;
      return TarrowMakeError(TarrowFileError, TarrowLocalized("Couldn’t read %@ as a bookmark file", {_file}),
                             TarrowLocalized("Export the bookmarks from the browser as an HTML file and try again."));
    }
    _report(session, parsing->summary());
    if (_apply) return _add(session, *root);
    if (_json) {
      nlohmann::json tree;
      if (NSErrorPtr deep = _json_tree(*root, tree)) return deep;
      session.out() << tree.dump(2) << "\n";
      return nullptr;
    }
    _walk(*root, [&](const ZBTarrowNetscapeBookmark& entry, std::size_t depth, const std::vector<std::string>&) {
      const std::string indent(2 * depth, ' ');
      const std::string title = entry.title().value_or("");
      if (auto* item = dynamic_cast<const ZBTarrowNetscapeBookmarkItem*>(&entry)) {
        session.out() << indent << title << "  " << item->url().value_or("") << "\n";
      } else {
        session.out() << indent << "[" << title << "]\n";
      }
    });
    return nullptr;
  }

private:
  using Visit = std::function<void(const ZBTarrowNetscapeBookmark& entry, std::size_t depth,
                                   const std::vector<std::string>& folders)>;

  // Every entry below root in document order, without recursion (files nest
  // deep): its depth and the names of the folders around it.
  static void _walk(const ZBTarrowNetscapeBookmarkFolder& root, const Visit& visit) {
    struct Level {
      const ZBTarrowNetscapeBookmarkFolder* folder;
      std::size_t next;
    };
    std::vector<Level> stack{{&root, 0}};
    std::vector<std::string> folders;
    while (!stack.empty()) {
      Level& level = stack.back();
      const auto& items = level.folder->items();
      if (!items || level.next >= items->size()) {
        stack.pop_back();
        if (!folders.empty() && !stack.empty()) folders.pop_back();
        continue;
      }
      const auto& entry = (*items)[level.next++];
      visit(*entry, stack.size() - 1, folders);
      if (auto* folder = dynamic_cast<const ZBTarrowNetscapeBookmarkFolder*>(entry.get())) {
        folders.push_back(folder->title().value_or(""));
        stack.push_back({folder, 0});
      }
    }
  }

  void _report(TarrowSession& session, const ZBTarrowNetscapeBookmarkSummary& summary) const {
    session.err() << TarrowLocalized("%@ links in the file, %@ bookmarks read.",
                                     {std::to_string(summary.linkCount), std::to_string(summary.itemCount)})
                  << "\n";
    for (const auto& left : summary.leftOut)
      session.err() << "  " << TarrowLocalized("Left out: %@ %@ (%@)",
                                               {left.title, left.url.value_or(""),
                                                std::string(ZBTarrowNetscapeBookmarkSummary::reasonText(left.reason))})
                    << "\n";
  }

  // The tree as nested objects: title, desc, and url (an item) or items (a
  // folder).
  NSErrorPtr _json_tree(const ZBTarrowNetscapeBookmarkFolder& root, nlohmann::json& out) const {
    out = {{"title", optionalText(root.title())}, {"desc", optionalText(root.desc())}, {"items", nlohmann::json::array()}};
    std::vector<nlohmann::json*> path{&out};
    std::size_t deepest = 0;
    _walk(root, [&](const ZBTarrowNetscapeBookmark& entry, std::size_t depth, const std::vector<std::string>&) {
      deepest = std::max(deepest, depth);
      if (depth >= kMaximumJSONDepth) return;
      path.resize(depth + 1);
      nlohmann::json node = {{"title", optionalText(entry.title())}, {"desc", optionalText(entry.desc())}};
      if (auto* item = dynamic_cast<const ZBTarrowNetscapeBookmarkItem*>(&entry)) {
        node["url"] = optionalText(item->url());
      } else {
        node["items"] = nlohmann::json::array();
      }
      auto& items = (*path[depth])["items"];
      items.push_back(std::move(node));
      path.push_back(&items.back());
    });
    if (deepest >= kMaximumJSONDepth)
      return TarrowMakeError(TarrowInvalidInputError,
                             TarrowLocalized("The file nests folders too deeply to print as JSON"),
                             TarrowLocalized("Leave out --json to see the tree."));
    return nullptr;
  }

  NSErrorPtr _add(TarrowSession& session, const ZBTarrowNetscapeBookmarkFolder& root) const {
    TarrowStore store(session.context());
    std::size_t added = 0, skipped = 0;
    _walk(root, [&](const ZBTarrowNetscapeBookmark& entry, std::size_t, const std::vector<std::string>& folders) {
      auto* item = dynamic_cast<const ZBTarrowNetscapeBookmarkItem*>(&entry);
      if (!item) return;
      const std::string url = item->url().value_or("");
      NSErrorPtr ignored;
      if (url.empty() || !NSURL::URLWithString(url, &ignored) || store.post(url, &ignored)) {
        ++skipped;
        return;
      }
      Array tags;
      for (const auto& name : folders)
        if (!name.empty()) tags.push_back(Value(folderTag(name)));
      Dictionary values{{ZBTarrowPinboardPostURLKey, Value(url)},
                        {ZBTarrowPinboardPostTitleKey, Value(entry.title().value_or(url))},
                        {ZBTarrowPinboardPostTagsKey, Value(std::move(tags))}};
      if (entry.desc() && !trimmedNote(*entry.desc()).empty())
        values.set(ZBTarrowPinboardPostDescKey, Value(trimmedNote(*entry.desc())));
      if (session.controller()->isAuthenticated())
        values.set(ZBTarrowPinboardPostUsernameKey, Value(session.controller()->username()));
      auto post = store.context()->insertNewObject<ZBTarrowPinboardPost>(ZBTarrowPinboardPostEntityName);
      if (!post->updateWithDictionaryRepresentation(values, &ignored)) {
        store.context()->deleteObject(post);
        ++skipped;
        return;
      }
      post->setDirty(true);
      ++added;
    });
    NSErrorPtr error;
    if (!store.save(&error)) return error;
    session.out() << TarrowLocalized("Added %@ bookmarks, skipped %@; the next tarrow sync sends them.",
                                     {std::to_string(added), std::to_string(skipped)})
                  << "\n";
    return nullptr;
  }

  std::string _file;
  bool _json = false;
  bool _apply = false;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeImportCommand() { return std::make_unique<TarrowCommandImport>(); }
