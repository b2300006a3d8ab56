// tarrow tag rename OLD NEW | tag delete TITLE: changes a tag of every post
// locally; the next sync does the same on Pinboard.

#include "TarrowCommands.h"
#include "TarrowErrors.h"
#include "TarrowStore.h"
#include "TarrowText.h"

namespace {

class TarrowCommandTag final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("tag", "Rename or delete a tag (on Pinboard with the next sync)");
    command->require_subcommand(1);
    _rename = command->add_subcommand("rename", "Rename a tag on every post");
    _rename->add_option("old", _title, "The tag's title")->required();
    _rename->add_option("new", _newTitle, "The new title (no commas or spaces)")->required();
    _delete = command->add_subcommand("delete", "Remove a tag from every post");
    _delete->add_option("title", _title, "The tag's title")->required();
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    TarrowStore store(session.context());
    NSErrorPtr error;
    auto tag = store.tag(_title, &error);
    if (!tag) return error;
    if (_rename->parsed()) {
      if (auto problem = _checkNewTitle(store)) return problem;
      // The service knows the tag by the title it had before the first
      // unsent rename.
      if (!tag->previousTitle()) tag->setPreviousTitle(tag->title());
      tag->setTitle(_newTitle);
      tag->setDirty(true);
    } else {
      tag->setDeleting(true);
    }
    if (!store.save(&error)) return error;
    session.out() << (_rename->parsed() ? TarrowLocalized("Renamed %@ to %@; the next tarrow sync sends it.",
                                                          {_title, _newTitle})
                                        : TarrowLocalized("Deleted the tag %@; the next tarrow sync sends it.",
                                                          {_title}))
                  << "\n";
    return nullptr;
  }

private:
  NSErrorPtr _checkNewTitle(const TarrowStore& store) const {
    if (_newTitle.empty() || TarrowSplitTags({_newTitle}) != std::vector<std::string>{_newTitle})
      return TarrowMakeError(TarrowInvalidInputError, TarrowLocalized("“%@” can’t be a tag", {_newTitle}),
                             TarrowLocalized("A tag holds no commas or spaces."));
    NSErrorPtr ignored;
    if (_newTitle != _title && store.tag(_newTitle, &ignored))
      return TarrowMakeError(TarrowInvalidInputError, TarrowLocalized("There is already a tag %@", {_newTitle}),
                             TarrowLocalized("Choose another title."));
    return nullptr;
  }

  CLI::App* _rename = nullptr;
  CLI::App* _delete = nullptr;
  std::string _title, _newTitle;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeTagCommand() { return std::make_unique<TarrowCommandTag>(); }
