#include "platform/foundation/ZBErrorRecoveryAttempter.h"

#include "platform/foundation/ZBLocalizedString.h"

std::shared_ptr<ZBErrorRecoveryAttempter> ZBErrorRecoveryAttempter::create() {
  return std::make_shared<ZBErrorRecoveryAttempter>();
}

void ZBErrorRecoveryAttempter::addRecoveryOption(std::string title, Action action) {
  std::lock_guard lock(_mutex);
  _options.push_back({std::move(title), std::move(action)});
}

void ZBErrorRecoveryAttempter::addCancelRecoveryOption() {
  addRecoveryOption(ZBLocalizedString("Cancel"), [] { return false; });
}

std::vector<std::string> ZBErrorRecoveryAttempter::recoveryOptions() const {
  std::lock_guard lock(_mutex);
  std::vector<std::string> titles;
  titles.reserve(_options.size());
  for (const auto& option : _options) titles.push_back(option.title);
  return titles;
}

Value ZBErrorRecoveryAttempter::recoveryOptionsValue() const {
  Array titles;
  for (auto& title : recoveryOptions()) titles.emplace_back(std::move(title));
  return Value(std::move(titles));
}

bool ZBErrorRecoveryAttempter::attemptRecoveryFromError(const NSErrorPtr&, std::size_t optionIndex) const {
  Action action;
  {
    std::lock_guard lock(_mutex);
    if (optionIndex >= _options.size()) return false;
    action = _options[optionIndex].action;
  }
  return action ? action() : false;
}
