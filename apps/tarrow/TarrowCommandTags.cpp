// tarrow tags: the tags with the number of posts carrying each.

#include "TarrowCommands.h"
#include "TarrowStore.h"

#include <algorithm>
#include <iomanip>

#include <nlohmann/json.hpp>

namespace {

class TarrowCommandTags final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("tags", "List the tags with their post counts");
    command->add_option("--sort", _sort, "Order by title or count (most used first)")
        ->check(CLI::IsMember({"title", "count"}))
        ->capture_default_str();
    command->add_flag("--json", _json, "Print a JSON array");
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    TarrowStore store(session.context());
    NSErrorPtr error;
    auto tags = store.fetch(ZBTarrowPinboardTagEntityName, TarrowStore::notDeleting(),
                            {NSSortDescriptor::sortDescriptorWithKey(ZBTarrowPinboardTagTitleKey, true,
                                                                     NSSortComparison::LocalizedCaseInsensitiveCompare)},
                            0, &error);
    if (!tags) return error;
    std::vector<std::pair<std::string, std::uint64_t>> rows;
    rows.reserve(tags->size());
    for (const auto& object : *tags) {
      auto& tag = static_cast<ZBTarrowPinboardTag&>(*object);
      rows.emplace_back(tag.title().value_or(""), tag.postCount());
    }
    if (_sort == "count")
      std::stable_sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
    if (_json) {
      nlohmann::json list = nlohmann::json::array();
      for (const auto& [title, count] : rows) list.push_back({{"title", title}, {"count", count}});
      session.out() << list.dump(2) << "\n";
      return nullptr;
    }
    for (const auto& [title, count] : rows) session.out() << std::setw(8) << count << "  " << title << "\n";
    return nullptr;
  }

private:
  std::string _sort = "title";
  bool _json = false;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeTagsCommand() { return std::make_unique<TarrowCommandTags>(); }
