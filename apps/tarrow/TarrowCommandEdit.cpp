// tarrow edit URL: changes a stored bookmark locally; the next sync sends it.

#include <algorithm>

#include "TarrowCommands.h"
#include "TarrowStore.h"
#include "TarrowText.h"

namespace {

class TarrowCommandEdit final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("edit", "Change a bookmark (sent with the next sync)");
    command->add_option("url", _url, "The bookmark's URL")->required();
    command->add_option("--title", _title, "New title");
    command->add_option("--desc", _desc, "New description");
    const char* split = " (commas and spaces separate tags, as Pinboard would split them)";
    command->add_option("--tags", _tags, std::string("Replace the tags") + split);
    command->add_option("--add-tag", _addTags, std::string("Add tags (repeatable)") + split);
    command->add_option("--remove-tag", _removeTags, std::string("Remove tags (repeatable)") + split);
    auto* makePrivate = command->add_flag("--private", _private, "Visible only to you");
    command->add_flag("--public", _public, "Visible to everyone")->excludes(makePrivate);
    auto* unread = command->add_flag("--unread", _unread, "Mark as to read");
    command->add_flag("--read", _read, "Mark as read")->excludes(unread);
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    TarrowStore store(session.context());
    NSErrorPtr error;
    auto post = store.post(_url, &error);
    if (!post) return error;
    Dictionary values;
    if (_title) values.set(ZBTarrowPinboardPostTitleKey, Value(*_title));
    if (_desc) values.set(ZBTarrowPinboardPostDescKey, Value(*_desc));
    if (_private || _public) values.set(ZBTarrowPinboardPostSharedKey, Value(_public));
    if (_read || _unread) values.set(ZBTarrowPinboardPostUnreadKey, Value(_unread));
    if (!_tags.empty() || !_addTags.empty() || !_removeTags.empty()) {
      values.set(ZBTarrowPinboardPostTagsKey, Value(_editedTags(*post)));
    }
    // The dictionary form leaves out unread/shared when not given: keep them.
    if (!values.contains(ZBTarrowPinboardPostSharedKey))
      values.set(ZBTarrowPinboardPostSharedKey, Value(post->shared()));
    if (!values.contains(ZBTarrowPinboardPostUnreadKey))
      values.set(ZBTarrowPinboardPostUnreadKey, Value(post->unread()));
    values.set(ZBTarrowPinboardPostStarredKey, Value(post->starred()));
    if (!post->updateWithDictionaryRepresentation(values, &error)) return error;
    post->setDirty(true);
    if (!store.save(&error)) return error;
    session.out() << TarrowLocalized("Changed %@; the next tarrow sync sends it.", {_url}) << "\n";
    return nullptr;
  }

private:
  Array _editedTags(const ZBTarrowPinboardPost& post) const {
    std::vector<std::string> titles;
    if (!_tags.empty()) {
      titles = TarrowSplitTags(_tags);
    } else {
      for (const auto& tag : post.tags()) titles.push_back(tag->title().value_or(""));
    }
    for (auto& tag : TarrowSplitTags(_addTags)) {
      if (std::find(titles.begin(), titles.end(), tag) == titles.end()) titles.push_back(std::move(tag));
    }
    for (const auto& tag : TarrowSplitTags(_removeTags)) std::erase(titles, tag);
    Array tags;
    for (auto& title : titles) tags.push_back(Value(std::move(title)));
    return tags;
  }

  std::string _url;
  std::optional<std::string> _title, _desc;
  std::vector<std::string> _tags, _addTags, _removeTags;
  bool _private = false, _public = false, _unread = false, _read = false;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeEditCommand() { return std::make_unique<TarrowCommandEdit>(); }
