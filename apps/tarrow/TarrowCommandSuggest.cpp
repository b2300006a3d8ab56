// tarrow suggest URL: the tags Pinboard suggests for a URL.

#include "TarrowCommands.h"

#include <nlohmann/json.hpp>

namespace {

class TarrowCommandSuggest final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("suggest", "Show the tags Pinboard suggests for a URL");
    command->add_option("url", _url, "The URL")->required();
    command->add_flag("--json", _json, "Print a JSON array of tags");
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    std::vector<std::string> tags;
    TarrowSession::Outcome outcome;
    session.controller()->retrieveSuggestedTagsForURL(
        _url, [&](std::optional<std::vector<std::string>> result, NSErrorPtr failure) {
          if (result) tags = std::move(*result);
          outcome.handler()(static_cast<bool>(result), std::move(failure));
        });
    if (NSErrorPtr failed = session.wait(outcome)) return failed;
    if (_json) {
      session.out() << nlohmann::json(tags).dump(2) << "\n";
      return nullptr;
    }
    for (const auto& tag : tags) session.out() << tag << "\n";
    return nullptr;
  }

private:
  std::string _url;
  bool _json = false;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeSuggestCommand() { return std::make_unique<TarrowCommandSuggest>(); }
