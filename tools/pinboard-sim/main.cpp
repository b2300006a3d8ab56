// pinboard-sim: serves a simulated Pinboard on loopback until interrupted.
//
//   pinboard-sim --port 0 --seed-user alice:SECRET --bookmarks 1000 --state sim.json
//
// prints the address it listens on as its first line of output.
#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>

#include "pinboard-sim/Simulator.h"
#include "pinboard-sim/WebSide.h"

using namespace pinboard_sim;

namespace {

bool setQuirk(Quirks& q, const std::string& setting, std::string& error) {
  std::size_t eq = setting.find('=');
  std::string name = setting.substr(0, eq);
  std::string value = eq == std::string::npos ? "on" : setting.substr(eq + 1);
  if (value != "on" && value != "off") {
    error = "quirk value must be on or off: " + setting;
    return false;
  }
  bool on = value == "on";
  static const std::pair<const char*, bool Quirks::*> table[] = {
      {"string-counts", &Quirks::stringCounts},
      {"empty-map-as-array", &Quirks::emptyMapAsArray},
      {"trailing-whitespace", &Quirks::trailingWhitespace},
      {"escape-slashes", &Quirks::escapeSlashes},
      {"escape-non-ascii", &Quirks::escapeNonASCII},
      {"bom", &Quirks::byteOrderMark},
      {"text-plain", &Quirks::textPlain},
      {"untagged-feed-empty-tag", &Quirks::untaggedFeedItemEmptyTag},
      {"feed-dates-with-offset", &Quirks::feedDatesWithOffset},
      {"keep-time-on-replace", &Quirks::keepTimeOnReplace},
      {"include-others", &Quirks::includeOthers},
      {"gzip", &Quirks::gzip},
      {"inclusive-date-range", &Quirks::inclusiveDateRange},
      {"truncate-overlong", &Quirks::truncateOverlong},
  };
  for (const auto& [n, member] : table) {
    if (name == n) {
      q.*member = on;
      return true;
    }
  }
  error = "unknown quirk: " + name;
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"A local simulator of the Pinboard v1 API and JSON feeds"};
  SimulatorOptions options;
  std::string seedFile, stateFile;
  std::vector<std::string> users, faults, quirkSettings;
  std::size_t bookmarks = 0;
  std::uint64_t generatorSeed = 1;
  bool serviceLimits = false;
  double rateGeneral = -1, rateRecent = -1, rateAll = -1;
  int webPort = -1;
  double webShare = 0, webDeadShare = 0.25;

  app.add_option("--host", options.host, "Address to listen on")->capture_default_str();
  app.add_option("--port", options.port, "Port to listen on (0: any free port)")->capture_default_str();
  app.add_option("--threads", options.threads, "Connections served at once")->capture_default_str();
  app.add_option("--seed", seedFile, "JSON seed file with accounts, bookmarks and notes")->check(CLI::ExistingFile);
  app.add_option("--state", stateFile,
                 "JSON state file: loaded at start when it exists, written after changes and at exit");
  app.add_option("--seed-user", users, "Account NAME:TOKEN[:PASSWORD] (repeatable)");
  app.add_option("--bookmarks", bookmarks, "Generated bookmarks for each --seed-user account");
  app.add_option("--generator-seed", generatorSeed, "Seed of the bookmark generator")->capture_default_str();
  app.add_option("--fault", faults,
                 "Fault PATH:ITEMS, items status=N, delay=S, garbage, truncate, empty, drop, cut, bom, apply "
                 "(serve the call, a write included, then spoil the answer), times=N, after=N (repeatable)");
  app.add_flag("--rate-limits", serviceLimits, "Enforce the service's rate limits (3 s, 60 s recent, 300 s all)");
  app.add_option("--rate-general", rateGeneral, "Seconds between any two calls of a user");
  app.add_option("--rate-recent", rateRecent, "Seconds between two posts/recent calls of a user");
  app.add_option("--rate-all", rateAll, "Seconds between two posts/all calls of a user");
  app.add_option("--feed-count", options.feeds.defaultCount, "Feed items without ?count=")->capture_default_str();
  app.add_option("--feed-max-count", options.feeds.maxCount, "Feed items at most, whatever ?count= asks")
      ->capture_default_str();
  app.add_option("--feed-lag", options.feeds.lag, "Seconds before an API write shows in the feeds")
      ->capture_default_str();
  app.add_option("--quirk", quirkSettings,
                 "NAME=on|off: string-counts, empty-map-as-array, trailing-whitespace, escape-slashes, "
                 "escape-non-ascii, bom, text-plain, untagged-feed-empty-tag, feed-dates-with-offset, "
                 "keep-time-on-replace, include-others, gzip, inclusive-date-range, truncate-overlong (repeatable)");
  app.add_option("--web-port", webPort,
                 "Also serve the web side for link checks on this port (0: any free port; off when absent)");
  app.add_option("--web-share", webShare,
                 "Share of generated bookmarks pointing at the web side (needs --web-port)")->capture_default_str();
  app.add_option("--web-dead-share", webDeadShare, "Share of those answering 404 or 410")->capture_default_str();
  CLI11_PARSE(app, argc, argv);

  for (const auto& setting : quirkSettings) {
    std::string error;
    if (!setQuirk(options.quirks, setting, error)) {
      std::cerr << "pinboard-sim: " << error << "\n";
      return 2;
    }
  }
  if (serviceLimits) options.rateLimits = RateLimits::service();
  if (rateGeneral >= 0) options.rateLimits.general = rateGeneral;
  if (rateRecent >= 0) options.rateLimits.recent = rateRecent;
  if (rateAll >= 0) options.rateLimits.all = rateAll;

  Simulator sim(options);
  std::string error;
  for (const auto& setting : faults) {
    std::optional<Fault> f = Fault::parse(setting, &error);
    if (!f) {
      std::cerr << "pinboard-sim: " << error << "\n";
      return 2;
    }
    sim.addFault(*f);
  }
  if (!seedFile.empty() && !sim.loadSeedFile(seedFile, &error)) {
    std::cerr << "pinboard-sim: " << error << "\n";
    return 2;
  }
  if (!stateFile.empty() && std::filesystem::exists(stateFile) && !sim.loadSeedFile(stateFile, &error)) {
    std::cerr << "pinboard-sim: " << error << "\n";
    return 2;
  }
  // Signals are taken synchronously by this thread; block them before the
  // servers' threads start so that none of those receives them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  std::unique_ptr<WebSide> web;
  if (webPort >= 0) {
    web = std::make_unique<WebSide>(options.host, webPort);
    if (!web->start(&error)) {
      std::cerr << "pinboard-sim: " << error << "\n";
      return 1;
    }
  }
  for (const auto& setting : users) {
    std::size_t c1 = setting.find(':');
    AccountSeed seed;
    seed.username = setting.substr(0, c1);
    if (seed.username.empty()) {
      std::cerr << "pinboard-sim: bad --seed-user " << setting << "\n";
      return 2;
    }
    if (c1 != std::string::npos) {
      std::size_t c2 = setting.find(':', c1 + 1);
      seed.token = setting.substr(c1 + 1, c2 == std::string::npos ? std::string::npos : c2 - c1 - 1);
      if (c2 != std::string::npos) seed.password = setting.substr(c2 + 1);
    }
    // An account restored from the state file keeps its bookmarks.
    bool fresh = sim.token(seed.username).empty();
    sim.addAccount(seed);
    if (fresh && bookmarks > 0) {
      GeneratorOptions g;
      g.seed = generatorSeed;
      if (web) {
        g.webBase = web->baseURL();
        g.webShare = webShare;
        g.deadShare = webDeadShare;
      }
      if (!sim.generateBookmarks(seed.username, bookmarks, g)) {
        std::cerr << "pinboard-sim: no account " << seed.username << " to generate bookmarks for\n";
        return 1;
      }
    }
  }

  if (!sim.start(&error)) {
    std::cerr << "pinboard-sim: " << error << "\n";
    return 1;
  }
  std::cout << sim.baseURL() << "\n"
            << "api: " << sim.apiURL() << "\n"
            << "feeds: " << sim.feedsURL() << "\n";
  if (web) std::cout << "web: " << web->baseURL() << "\n";
  for (const auto& setting : users) {
    std::string name = setting.substr(0, setting.find(':'));
    std::cout << "user " << name << ": " << sim.bookmarkCount(name) << " bookmarks\n";
  }
  std::cout.flush();

  std::uint64_t saved = sim.stateVersion();
  auto save = [&] {
    std::uint64_t version = sim.stateVersion();
    if (stateFile.empty() || version == saved) return;
    if (!sim.saveState(stateFile, &error)) std::cerr << "pinboard-sim: " << error << "\n";
    saved = version;
  };
  if (!stateFile.empty() && !std::filesystem::exists(stateFile)) {
    saved = ~std::uint64_t(0);
    save();
  }
  for (;;) {
    timespec wait{1, 0};
    int sig = sigtimedwait(&signals, nullptr, &wait);
    save();  // at most once a second, and only after a change
    if (sig == SIGINT || sig == SIGTERM) break;
  }
  sim.stop();
  if (web) web->stop();
  save();
  if (std::size_t refused = sim.rateLimitViolations()) {
    std::cerr << "pinboard-sim: " << refused << " calls came too soon (429):";
    for (const auto& r : sim.requestLog())
      if (r.status == 429 && !r.faulted) std::cerr << " " << r.path;
    std::cerr << "\n";
  }
  return 0;
}
