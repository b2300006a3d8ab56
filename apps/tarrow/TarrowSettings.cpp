#include "TarrowSettings.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <filesystem>

#include "platform/foundation/NSUserDefaults.h"
#include "platform/pinboardkit/ZBPinboardKit.h"

const std::string TarrowLastSyncDefaultKey = "tarrowLastSyncDate";

void TarrowSettings::addOptions(CLI::App& app) {
  app.add_option("--data-dir", dataDirectory, "Keep stores, defaults and credentials in this directory")
      ->envname("TARROW_DATA_DIR");
  app.add_option("--api-url", apiURL, "Base URL of the Pinboard v1 API (for a local pinboard-sim)")
      ->envname("TARROW_API_URL");
  app.add_option("--feeds-url", feedsURL, "Base URL of the Pinboard JSON feeds (for a local pinboard-sim)")
      ->envname("TARROW_FEEDS_URL");
  if (const char* interval = std::getenv("TARROW_REQUEST_INTERVAL"); interval && *interval) {
    char* end = nullptr;
    double seconds = std::strtod(interval, &end);
    if (end && *end == '\0' && seconds >= 0) requestInterval = seconds;
  }
}

void TarrowSettings::apply() const {
  if (!dataDirectory.empty()) {
    std::filesystem::path directory = std::filesystem::absolute(dataDirectory);
    setenv("XDG_DATA_HOME", directory.c_str(), 1);
    NSUserDefaults::setStandardUserDefaultsPath(directory / "defaults.plist");
  }
  Dictionary registered;
  // The client wants base URLs ending in '/'.
  auto withSlash = [](std::string url) { return url.empty() || url.back() == '/' ? url : url + "/"; };
  if (!apiURL.empty()) registered.set(ZBPinboardAPIBaseURLDefaultKey, Value(withSlash(apiURL)));
  if (!feedsURL.empty()) registered.set(ZBPinboardFeedsBaseURLDefaultKey, Value(withSlash(feedsURL)));
  if (requestInterval) {
    for (const auto* key : {&ZBPinboardRequestIntervalDefaultKey, &ZBPinboardRecentIntervalDefaultKey,
                            &ZBPinboardAllPostsIntervalDefaultKey, &ZBPinboardFeedIntervalDefaultKey})
      registered.set(*key, Value(*requestInterval));
  }
  if (!registered.empty()) NSUserDefaults::standardUserDefaults()->registerDefaults(registered);
}
