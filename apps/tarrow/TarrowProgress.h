#pragma once
// TarrowProgress: the controller's status line while a job runs, with the
// number of bookmarks stored so far. On a terminal the line is rewritten in
// place; otherwise each change is a line of its own (repeats left out), so
// logs and pipes read well.
//
// Lifetime: while a session waits; destroying it ends the line. Use only on
// the main thread (the controller changes its status there).

#include <optional>
#include <string>

#include "platform/foundation/NSObject.h"

class TarrowSession;

class TarrowProgress {
public:
  explicit TarrowProgress(TarrowSession& session);
  ~TarrowProgress();
  TarrowProgress(const TarrowProgress&) = delete;
  TarrowProgress& operator=(const TarrowProgress&) = delete;

  // Ends the line on a terminal (idempotent).
  void finish();

private:
  void _show(const std::optional<std::string>& status);

  TarrowSession& _session;
  const bool _terminal;
  std::string _shown;
  NSKeyValueObservation _observation;
};
