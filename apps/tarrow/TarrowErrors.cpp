#include "TarrowErrors.h"

#include <set>

#include "sync/ZBTarrowDataError.h"

const std::string TarrowErrorDomain = "com.orvane.tarrow";

NSErrorPtr TarrowMakeError(std::int64_t code, const std::string& description, const std::string& suggestion) {
  return NSError::create(TarrowErrorDomain, code, description, suggestion);
}

void TarrowPrintError(std::ostream& err, const NSError& error) {
  err << "tarrow: " << error.localizedDescription() << "\n";
  if (auto reason = error.localizedFailureReason()) err << "  " << *reason << "\n";
  if (auto suggestion = error.localizedRecoverySuggestion()) err << *suggestion << "\n";
  // What lies beneath, as the system said it (a refused connection, a time-out).
  for (auto cause = error.underlyingError(); cause; cause = cause->underlyingError())
    err << "  (" << cause->localizedDescription() << ")\n";
  // A batch's items mostly fail for one reason: each reason once, with what
  // to do about it.
  std::set<std::string> said;
  for (const Value& item : error.userInfo()[ZBTarrowDataUnderlyingErrorsKey].asArray()) {
    auto underlying = item.as<NSError>();
    if (!underlying) continue;
    std::string line = underlying->localizedDescription();
    if (auto suggestion = underlying->localizedRecoverySuggestion()) line += " " + *suggestion;
    if (said.insert(line).second) err << "  - " << line << "\n";
  }
}
