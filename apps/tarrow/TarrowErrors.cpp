#include "TarrowErrors.h"

#include "sync/ZBTarrowDataError.h"

const std::string TarrowErrorDomain = "com.orvane.tarrow";

NSErrorPtr TarrowMakeError(std::int64_t code, const std::string& description, const std::string& suggestion) {
  return NSError::create(TarrowErrorDomain, code, description, suggestion);
}

void TarrowPrintError(std::ostream& err, const NSError& error) {
  err << "tarrow: " << error.localizedDescription() << "\n";
  if (auto reason = error.localizedFailureReason()) err << "  " << *reason << "\n";
  if (auto suggestion = error.localizedRecoverySuggestion()) err << *suggestion << "\n";
  for (const Value& item : error.userInfo()[ZBTarrowDataUnderlyingErrorsKey].asArray()) {
    if (auto underlying = item.as<NSError>()) err << "  - " << underlying->localizedDescription() << "\n";
  }
}
