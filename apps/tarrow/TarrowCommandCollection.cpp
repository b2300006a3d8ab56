// tarrow collection add|edit|delete: the user's own smart collections, a
// title and a predicate over the posts (relative dates such as
// "relative_date >= $7__days" stay relative). Built-in collections cannot be
// changed.

#include "TarrowCommands.h"
#include "TarrowErrors.h"
#include "TarrowPredicateInput.h"
#include "TarrowStore.h"
#include "TarrowText.h"
#include "platform/predicate/NSCompoundPredicate.h"

namespace {

class TarrowCommandCollection final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("collection", "Add, change or delete a smart collection");
    command->require_subcommand(1);
    const char* whereHelp = "Predicate over the posts, e.g. 'unread == YES AND relative_date >= $7__days'";
    _add = command->add_subcommand("add", "Add a smart collection");
    _add->add_option("title", _title, "The collection's title")->required();
    _add->add_option("--where,-w", _where, whereHelp)->required();
    _edit = command->add_subcommand("edit", "Change a smart collection");
    _edit->add_option("name", _name, "The collection's title or identifier")->required();
    _edit->add_option("--title", _title, "New title");
    _edit->add_option("--where,-w", _where, whereHelp);
    _delete = command->add_subcommand("delete", "Delete a smart collection");
    _delete->add_option("name", _name, "The collection's title or identifier")->required();
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    TarrowStore store(session.context());
    NSErrorPtr error;
    ZBTarrowCollectionPtr collection;
    if (_add->parsed()) {
      collection = store.context()->insertNewObject<ZBTarrowCollection>(ZBTarrowCollectionEntityName);
      collection->setValueForKey(Value(true), ZBTarrowCollectionEditableKey);
      collection->setValueForKey(Value(_nextOrder(store)), ZBTarrowCollectionOrderKey);
    } else {
      collection = store.collection(_name, &error);
      if (!collection) return error;
      if (!collection->editable())
        return TarrowMakeError(TarrowInvalidInputError,
                               TarrowLocalized("“%@” is built in", {collection->title().value_or(_name)}),
                               TarrowLocalized("Only your own collections can be changed."));
    }
    if (_delete->parsed()) {
      store.context()->deleteObject(collection);
      if (!store.save(&error)) return error;
      session.out() << TarrowLocalized("Deleted the collection %@.", {collection->title().value_or(_name)}) << "\n";
      return nullptr;
    }
    if (!_title.empty()) collection->setValueForKey(Value(_title), ZBTarrowCollectionTitleKey);
    if (!_where.empty()) {
      auto predicate = TarrowParsePredicate(_where, &error);
      if (!predicate) return error;
      if (NSErrorPtr unknown = TarrowCheckPostKeys(*predicate, store.context())) return unknown;
      // A predicate the store cannot run is refused before it is kept.
      auto concrete = NSCompoundPredicate::andPredicateWithSubpredicates(
          {TarrowStore::notDeleting(), TarrowConcretePredicate(predicate, store.context())});
      if (store.count(ZBTarrowPinboardPostEntityName, concrete, &error) < 0) return error;
      collection->setPredicate(predicate);
    }
    if (!store.save(&error)) return error;
    session.out() << TarrowLocalized("Saved the collection %@ (%@ posts).",
                                     {collection->title().value_or(""), std::to_string(collection->postCount())})
                  << "\n";
    return nullptr;
  }

private:
  static std::int64_t _nextOrder(const TarrowStore& store) {
    auto last = store.fetch(ZBTarrowCollectionEntityName, nullptr,
                            {NSSortDescriptor::sortDescriptorWithKey(ZBTarrowCollectionOrderKey, false)}, 1, nullptr);
    if (!last || last->empty()) return 0;
    return static_cast<ZBTarrowCollection&>(*last->front()).order() + 1;
  }

  CLI::App* _add = nullptr;
  CLI::App* _edit = nullptr;
  CLI::App* _delete = nullptr;
  std::string _name, _title, _where;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeCollectionCommand() { return std::make_unique<TarrowCommandCollection>(); }
