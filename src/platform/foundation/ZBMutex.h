#pragma once
// Mutexes that clang's thread-safety analysis (-Wthread-safety) can check.
// libstdc++'s own mutexes carry no annotations, so state declared
// ZB_GUARDED_BY(a std::mutex) would be checked against nothing. Declare the
// lock as a ZBMutex, the state it guards ZB_GUARDED_BY(thatMutex), and
// functions that expect it held ZB_REQUIRES(thatMutex); the clang builds then
// reject an access without the lock. Other compilers see plain mutexes.
//
//   ZBMutex _lock;
//   int _count ZB_GUARDED_BY(_lock) = 0;
//   void bump() { ZBMutexLock hold(_lock); ++_count; }
//
// The analysis does not know that a condition variable's predicate runs
// under the lock: a predicate lambda that reads guarded state begins with
// _lock.assertHeld().

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define ZB_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZB_THREAD_ANNOTATION(x)
#endif

#define ZB_CAPABILITY(name) ZB_THREAD_ANNOTATION(capability(name))
#define ZB_SCOPED_CAPABILITY ZB_THREAD_ANNOTATION(scoped_lockable)
#define ZB_GUARDED_BY(m) ZB_THREAD_ANNOTATION(guarded_by(m))
#define ZB_PT_GUARDED_BY(m) ZB_THREAD_ANNOTATION(pt_guarded_by(m))
#define ZB_REQUIRES(...) ZB_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZB_EXCLUDES(...) ZB_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ZB_ACQUIRE(...) ZB_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZB_RELEASE(...) ZB_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ZB_TRY_ACQUIRE(...) ZB_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ZB_ASSERT_HELD(m) ZB_THREAD_ANNOTATION(assert_capability(m))
#define ZB_RETURN_CAPABILITY(m) ZB_THREAD_ANNOTATION(lock_returned(m))
// For the rare function whose locking the analysis cannot follow; say why.
#define ZB_NO_THREAD_SAFETY_ANALYSIS ZB_THREAD_ANNOTATION(no_thread_safety_analysis)

// std::mutex with annotations. Not recursive.
class ZB_CAPABILITY("mutex") ZBMutex {
 public:
  ZBMutex() = default;
  ZBMutex(const ZBMutex&) = delete;
  ZBMutex& operator=(const ZBMutex&) = delete;

  void lock() ZB_ACQUIRE() { _mutex.lock(); }
  void unlock() ZB_RELEASE() { _mutex.unlock(); }
  bool try_lock() ZB_TRY_ACQUIRE(true) { return _mutex.try_lock(); }
  // Tells the analysis the caller holds the lock (checked by nothing at run
  // time); for callbacks that run under a lock taken elsewhere.
  void assertHeld() const ZB_ASSERT_HELD(this) {}

 private:
  friend class ZBMutexLock;
  std::mutex _mutex;
};

// std::recursive_mutex with annotations, for locks re-entered on one thread.
class ZB_CAPABILITY("mutex") ZBRecursiveMutex {
 public:
  ZBRecursiveMutex() = default;
  ZBRecursiveMutex(const ZBRecursiveMutex&) = delete;
  ZBRecursiveMutex& operator=(const ZBRecursiveMutex&) = delete;

  void lock() ZB_ACQUIRE() { _mutex.lock(); }
  void unlock() ZB_RELEASE() { _mutex.unlock(); }

 private:
  std::recursive_mutex _mutex;
};

// Holds a ZBMutex for its scope, like std::unique_lock: it can be released
// and taken again, and condition variables wait on it.
class ZB_SCOPED_CAPABILITY ZBMutexLock {
 public:
  explicit ZBMutexLock(ZBMutex& mutex) ZB_ACQUIRE(mutex) : _lock(mutex._mutex) {}
  ~ZBMutexLock() ZB_RELEASE() {}
  ZBMutexLock(const ZBMutexLock&) = delete;
  ZBMutexLock& operator=(const ZBMutexLock&) = delete;

  void unlock() ZB_RELEASE() { _lock.unlock(); }
  void lock() ZB_ACQUIRE() { _lock.lock(); }

  // The condition variable releases the mutex while it waits and holds it
  // again when it returns, so the caller's view of "held" is unchanged.
  void wait(std::condition_variable& condition) { condition.wait(_lock); }
  template <class Predicate>
  void wait(std::condition_variable& condition, Predicate predicate) {
    condition.wait(_lock, std::move(predicate));
  }
  template <class Rep, class Period, class Predicate>
  bool waitFor(std::condition_variable& condition, const std::chrono::duration<Rep, Period>& time,
               Predicate predicate) {
    return condition.wait_for(_lock, time, std::move(predicate));
  }
  template <class Rep, class Period>
  std::cv_status waitFor(std::condition_variable& condition, const std::chrono::duration<Rep, Period>& time) {
    return condition.wait_for(_lock, time);
  }
  template <class Clock, class Duration, class Predicate>
  bool waitUntil(std::condition_variable& condition, const std::chrono::time_point<Clock, Duration>& time,
                 Predicate predicate) {
    return condition.wait_until(_lock, time, std::move(predicate));
  }
  template <class Clock, class Duration>
  std::cv_status waitUntil(std::condition_variable& condition, const std::chrono::time_point<Clock, Duration>& time) {
    return condition.wait_until(_lock, time);
  }

 private:
  std::unique_lock<std::mutex> _lock;
};

// Holds a ZBRecursiveMutex for its scope.
class ZB_SCOPED_CAPABILITY ZBRecursiveMutexLock {
 public:
  explicit ZBRecursiveMutexLock(ZBRecursiveMutex& mutex) ZB_ACQUIRE(mutex) : _mutex(mutex) { _mutex.lock(); }
  ~ZBRecursiveMutexLock() ZB_RELEASE() { _mutex.unlock(); }
  ZBRecursiveMutexLock(const ZBRecursiveMutexLock&) = delete;
  ZBRecursiveMutexLock& operator=(const ZBRecursiveMutexLock&) = delete;

 private:
  ZBRecursiveMutex& _mutex;
};
