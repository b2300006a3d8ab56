// tarrow sync [--local-only] [--every DURATION]: brings the local copy and
// the service in step, with the controller's status line as progress. With
// --every it stays on the controller's auto-refresh timer (dead-link checks
// included) and reports each run until interrupted.

#include <cmath>
#include <ctime>

#include "TarrowCommands.h"
#include "TarrowErrors.h"
#include "TarrowSettings.h"
#include "TarrowStore.h"
#include "TarrowText.h"

namespace {

// "90", "90s", "15m", "2h", "1d" in seconds; nullopt for anything else or
// for zero.
std::optional<double> parseDuration(const std::string& text) {
  char* end = nullptr;
  const double amount = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || !(amount > 0) || !std::isfinite(amount)) return std::nullopt;
  const std::string unit(end);
  if (unit.empty() || unit == "s") return amount;
  if (unit == "m") return amount * 60;
  if (unit == "h") return amount * 3600;
  if (unit == "d") return amount * 86400;
  return std::nullopt;
}

class TarrowCommandSync final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("sync", "Send local changes to Pinboard and fetch what changed there");
    command->add_flag("--local-only", _localOnly, "Only send local changes");
    auto* every = command->add_option("--every", _every,
                        "Keep syncing at this interval (90, 90s, 15m, 2h, 1d), checking dead links now and then, "
                        "until interrupted");
    every->excludes("--local-only");
    command->add_flag("--wait", _wait,
                      "When another process is syncing this data directory, wait for it instead of giving up");
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    session.controller()->setRefreshWaitsForOtherProcesses(_wait);
    if (_every.empty()) return _syncOnce(session);
    auto interval = parseDuration(_every);
    if (!interval)
      return TarrowMakeError(TarrowInvalidInputError, TarrowLocalized("“%@” is not a duration", {_every}),
                             TarrowLocalized("Give seconds, or a number followed by s, m, h or d (15m)."));
    return _syncEvery(session, *interval);
  }

private:
  NSErrorPtr _syncOnce(TarrowSession& session) {
    TarrowSession::Outcome outcome;
    auto& controller = *session.controller();
    if (_localOnly) {
      controller.sendLocalChanges(outcome.handler());
    } else {
      controller.refresh(outcome.handler());
    }
    if (NSErrorPtr error = session.wait(outcome, true)) return error;
    _report(session);
    return nullptr;
  }

  NSErrorPtr _syncEvery(TarrowSession& session, double interval) {
    // The first sync runs now, and must work: a signed-out or unreachable
    // setup fails here instead of retrying forever.
    if (NSErrorPtr error = _syncOnce(session)) {
      return error->domain() == TarrowErrorDomain && error->code() == TarrowInterruptedError ? nullptr : error;
    }
    auto& controller = *session.controller();
    controller.setShouldCheckDeadLinks(true);
    controller.setAutoRefreshCompletion([&session, this](bool success, NSErrorPtr error) {
      if (success) {
        _report(session);
      } else if (error) {
        TarrowPrintError(session.err(), *error);
      }
    });
    controller.setRefreshInterval(interval);
    session.waitUntil([] { return false; }, true);
    controller.setRefreshInterval(0);
    controller.setAutoRefreshCompletion(nullptr);
    // Interrupting is how --every ends; the jobs were cancelled cleanly.
    session.out() << TarrowLocalized("Stopped.") << "\n";
    return nullptr;
  }

  void _report(TarrowSession& session) {
    const NSDate now = NSDate::date();
    NSUserDefaults::standardUserDefaults()->setObject(Value(now), TarrowLastSyncDefaultKey);
    NSUserDefaults::standardUserDefaults()->synchronize();
    TarrowStore store(session.context());
    const std::int64_t posts = store.count(ZBTarrowPinboardPostEntityName, TarrowStore::notDeleting(), nullptr);
    const std::int64_t tags = store.count(ZBTarrowPinboardTagEntityName, TarrowStore::notDeleting(), nullptr);
    session.out() << TarrowLocalized("Synced at %@: %@ bookmarks, %@ tags.",
                                     {now.ISO8601String(), std::to_string(posts), std::to_string(tags)})
                  << "\n"
                  << std::flush;
  }

  bool _localOnly = false;
  bool _wait = false;
  std::string _every;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeSyncCommand() { return std::make_unique<TarrowCommandSync>(); }
