#pragma once
// TarrowSession: the data controller of one tarrow run, made as an
// application makes it (standard user defaults, stores set up), and the
// waiting for its jobs: the main run loop turns until the job's handler has
// been called. An interrupt cancels the job and waits until it has wound
// down, so nothing is left half-written and the next run starts clean.
//
// Lifetime: one per run, on the main thread; destroying it cancels what still
// runs, waits for it, and writes the user defaults. While it lives, an
// interrupt asks for a clean wind-down instead of ending the process. Use only on the main
// thread.

#include <functional>
#include <memory>
#include <ostream>

#include "TarrowInterrupt.h"
#include "controller/ZBTarrowDataController.h"

class TarrowSession {
public:
  // What a controller handler was called with.
  struct Outcome {
    bool done = false;
    bool success = false;
    NSErrorPtr error;
    ZBTarrowDataController::CompletionHandler handler();
  };

  TarrowSession(TarrowInterrupt& interrupt, std::ostream& out, std::ostream& err);
  ~TarrowSession();
  TarrowSession(const TarrowSession&) = delete;
  TarrowSession& operator=(const TarrowSession&) = delete;

  const ZBTarrowDataControllerPtr& controller() const { return _controller; }
  NSManagedObjectContextPtr context() const { return _controller->mainManagedObjectContext(); }
  std::ostream& out() { return _out; }
  std::ostream& err() { return _err; }
  TarrowInterrupt& interrupt() { return _interrupt; }

  // Turns the main run loop until done() holds. With showProgress, the
  // controller's status line is shown on err meanwhile. On an interrupt the
  // controller's jobs are cancelled and waited for, and the result is
  // TarrowInterruptedError; otherwise null.
  NSErrorPtr waitUntil(const std::function<bool()>& done, bool showProgress = false);
  // The same for a job whose handler fills outcome: its error when it failed.
  NSErrorPtr wait(const Outcome& outcome, bool showProgress = false);
  // TarrowInterruptedError once the user interrupted this run, else null.
  NSErrorPtr interruption() const;

private:
  void _windDown();

  TarrowInterrupt& _interrupt;
  std::ostream& _out;
  std::ostream& _err;
  ZBTarrowDataControllerPtr _controller;
};
