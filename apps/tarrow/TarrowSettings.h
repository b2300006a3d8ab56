#pragma once
// Where tarrow keeps its data and which service it talks to, from options
// that every subcommand takes or from the environment:
//
//   --data-dir DIR      TARROW_DATA_DIR        stores under DIR (as the data
//                                              home), defaults and credentials
//                                              in DIR/defaults.plist beside
//   --api-url URL       TARROW_API_URL         the service's v1 API
//   --feeds-url URL     TARROW_FEEDS_URL       the service's JSON feeds
//   (environment only)  TARROW_REQUEST_INTERVAL seconds between requests,
//                                              for a local simulator
//
// Without a data directory the usual places apply ($XDG_DATA_HOME,
// $ZBTARROW_DEFAULTS_PATH, $XDG_CONFIG_HOME). Service settings given here
// hold for this run only; they are registered defaults, so a value written
// into the defaults file by hand still wins.

#include <optional>
#include <string>

namespace CLI {
class App;
}

// "tarrowLastSyncDate" in the standard defaults: when a sync last succeeded.
extern const std::string TarrowLastSyncDefaultKey;

struct TarrowSettings {
  std::string dataDirectory;
  std::string apiURL;
  std::string feedsURL;
  std::optional<double> requestInterval;

  void addOptions(CLI::App& app);
  // Points the stores, the standard defaults and the service at the choices
  // above. Call before the data controller is made.
  void apply() const;
};
