// tarrow config [KEY [VALUE]] [--unset]: the service settings kept in the data
// directory's defaults, so that every later run there uses them: which
// service to talk to, and the spacing of requests (for a local simulator with
// scaled-down rate limits that both sides agree on). Without a key it lists
// them all with their current values.

#include <cmath>
#include <iomanip>

#include <nlohmann/json.hpp>

#include "TarrowCommands.h"
#include "TarrowErrors.h"
#include "TarrowText.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/pinboardkit/ZBPinboardKit.h"

namespace {

struct Setting {
  const char* name;
  const std::string* key;
  bool number;  // seconds (or a count of retries); otherwise an address
};

const Setting kSettings[] = {
    {"api-url", &ZBPinboardAPIBaseURLDefaultKey, false},
    {"feeds-url", &ZBPinboardFeedsBaseURLDefaultKey, false},
    {"request-interval", &ZBPinboardRequestIntervalDefaultKey, true},
    {"recent-interval", &ZBPinboardRecentIntervalDefaultKey, true},
    {"all-posts-interval", &ZBPinboardAllPostsIntervalDefaultKey, true},
    {"feed-interval", &ZBPinboardFeedIntervalDefaultKey, true},
    {"backoff-initial", &ZBPinboardBackoffInitialDefaultKey, true},
    {"backoff-maximum", &ZBPinboardBackoffMaximumDefaultKey, true},
    {"backoff-retries", &ZBPinboardBackoffRetriesDefaultKey, true},
};

class TarrowCommandConfig final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("config", "Show or set the service settings of this data directory");
    std::string names;
    for (const auto& setting : kSettings) names += std::string(names.empty() ? "" : ", ") + setting.name;
    command->add_option("key", _key, "One of: " + names);
    command->add_option("value", _value, "The new value (seconds for the intervals, an address for the URLs)");
    command->add_flag("--unset", _unset, "Go back to the default value");
    command->add_flag("--json", _json, "Print the settings as a JSON object");
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    auto defaults = NSUserDefaults::standardUserDefaults();
    if (_key.empty()) return _list(session, *defaults);
    const Setting* setting = nullptr;
    for (const auto& candidate : kSettings)
      if (_key == candidate.name) setting = &candidate;
    if (!setting)
      return TarrowMakeError(TarrowInvalidInputError, TarrowLocalized("No setting named “%@”", {_key}),
                             TarrowLocalized("tarrow config lists the settings."));
    if (_unset) {
      defaults->removeObject(*setting->key);
    } else if (!_value) {
      session.out() << _shown(*defaults, *setting) << "\n";
      return nullptr;
    } else if (setting->number) {
      char* end = nullptr;
      const double seconds = std::strtod(_value->c_str(), &end);
      if (_value->empty() || *end != '\0' || !std::isfinite(seconds) || seconds < 0)
        return TarrowMakeError(TarrowInvalidInputError, TarrowLocalized("“%@” is not a number of seconds", {*_value}),
                               TarrowLocalized("Give a number of seconds, 0 or more (1.5)."));
      defaults->setObject(Value(seconds), *setting->key);
    } else {
      defaults->setObject(Value(*_value), *setting->key);
    }
    NSErrorPtr error;
    if (!defaults->synchronize(&error)) return error;
    return nullptr;
  }

private:
  static std::string _shown(NSUserDefaults& defaults, const Setting& setting) {
    Value value = defaults.objectForKey(*setting.key);
    if (!value) return TarrowLocalized("(default)");
    if (value.isNumber()) {
      std::ostringstream number;
      number << value.doubleValue();
      return number.str();
    }
    return value.isString() ? value.asString() : std::string();
  }

  NSErrorPtr _list(TarrowSession& session, NSUserDefaults& defaults) const {
    if (_json) {
      nlohmann::json object = nlohmann::json::object();
      for (const auto& setting : kSettings) {
        Value value = defaults.objectForKey(*setting.key);
        object[setting.name] = !value ? nlohmann::json(nullptr)
                               : value.isNumber() ? nlohmann::json(value.doubleValue())
                                                  : nlohmann::json(value.isString() ? value.asString() : "");
      }
      session.out() << object.dump(2) << "\n";
      return nullptr;
    }
    for (const auto& setting : kSettings)
      session.out() << std::left << std::setw(20) << setting.name << _shown(defaults, setting) << "\n";
    return nullptr;
  }

  std::string _key;
  std::optional<std::string> _value;
  bool _unset = false;
  bool _json = false;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeConfigCommand() { return std::make_unique<TarrowCommandConfig>(); }
