// tarrow check-links: checks the address of every stored bookmark for a dead
// link, with how many were checked so far as progress, then lists the dead
// ones. The verdicts are stored; `posts --where 'dead == YES'` shows them
// later.

#include <unistd.h>

#include <atomic>

#include "TarrowCommands.h"
#include "TarrowPostView.h"
#include "TarrowStore.h"
#include "TarrowText.h"
#include "linkcheck/ZBTarrowLinkCheckerOperation.h"
#include "platform/operations/NSRunLoop.h"
#include "platform/predicate/NSCompoundPredicate.h"

namespace {

class TarrowCommandCheckLinks final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("check-links", "Look for dead links among the stored bookmarks");
    command->add_flag("--json", _json, "Print the dead bookmarks as a JSON array");
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    TarrowSession::Outcome outcome;
    auto operation = session.controller()->checkDeadLinks(outcome.handler());
    const bool terminal = isatty(STDERR_FILENO) == 1;
    // The count changes on the check's thread; it is shown from the main one.
    std::atomic<bool> pending{false};
    std::size_t shownPercent = 0, shownChecked = 0;
    auto show = [&](bool last) {
      auto checker = std::dynamic_pointer_cast<ZBTarrowLinkCheckerOperation>(operation);
      if (!checker || checker->totalCount() == 0) return;
      const std::size_t checked = checker->checkedCount(), total = checker->totalCount();
      const std::size_t percent = checked * 100 / total;
      if (!terminal && !last && percent / 10 == shownPercent / 10) return;  // a line per tenth in logs
      if (!terminal && last && checked == shownChecked) return;             // said already
      shownPercent = percent;
      shownChecked = checked;
      session.err() << (terminal ? "\r\033[K" : "")
                    << TarrowLocalized("Checked %@ of %@ addresses", {std::to_string(checked), std::to_string(total)})
                    << (terminal && !last ? "" : "\n") << std::flush;
    };
    NSKeyValueObservation counting;
    if (operation)
      counting = operation->addObserver(
          ZBTarrowLinkCheckerOperationCheckedCountKey, NSKeyValueObservingOptions::None,
          [&](const std::string&, NSObject&, const NSKeyValueChange&) {
            if (pending.exchange(true)) return;
            NSRunLoop::mainRunLoop()->performBlock([&] {
              pending = false;
              show(false);
            });
          });
    NSErrorPtr failed = session.wait(outcome);
    counting.invalidate();
    DrainPending(pending);
    show(true);
    if (failed) return failed;

    TarrowStore store(session.context());
    NSErrorPtr error;
    auto dead = NSCompoundPredicate::andPredicateWithSubpredicates(
        {TarrowStore::notDeleting(), NSPredicate::predicateWithFormat("%K == YES", {Value(ZBTarrowPinboardPostDeadKey)})});
    auto posts = store.fetch(ZBTarrowPinboardPostEntityName, dead, {}, 0, &error);
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
    session.out() << TarrowLocalized("%@ dead links.", {std::to_string(posts->size())}) << "\n";
    return nullptr;
  }

private:
  // Lets a count update already queued for the main loop run before the end.
  static void DrainPending(std::atomic<bool>& pending) {
    bool reached = false;
    NSRunLoop::mainRunLoop()->performBlock([&reached] { reached = true; });
    NSRunLoop::mainRunLoop()->runUntil([&] { return reached && !pending; }, 5);
  }

  bool _json = false;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeCheckLinksCommand() { return std::make_unique<TarrowCommandCheckLinks>(); }
