#pragma once
// Small POSIX file helpers shared by the files the library writes atomically
// (user defaults, credentials).

#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "platform/foundation/Value.h"

// Writes all of data to fd, retrying short writes and EINTR; false with errno
// set on failure.
inline bool ZBWriteAll(int fd, const Data& data) {
  std::size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}
