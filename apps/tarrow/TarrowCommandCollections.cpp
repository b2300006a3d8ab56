// tarrow collections: the sidebar's smart collections with their live counts.

#include "TarrowCommands.h"
#include "TarrowStore.h"
#include "TarrowText.h"

#include <iomanip>

#include <nlohmann/json.hpp>

namespace {

class TarrowCommandCollections final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("collections", "List the smart collections with their post counts");
    command->add_flag("--json", _json, "Print a JSON array");
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    TarrowStore store(session.context());
    NSErrorPtr error;
    auto collections = store.fetch(ZBTarrowCollectionEntityName, nullptr,
                                   {NSSortDescriptor::sortDescriptorWithKey(ZBTarrowCollectionOrderKey, true)}, 0, &error);
    if (!collections) return error;
    nlohmann::json list = nlohmann::json::array();
    for (const auto& object : *collections) {
      auto& collection = static_cast<ZBTarrowCollection&>(*object);
      auto predicate = collection.predicate();
      list.push_back({{"identifier", collection.identifier().value_or("")},
                      {"title", collection.title().value_or("")},
                      {"count", collection.postCount()},
                      {"predicate", predicate ? nlohmann::json(predicate->predicateFormat()) : nlohmann::json(nullptr)},
                      {"editable", collection.editable()},
                      {"hidden", collection.hidden()}});
    }
    if (_json) {
      session.out() << list.dump(2) << "\n";
      return nullptr;
    }
    for (const auto& item : list) {
      session.out() << std::setw(8) << item["count"].get<std::uint64_t>() << "  " << item["title"].get<std::string>();
      if (item["editable"].get<bool>()) session.out() << "  " << item["predicate"].get<std::string>();
      session.out() << "\n";
    }
    return nullptr;
  }

private:
  bool _json = false;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeCollectionsCommand() { return std::make_unique<TarrowCommandCollections>(); }
