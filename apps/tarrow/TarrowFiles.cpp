#include "TarrowFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "TarrowErrors.h"
#include "TarrowText.h"

namespace {

NSErrorPtr fileError(const char* english, const std::filesystem::path& path, int posix) {
  Dictionary info{{NSLocalizedDescriptionKey, Value(TarrowLocalized(english, {path.string()}))},
                  {NSLocalizedFailureReasonErrorKey, Value(std::string(std::strerror(posix)))},
                  {NSFilePathErrorKey, Value(path.string())}};
  return NSError::create(TarrowErrorDomain, TarrowFileError, std::move(info));
}

}  // namespace

std::optional<Data> TarrowReadFile(const std::filesystem::path& path, NSErrorPtr* error) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    ZBSetError(error, fileError("Couldn’t read %@", path, errno));
    return std::nullopt;
  }
  Data data;
  unsigned char buffer[1 << 16];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      const int failure = errno;
      ::close(fd);
      ZBSetError(error, fileError("Couldn’t read %@", path, failure));
      return std::nullopt;
    }
    data.insert(data.end(), buffer, buffer + n);
  }
  ::close(fd);
  return data;
}

bool TarrowWriteFileAtomically(const std::filesystem::path& path, const Data& data, NSErrorPtr* error) {
  std::string temporary = path.string() + ".XXXXXX";
  const int fd = ::mkstemp(temporary.data());
  if (fd < 0) {
    ZBSetError(error, fileError("Couldn’t write %@", path, errno));
    return false;
  }
  std::size_t written = 0;
  int failure = 0;
  while (written < data.size() && !failure) {
    const ssize_t n = ::write(fd, data.data() + written, data.size() - written);
    if (n < 0 && errno != EINTR) failure = errno;
    if (n > 0) written += static_cast<std::size_t>(n);
  }
  if (!failure && ::fsync(fd) != 0) failure = errno;
  if (::close(fd) != 0 && !failure) failure = errno;
  if (!failure && ::rename(temporary.c_str(), path.c_str()) != 0) failure = errno;
  if (failure) {
    ::unlink(temporary.c_str());
    ZBSetError(error, fileError("Couldn’t write %@", path, failure));
    return false;
  }
  return true;
}
