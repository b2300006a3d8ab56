// tarrow delete URL…: marks bookmarks as deleted; the next sync deletes them
// on Pinboard and then here.

#include "TarrowCommands.h"
#include "TarrowStore.h"
#include "TarrowText.h"

namespace {

class TarrowCommandDelete final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("delete", "Delete bookmarks (on Pinboard with the next sync)");
    command->add_option("url", _urls, "The bookmarks' URLs")->required();
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    TarrowStore store(session.context());
    NSErrorPtr error;
    // All or nothing: every URL is looked up before any is marked.
    std::vector<ZBTarrowPinboardPostPtr> posts;
    for (const auto& url : _urls) {
      auto post = store.post(url, &error);
      if (!post) return error;
      posts.push_back(std::move(post));
    }
    for (const auto& post : posts) post->setDeleting(true);
    if (!store.save(&error)) return error;
    session.out() << TarrowLocalized("Deleted %@ bookmarks; the next tarrow sync deletes them on Pinboard.",
                                     {std::to_string(posts.size())})
                  << "\n";
    return nullptr;
  }

private:
  std::vector<std::string> _urls;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeDeleteCommand() { return std::make_unique<TarrowCommandDelete>(); }
