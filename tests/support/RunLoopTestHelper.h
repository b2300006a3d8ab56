#pragma once
// Drives the main run loop from a test: runs it on the calling thread until a
// condition holds or a time-out (real time) passes. Tests wait this way
// instead of sleeping, so they take as long as the work does and a hang fails
// after the time-out rather than blocking the suite.
//
//   ASSERT_TRUE(RunMainLoopUntil([&] { return operation->isFinished(); }));

#include <functional>

#include "platform/operations/NSRunLoop.h"

// Generous: a time-out means "this never happens", not "this is slow".
inline constexpr double kRunLoopTestTimeout = 30.0;

// True when condition held before the time-out.
inline bool RunMainLoopUntil(const std::function<bool()>& condition, double timeoutSeconds = kRunLoopTestTimeout) {
  return NSRunLoop::mainRunLoop()->runUntil(condition, timeoutSeconds);
}

// Runs the loop until every block posted to it before the call has run. Timers
// due now fire in the first turn, before those blocks.
inline bool DrainMainLoop(double timeoutSeconds = kRunLoopTestTimeout) {
  bool reached = false;
  NSRunLoop::mainRunLoop()->performBlock([&reached] { reached = true; });
  return RunMainLoopUntil([&reached] { return reached; }, timeoutSeconds);
}
