// tarrow add URL: stores a new bookmark and sends it to Pinboard at once, as
// the share extension does. If sending fails it stays marked as changed, and
// the next sync sends it.

#include "TarrowCommands.h"
#include "TarrowErrors.h"
#include "TarrowStore.h"
#include "TarrowText.h"
#include "platform/foundation/NSURL.h"

namespace {

class TarrowCommandAdd final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("add", "Add a bookmark and send it to Pinboard at once");
    command->add_option("url", _url, "The bookmark's URL")->required();
    command->add_option("--title", _title, "Title (default: the URL)");
    command->add_option("--desc", _desc, "Description");
    command->add_option("--tag,-t", _tags,
                        "Tags (repeatable; commas and spaces separate tags, as Pinboard would split them)");
    command->add_flag("--private", _private, "Visible only to you");
    command->add_flag("--unread", _unread, "Mark as to read");
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    NSErrorPtr error;
    if (!NSURL::URLWithString(_url, &error)) {
      return TarrowMakeError(TarrowInvalidInputError, TarrowLocalized("“%@” is not a URL", {_url}),
                             TarrowLocalized("Give an absolute URL, such as https://example.com/."));
    }
    TarrowStore store(session.context());
    NSErrorPtr lookup;
    if (store.post(_url, &lookup))
      return TarrowMakeError(TarrowInvalidInputError, TarrowLocalized("“%@” is already bookmarked", {_url}),
                             TarrowLocalized("Change it with tarrow edit."));
    auto post = store.context()->insertNewObject<ZBTarrowPinboardPost>(ZBTarrowPinboardPostEntityName);
    Array tags;
    for (auto& tag : TarrowSplitTags(_tags)) tags.push_back(Value(std::move(tag)));
    Dictionary values{{ZBTarrowPinboardPostURLKey, Value(_url)},
                      {ZBTarrowPinboardPostTitleKey, Value(_title.empty() ? _url : _title)},
                      {ZBTarrowPinboardPostSharedKey, Value(!_private)},
                      {ZBTarrowPinboardPostUnreadKey, Value(_unread)},
                      {ZBTarrowPinboardPostTagsKey, Value(std::move(tags))}};
    if (!_desc.empty()) values.set(ZBTarrowPinboardPostDescKey, Value(_desc));
    if (session.controller()->isAuthenticated())
      values.set(ZBTarrowPinboardPostUsernameKey, Value(session.controller()->username()));
    if (!post->updateWithDictionaryRepresentation(values, &error)) return error;
    post->setDirty(true);
    if (!store.save(&error)) return error;

    TarrowSession::Outcome outcome;
    session.controller()->sendPostCreation(post, outcome.handler());
    if (NSErrorPtr failed = session.wait(outcome)) {
      session.out() << TarrowLocalized("Saved locally; the next tarrow sync sends it.") << "\n";
      return failed;
    }
    session.out() << TarrowLocalized("Added %@", {_url}) << "\n";
    return nullptr;
  }

private:
  std::string _url, _title, _desc;
  std::vector<std::string> _tags;
  bool _private = false;
  bool _unread = false;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeAddCommand() { return std::make_unique<TarrowCommandAdd>(); }
