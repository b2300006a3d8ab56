// tarrow searches: the sidebar's saved searches of the service's feeds (run
// one with `tarrow feed --saved NAME`).

#include "TarrowCommands.h"
#include "TarrowStore.h"

#include <nlohmann/json.hpp>

namespace {

nlohmann::json optional(const std::optional<std::string>& text) {
  return text ? nlohmann::json(*text) : nlohmann::json(nullptr);
}

class TarrowCommandSearches final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("searches", "List the saved searches of Pinboard's feeds");
    command->add_flag("--json", _json, "Print a JSON array");
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    TarrowStore store(session.context());
    NSErrorPtr error;
    auto searches = store.fetch(ZBTarrowSearchEntityName, nullptr,
                                {NSSortDescriptor::sortDescriptorWithKey(ZBTarrowSearchOrderKey, true)}, 0, &error);
    if (!searches) return error;
    nlohmann::json list = nlohmann::json::array();
    for (const auto& object : *searches) {
      auto& search = static_cast<ZBTarrowSearch&>(*object);
      list.push_back({{"identifier", search.identifier().value_or("")},
                      {"title", search.title().value_or("")},
                      {"method", optional(search.method())},
                      {"username", optional(search.username())},
                      {"tags", optional(search.tags())},
                      {"editable", search.editable()}});
    }
    if (_json) {
      session.out() << list.dump(2) << "\n";
      return nullptr;
    }
    for (const auto& item : list) {
      session.out() << item["title"].get<std::string>();
      for (const char* key : {"method", "username", "tags"}) {
        if (item[key].is_string()) session.out() << "  " << key << "=" << item[key].get<std::string>();
      }
      session.out() << "\n";
    }
    return nullptr;
  }

private:
  bool _json = false;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeSearchesCommand() { return std::make_unique<TarrowCommandSearches>(); }
