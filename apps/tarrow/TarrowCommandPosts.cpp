// tarrow posts: the stored bookmarks, filtered by a collection, tags, text
// or a predicate, sorted and limited. Reads the local store only.

#include "TarrowCommands.h"
#include "TarrowPostView.h"
#include "TarrowPredicateInput.h"
#include "TarrowStore.h"
#include "TarrowText.h"
#include "platform/predicate/NSCompoundPredicate.h"

namespace {

class TarrowCommandPosts final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("posts", "List stored bookmarks (the local copy; nothing is sent)");
    command->add_option("--collection,-c", _collection, "Only the posts of this collection (title or identifier)");
    command->add_option("--tag,-t", _tags, "Only posts with this tag (repeatable: all of them)");
    command->add_option("--text", _text, "Only posts whose title, description or URL contains this text");
    command->add_option("--where,-w", _where,
                        "Only posts matching this predicate, e.g. 'unread == YES AND relative_date >= $7__days'");
    command->add_option("--sort", _sort, "Order by date, title or url")
        ->check(CLI::IsMember({"date", "title", "url"}))
        ->capture_default_str();
    command->add_flag("--reverse,-r", _reverse, "Reverse the order (by date: oldest first; else Z to A)");
    command->add_option("--limit,-n", _limit, "At most this many posts (0: all)")->capture_default_str();
    command->add_flag("--json", _json, "Print a JSON array of posts");
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    TarrowStore store(session.context());
    NSErrorPtr error;
    NSPredicatePtr predicate = _predicate(store, &error);
    if (!predicate) return error;
    // Newest first by date; A to Z by title or URL.
    const bool byDate = _sort == "date";
    auto order = NSSortDescriptor::sortDescriptorWithKey(
        _sort, byDate == _reverse, byDate ? NSSortComparison::Compare : NSSortComparison::LocalizedCaseInsensitiveCompare);
    auto posts = store.fetch(ZBTarrowPinboardPostEntityName, predicate, {order}, _limit, &error);
    if (!posts) return error;

    if (_json) {
      nlohmann::json list = nlohmann::json::array();
      for (const auto& object : *posts)
        list.push_back(TarrowPostView::fromPost(static_cast<ZBTarrowPinboardPost&>(*object)).json());
      session.out() << list.dump(2) << "\n";
      return nullptr;
    }
    for (const auto& object : *posts)
      TarrowPostView::fromPost(static_cast<ZBTarrowPinboardPost&>(*object)).print(session.out());
    if (_limit > 0 && posts->size() == _limit) {
      const std::int64_t all = store.count(ZBTarrowPinboardPostEntityName, predicate, nullptr);
      if (all > static_cast<std::int64_t>(_limit))
        session.err() << TarrowLocalized("%@ of %@ posts shown (--limit 0 shows all)",
                                         {std::to_string(_limit), std::to_string(all)})
                      << "\n";
    }
    return nullptr;
  }

private:
  NSPredicatePtr _predicate(const TarrowStore& store, NSErrorPtr* error) const {
    std::vector<NSPredicatePtr> parts{TarrowStore::notDeleting()};
    if (!_collection.empty()) {
      auto collection = store.collection(_collection, error);
      if (!collection) return nullptr;
      if (auto shown = collection->displayPredicate()) parts.push_back(shown);
    }
    for (const auto& tag : TarrowSplitTags(_tags)) {
      parts.push_back(
          NSPredicate::predicateWithFormat("ANY %K ==[c] %@", {Value(ZBTarrowPinboardPostTagsKey + ".title"), Value(tag)}));
    }
    if (!_text.empty()) {
      parts.push_back(NSPredicate::predicateWithFormat(
          "%K CONTAINS[cd] %@ OR %K CONTAINS[cd] %@ OR %K CONTAINS[cd] %@",
          {Value(ZBTarrowPinboardPostTitleKey), Value(_text), Value(ZBTarrowPinboardPostDescKey), Value(_text),
           Value(ZBTarrowPinboardPostURLKey), Value(_text)}));
    }
    if (!_where.empty()) {
      auto typed = TarrowParsePredicate(_where, error);
      if (!typed) return nullptr;
      if (NSErrorPtr unknown = TarrowCheckPostKeys(*typed, store.context())) {
        ZBSetError(error, unknown);
        return nullptr;
      }
      parts.push_back(TarrowConcretePredicate(typed, store.context()));
    }
    return NSCompoundPredicate::andPredicateWithSubpredicates(std::move(parts));
  }

  std::string _collection;
  std::vector<std::string> _tags;
  std::string _text;
  std::string _where;
  std::string _sort = "date";
  bool _reverse = false;
  std::uint64_t _limit = 50;
  bool _json = false;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakePostsCommand() { return std::make_unique<TarrowCommandPosts>(); }
