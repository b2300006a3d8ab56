#include "sync/impl/ZBTarrowRefreshLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "platform/foundation/ZBLocalizedString.h"

std::filesystem::path ZBTarrowRefreshLock::lockPath(const std::filesystem::path& storePath) {
  std::filesystem::path path = storePath;
  path += "-refresh.lock";
  return path;
}

std::unique_ptr<ZBTarrowRefreshLock> ZBTarrowRefreshLock::tryTake(const std::filesystem::path& storePath,
                                                                  std::string* holder) {
  const auto path = lockPath(storePath);
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return std::unique_ptr<ZBTarrowRefreshLock>(new ZBTarrowRefreshLock(-1));
  int locked;
  while ((locked = ::flock(fd, LOCK_EX | LOCK_NB)) != 0 && errno == EINTR) {
  }
  if (locked != 0) {
    ::close(fd);
    if (holder) {
      holder->clear();
      long pid = 0;
      std::ifstream(path) >> pid;
      if (pid > 0) {
        std::string name;
        std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), name);
        std::string process = ZBLocalizedString("process %@");
        process.replace(process.find("%@"), 2, std::to_string(pid));
        *holder = name.empty() ? process : name + " (" + process + ")";
      }
    }
    return nullptr;
  }
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd, 0) == 0) (void)!::pwrite(fd, pid.data(), pid.size(), 0);
  return std::unique_ptr<ZBTarrowRefreshLock>(new ZBTarrowRefreshLock(fd));
}

ZBTarrowRefreshLock::~ZBTarrowRefreshLock() {
  if (_fd >= 0) ::close(_fd);
}
