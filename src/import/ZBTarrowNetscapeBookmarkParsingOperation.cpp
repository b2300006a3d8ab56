#include "import/ZBTarrowNetscapeBookmarkParsingOperation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "import/impl/ZBNetscapeBookmarkDecoding.h"
#include "import/impl/ZBNetscapeBookmarkTree.h"

namespace {

struct FileCloser {
  int fd;
  ~FileCloser() { ::close(fd); }
};

// The whole file, or nullopt for anything that is not a readable regular
// file (missing, unreadable, a directory, a device).
std::optional<std::string> readFile(const NSURL& url) {
  if (!url.isFileURL()) return std::nullopt;
  int fd = ::open(url.path().c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  FileCloser closer{fd};
  struct stat info;
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  std::string bytes;
  bytes.resize(static_cast<std::size_t>(info.st_size));
  std::size_t done = 0;
  while (true) {
    if (done == bytes.size()) bytes.resize(bytes.size() + 65536);  // the file grew
    ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) break;
    done += static_cast<std::size_t>(n);
  }
  bytes.resize(done);
  return bytes;
}

}  // namespace

std::shared_ptr<ZBTarrowNetscapeBookmarkParsingOperation> ZBTarrowNetscapeBookmarkParsingOperation::create(
    NSURL bookmarkFileURL) {
  return std::make_shared<ZBTarrowNetscapeBookmarkParsingOperation>(Passkey(), std::move(bookmarkFileURL));
}

ZBTarrowNetscapeBookmarkParsingOperation::ZBTarrowNetscapeBookmarkParsingOperation(Passkey, NSURL bookmarkFileURL)
    : _url(std::move(bookmarkFileURL)) {}

ZBCompletionProvider ZBTarrowNetscapeBookmarkParsingOperation::completionProvider() const {
  {
    ZBMutexLock lock(_mutex);
    if (_provider) return _provider;
  }
  return ZBMissingCompletionProvider(*this);
}

ZBTarrowNetscapeBookmarkSummary ZBTarrowNetscapeBookmarkParsingOperation::summary() const {
  ZBMutexLock lock(_mutex);
  return _summary;
}

void ZBTarrowNetscapeBookmarkParsingOperation::main() {
  ZBTarrowNetscapeBookmarkSummary summary;
  ZBTarrowNetscapeBookmarkFolderPtr root;
  if (std::optional<std::string> bytes = readFile(_url)) {
    root = zb::netscape::parseBookmarkTree(zb::netscape::decodeToUTF8(std::move(*bytes)), summary);
  }
  if (!root) summary = {};
  ZBMutexLock lock(_mutex);
  _summary = std::move(summary);
  // A failure carries no error: the caller sees neither a folder nor an error.
  _provider = ZBCompletionProviderWithResult(root ? Value(root) : Value(), nullptr);
}

void ZBTarrowNetscapeBookmarkParsingOperation::mainDidThrow(const NSErrorPtr& error) {
  ZBMutexLock lock(_mutex);
  _provider = ZBCompletionProviderWithResult({}, error);
}
