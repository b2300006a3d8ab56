// tarrow status: who is signed in, what the store holds, when it was last in
// step with the service, and where everything lives.

#include "TarrowCommands.h"
#include "TarrowPostView.h"
#include "TarrowSettings.h"
#include "TarrowStore.h"
#include "TarrowText.h"
#include "platform/pinboardkit/ZBPinboardKit.h"
#include "store/ZBTarrowDataStoreCoordinator.h"
#include "sync/ZBTarrowPinboardRefreshOperation.h"

namespace {

nlohmann::json dateJSON(const std::optional<NSDate>& date) {
  return date ? nlohmann::json(date->ISO8601String()) : nlohmann::json(nullptr);
}

class TarrowCommandStatus final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("status", "Show the account, the counts, the last sync and where data lives");
    command->add_flag("--json", _json, "Print a JSON object");
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    TarrowStore store(session.context());
    NSErrorPtr error;
    auto unsent = NSPredicate::predicateWithFormat(
        "%K == YES OR %K == YES", {Value(ZBTarrowPinboardObjectDirtyKey), Value(ZBTarrowPinboardObjectDeletingKey)});
    const std::int64_t posts = store.count(ZBTarrowPinboardPostEntityName, TarrowStore::notDeleting(), &error);
    const std::int64_t changed = store.count(ZBTarrowPinboardPostEntityName, unsent, &error);
    const std::int64_t tags = store.count(ZBTarrowPinboardTagEntityName, TarrowStore::notDeleting(), &error);
    const std::int64_t collections = store.count(ZBTarrowCollectionEntityName, nullptr, &error);
    const std::int64_t searches = store.count(ZBTarrowSearchEntityName, nullptr, &error);
    if (error) return error;

    auto defaults = NSUserDefaults::standardUserDefaults();
    auto controller = session.controller();
    nlohmann::json status{
        {"signedIn", controller->isAuthenticated()},
        {"username", controller->isAuthenticated() ? nlohmann::json(controller->username()) : nlohmann::json(nullptr)},
        {"posts", posts},
        {"unsentPosts", changed},
        {"tags", tags},
        {"collections", collections},
        {"searches", searches},
        {"lastSync", dateJSON(defaults->dateForKey(TarrowLastSyncDefaultKey))},
        {"lastServiceChange",
         dateJSON(defaults->dateForKey(ZBTarrowPinboardRefreshOperationLastUpdateTimestampDefaultKey))},
        {"apiURL", _orDefault(defaults->stringForKey(ZBPinboardAPIBaseURLDefaultKey), "https://api.pinboard.in/v1/")},
        {"stores", ZBTarrowDataApplicationGroupContainerStoresURL().path()},
        {"defaults", NSUserDefaults::standardUserDefaultsPath().string()},
    };
    if (_json) {
      session.out() << status.dump(2) << "\n";
      return nullptr;
    }
    auto& out = session.out();
    out << (controller->isAuthenticated() ? TarrowLocalized("Signed in as %@", {controller->username()})
                                          : TarrowLocalized("Not signed in"))
        << "\n";
    out << TarrowLocalized("Bookmarks: %@ (%@ not sent yet)", {std::to_string(posts), std::to_string(changed)}) << "\n";
    out << TarrowLocalized("Tags: %@, collections: %@, saved searches: %@",
                           {std::to_string(tags), std::to_string(collections), std::to_string(searches)})
        << "\n";
    out << TarrowLocalized("Last sync: %@", {_text(status["lastSync"])}) << "\n";
    out << TarrowLocalized("Service: %@", {status["apiURL"].get<std::string>()}) << "\n";
    out << TarrowLocalized("Stores: %@", {status["stores"].get<std::string>()}) << "\n";
    out << TarrowLocalized("Defaults: %@", {status["defaults"].get<std::string>()}) << "\n";
    return nullptr;
  }

private:
  static std::string _orDefault(std::string value, const char* fallback) { return value.empty() ? fallback : value; }
  static std::string _text(const nlohmann::json& date) {
    return date.is_string() ? date.get<std::string>() : TarrowLocalized("never");
  }

  bool _json = false;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeStatusCommand() { return std::make_unique<TarrowCommandStatus>(); }
