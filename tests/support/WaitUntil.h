#pragma once
// Waits, off the main run loop, for a condition that another thread or process
// makes true without telling us (a server's state, a process's exit): polls it
// until it holds, or until a bound that means "never" rather than "slow", so a
// test that would hang fails instead. Where a notification exists, wait on it.

#include <chrono>
#include <functional>
#include <thread>

inline bool WaitUntil(const std::function<bool()>& condition, double seconds = 60) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}
