#pragma once
// One refresh at a time per store, across processes: an exclusive advisory
// lock (flock) on a file beside the store file, which holds the holder's
// process id so that whoever finds it taken can say who has it. The lock ends
// with the object, or with the process however it ends (a killed refresh
// leaves no stale lock behind).
//
// Not thread-safe; one owner.

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>

class ZBTarrowRefreshLock {
public:
  // The lock for the store file at storePath, or nullptr when another refresh
  // (of this process or another) holds it; *holder then names that process
  // ("tarrow (process 4242)"), or is empty when it cannot be told. A lock
  // file that cannot be opened (a read-only directory) is no reason to
  // refuse: the lock is then granted without one.
  static std::unique_ptr<ZBTarrowRefreshLock> tryTake(const std::filesystem::path& storePath, std::string* holder);
  ~ZBTarrowRefreshLock();
  ZBTarrowRefreshLock(const ZBTarrowRefreshLock&) = delete;
  ZBTarrowRefreshLock& operator=(const ZBTarrowRefreshLock&) = delete;

  static std::filesystem::path lockPath(const std::filesystem::path& storePath);

private:
  explicit ZBTarrowRefreshLock(int fd) : _fd(fd) {}
  int _fd;
};
