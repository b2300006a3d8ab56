// tarrow feed: searches Pinboard's public feeds — a named feed (popular,
// recent, network, popular/wikipedia…), a user's or everyone's bookmarks
// with tags, or a saved search of the sidebar.

#include "TarrowCommands.h"
#include "TarrowErrors.h"
#include "TarrowPostView.h"
#include "TarrowStore.h"
#include "TarrowText.h"

namespace {

class TarrowCommandFeed final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("feed", "Search Pinboard's feeds (popular, recent, a user, tags)");
    command->add_option("feed", _method, "A feed: popular, recent, network, popular/wikipedia, popular/fandom…");
    command->add_option("--user,-u", _user, "Public bookmarks of this user");
    command->add_option("--tag,-t", _tags, "Bookmarks with this tag (repeatable: all of them)");
    command->add_option("--saved", _saved, "Run this saved search (title or identifier, see tarrow searches)");
    command->add_flag("--json", _json, "Print a JSON array of posts");
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    TarrowStore store(session.context());
    NSErrorPtr error;
    // The search the request is made from: a saved one, or a throw-away one
    // in a scratch context that is never saved.
    ZBTarrowSearchPtr search;
    auto scratch = NSManagedObjectContext::create(NSConfinementConcurrencyType);
    scratch->setParentContext(store.context());
    if (!_saved.empty()) {
      search = store.search(_saved, &error);
      if (!search) return error;
    } else {
      search = scratch->insertNewObject<ZBTarrowSearch>(ZBTarrowSearchEntityName);
      if (!_method.empty()) search->setValueForKey(Value(_method), ZBTarrowSearchMethodKey);
      search->setValueForKey(Value(_method == "network"), ZBTarrowSearchAuthenticatedKey);
      if (!_user.empty()) search->setValueForKey(Value(_user), ZBTarrowSearchUsernameKey);
      std::string tags;
      for (const auto& tag : TarrowSplitTags(_tags)) tags += (tags.empty() ? "" : " ") + tag;
      if (!tags.empty()) search->setValueForKey(Value(tags), ZBTarrowSearchTagsKey);
    }
    std::optional<Array> posts;
    TarrowSession::Outcome outcome;
    session.controller()->retrievePostsForSearch(search, [&](std::optional<Array> result, NSErrorPtr failure) {
      posts = std::move(result);
      outcome.handler()(static_cast<bool>(posts), std::move(failure));
    });
    if (NSErrorPtr failed = session.wait(outcome)) return failed;

    if (_json) {
      nlohmann::json list = nlohmann::json::array();
      for (const Value& post : *posts) list.push_back(TarrowPostView::fromDictionary(post.asDictionary()).json());
      session.out() << list.dump(2) << "\n";
      return nullptr;
    }
    for (const Value& post : *posts) TarrowPostView::fromDictionary(post.asDictionary()).print(session.out());
    return nullptr;
  }

private:
  std::string _method, _user, _saved;
  std::vector<std::string> _tags;
  bool _json = false;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeFeedCommand() { return std::make_unique<TarrowCommandFeed>(); }
