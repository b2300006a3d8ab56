#include "TarrowProgress.h"

#include <unistd.h>

#include "TarrowSession.h"
#include "TarrowText.h"
#include "model/ZBTarrowPinboardPost.h"
#include "platform/objectstore/NSFetchRequest.h"

TarrowProgress::TarrowProgress(TarrowSession& session)
    : _session(session), _terminal(isatty(STDERR_FILENO) == 1) {
  _observation = session.controller()->addObserver(
      ZBTarrowDataControllerStatusKey, NSKeyValueObservingOptions::New | NSKeyValueObservingOptions::Initial,
      [this](const std::string&, NSObject&, const NSKeyValueChange&) { _show(_session.controller()->status()); });
}

TarrowProgress::~TarrowProgress() {
  _observation.invalidate();
  finish();
}

void TarrowProgress::finish() {
  if (_terminal && !_shown.empty()) _session.err() << "\r\033[K" << std::flush;
  _shown.clear();
}

void TarrowProgress::_show(const std::optional<std::string>& status) {
  if (!status) {
    finish();
    return;
  }
  auto context = _session.context();
  std::int64_t count = 0;
  context->performBlockAndWait([&] {
    count = context->countForFetchRequest(NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName));
  });
  std::string line = *status;
  if (count > 0) line += " " + TarrowLocalized("(%@ bookmarks)", {std::to_string(count)});
  if (line == _shown) return;
  _shown = line;
  if (_terminal) {
    _session.err() << "\r\033[K" << line << std::flush;
  } else {
    _session.err() << line << "\n" << std::flush;
  }
}
