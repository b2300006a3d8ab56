#include "platform/foundation/NSError.h"

#include <cstring>
#include <functional>

#include "platform/foundation/ZBLocalizedString.h"

const std::string NSLocalizedDescriptionKey = "NSLocalizedDescription";
const std::string NSLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";
const std::string NSLocalizedRecoverySuggestionErrorKey = "NSLocalizedRecoverySuggestion";
const std::string NSLocalizedRecoveryOptionsErrorKey = "NSLocalizedRecoveryOptions";
const std::string NSRecoveryAttempterErrorKey = "NSRecoveryAttempter";
const std::string NSUnderlyingErrorKey = "NSUnderlyingError";
const std::string NSFilePathErrorKey = "NSFilePath";
const std::string NSURLErrorKey = "NSURL";
const std::string NSDetailedErrorsKey = "NSDetailedErrors";
const std::string NSValidationObjectErrorKey = "NSValidationErrorObject";
const std::string NSDebugDescriptionErrorKey = "NSDebugDescription";
const std::string NSValidationKeyErrorKey = "NSValidationErrorKey";
const std::string NSPersistentStoreSaveConflictsErrorKey = "conflictList";

const std::string NSCocoaErrorDomain = "NSCocoaErrorDomain";
const std::string NSPOSIXErrorDomain = "NSPOSIXErrorDomain";

namespace {

std::optional<std::string> stringForKey(const Dictionary& userInfo, const std::string& key) {
  const Value& v = userInfo[key];
  if (!v.isString()) return std::nullopt;
  return v.asString();
}

std::string posixMessage(std::int64_t code) {
  char buffer[256];
  // GNU strerror_r: returns a pointer to the message, which may or may not be buffer.
  const char* message = strerror_r(static_cast<int>(code), buffer, sizeof buffer);
  return message ? std::string(message) : std::string();
}

}  // namespace

NSError::NSError(std::string domain, std::int64_t code, Dictionary userInfo)
    : _domain(std::move(domain)), _code(code), _userInfo(std::move(userInfo)) {}

NSErrorPtr NSError::create(std::string domain, std::int64_t code, Dictionary userInfo) {
  return std::make_shared<const NSError>(std::move(domain), code, std::move(userInfo));
}

NSErrorPtr NSError::create(std::string domain, std::int64_t code, const std::string& description,
                           const std::string& recoverySuggestion) {
  Dictionary userInfo;
  if (!description.empty()) userInfo.set(NSLocalizedDescriptionKey, description);
  if (!recoverySuggestion.empty()) userInfo.set(NSLocalizedRecoverySuggestionErrorKey, recoverySuggestion);
  return create(std::move(domain), code, std::move(userInfo));
}

std::string NSError::localizedDescription() const {
  if (auto description = stringForKey(_userInfo, NSLocalizedDescriptionKey)) return *description;
  // The platform's fallbacks, from the most to the least specific.
  const std::string couldNotComplete = ZBLocalizedString("The operation couldn’t be completed.");
  if (auto reason = stringForKey(_userInfo, NSLocalizedFailureReasonErrorKey)) {
    return couldNotComplete + " " + *reason;
  }
  if (_domain == NSCocoaErrorDomain && _code == NSUserCancelledError) return ZBLocalizedString("The operation was cancelled.");
  if (_domain == NSPOSIXErrorDomain && _code > 0) {
    std::string message = posixMessage(_code);
    if (!message.empty() && message.rfind("Unknown error", 0) != 0) return couldNotComplete + " " + message;
  }
  return couldNotComplete + " (" + _domain + " error " + std::to_string(_code) + ".)";
}

std::optional<std::string> NSError::localizedRecoverySuggestion() const {
  return stringForKey(_userInfo, NSLocalizedRecoverySuggestionErrorKey);
}

std::optional<std::string> NSError::localizedFailureReason() const {
  return stringForKey(_userInfo, NSLocalizedFailureReasonErrorKey);
}

std::vector<std::string> NSError::localizedRecoveryOptions() const {
  std::vector<std::string> titles;
  const Value& options = _userInfo[NSLocalizedRecoveryOptionsErrorKey];
  if (!options.isArray()) return titles;
  for (const Value& title : options.asArray()) {
    if (title.isString()) titles.push_back(title.asString());
  }
  return titles;
}

std::shared_ptr<NSObject> NSError::recoveryAttempter() const {
  const Value& attempter = _userInfo[NSRecoveryAttempterErrorKey];
  return attempter.isObject() ? attempter.asObject() : nullptr;
}

NSErrorPtr NSError::underlyingError() const {
  return _userInfo[NSUnderlyingErrorKey].as<NSError>();
}

bool NSError::isEqual(const NSObject& other) const {
  if (this == &other) return true;
  const auto* error = dynamic_cast<const NSError*>(&other);
  return error && error->_code == _code && error->_domain == _domain && error->_userInfo == _userInfo;
}

std::size_t NSError::hash() const {
  return std::hash<std::string>()(_domain) ^ (std::hash<std::int64_t>()(_code) * 31u);
}

std::string NSError::description() const {
  std::string text = "Error Domain=" + _domain + " Code=" + std::to_string(_code) + " \"" +
                     localizedDescription() + "\"";
  if (!_userInfo.empty()) text += " UserInfo=" + Value(_userInfo).description();
  return text;
}
