#pragma once
// ZBErrorRecoveryAttempter: the recovery attempter placed in an error's user
// information (NSRecoveryAttempterErrorKey), with one action per recovery
// option. Its titles go under NSLocalizedRecoveryOptionsErrorKey, in the same
// order, so the interface shows option i and calls attemptRecoveryFromError
// with i. Created with create(), held by shared_ptr. Thread-safe.

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"

class ZBErrorRecoveryAttempter final : public NSObject {
public:
  // Returns whether recovery succeeded.
  using Action = std::function<bool()>;

  static std::shared_ptr<ZBErrorRecoveryAttempter> create();

  // Appends an option. title is shown as is: pass it localised
  // (ZBLocalizedString("Continue Without Saving")).
  void addRecoveryOption(std::string title, Action action);
  // Appends the standard "Cancel" option (localised), whose action does
  // nothing and reports failure.
  void addCancelRecoveryOption();

  // The option titles in order, and the same as an array value for
  // NSLocalizedRecoveryOptionsErrorKey.
  std::vector<std::string> recoveryOptions() const;
  Value recoveryOptionsValue() const;

  // Runs the action of option optionIndex and returns its result; false for
  // an index out of range. The action runs on the calling thread, with no
  // lock held.
  bool attemptRecoveryFromError(const NSErrorPtr& error, std::size_t optionIndex) const;

  std::string className() const override { return "ZBErrorRecoveryAttempter"; }

  ZBErrorRecoveryAttempter() = default;

private:
  struct Option {
    std::string title;
    Action action;
  };
  mutable std::mutex _mutex;
  std::vector<Option> _options;  // guarded by _mutex
};
