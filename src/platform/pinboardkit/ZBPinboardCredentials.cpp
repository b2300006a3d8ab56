#include "platform/pinboardkit/ZBPinboardCredentials.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "platform/foundation/impl/ZBFileIO.h"
#include "platform/foundation/NSPropertyListSerialization.h"
#include "platform/foundation/ZBLocalizedString.h"

namespace fs = std::filesystem;

namespace {

NSErrorPtr fileError(std::int64_t code, int posix, const std::string& description, const fs::path& file) {
  Dictionary info{{NSLocalizedDescriptionKey, description}, {NSFilePathErrorKey, file.string()}};
  if (posix)
    info.set(NSUnderlyingErrorKey, Value(NSError::create(NSPOSIXErrorDomain, posix,
                                                         Dictionary{{NSLocalizedDescriptionKey, std::strerror(posix)}})));
  return NSError::create(NSCocoaErrorDomain, code, std::move(info));
}

NSErrorPtr writeFailure(int posix, const fs::path& file) {
  std::int64_t code = posix == EACCES || posix == EPERM || posix == EROFS ? NSFileWriteNoPermissionError
                      : posix == ENOSPC || posix == EDQUOT               ? NSFileWriteOutOfSpaceError
                                                                         : NSFileWriteUnknownError;
  return fileError(code, posix, ZBLocalizedString("The Pinboard credentials couldn’t be saved."), file);
}

}  // namespace

ZBPinboardCredentials::ZBPinboardCredentials(std::string username, std::string token)
    : _username(std::move(username)), _token(std::move(token)) {}

std::shared_ptr<ZBPinboardCredentials> ZBPinboardCredentials::create(std::string username, std::string token) {
  return std::make_shared<ZBPinboardCredentials>(std::move(username), std::move(token));
}

Value ZBPinboardCredentials::valueForKey(const std::string& key) const {
  if (key == "username") return Value(_username);
  return NSObject::valueForKey(key);
}

bool ZBPinboardCredentials::isEqual(const NSObject& other) const {
  auto* o = dynamic_cast<const ZBPinboardCredentials*>(&other);
  return o && o->_username == _username && o->_token == _token;
}

std::size_t ZBPinboardCredentials::hash() const { return std::hash<std::string>()(_username); }

std::string ZBPinboardCredentials::description() const { return "<ZBPinboardCredentials username=" + _username + ">"; }

bool ZBPinboardCredentials::writeToFile(const fs::path& file, NSErrorPtr* error) const {
  NSErrorPtr plistError;
  Data bytes = NSPropertyListSerialization::dataWithPropertyList(
      Value(Dictionary{{"username", _username}, {"token", _token}}), NSPropertyListFormat::XML_v1_0, &plistError);
  if (bytes.empty()) return ZBSetError(error, plistError);

  fs::path directory = file.parent_path();
  if (!directory.empty()) {
    std::error_code ec;
    bool existed = fs::exists(directory, ec);
    fs::create_directories(directory, ec);
    if (ec) return ZBSetError(error, writeFailure(ec.value(), file));
    if (!existed) ::chmod(directory.c_str(), 0700);
  }
  // mkstemp creates the file 0600, so the secret is never readable by others,
  // not even for a moment; the rename then replaces any older file whole.
  std::string temporary = file.string() + ".XXXXXX";
  int fd = ::mkstemp(temporary.data());
  if (fd < 0) return ZBSetError(error, writeFailure(errno, file));
  auto fail = [&](int code) {
    ::close(fd);
    ::unlink(temporary.c_str());
    return ZBSetError(error, writeFailure(code, file));
  };
  if (::fchmod(fd, 0600) != 0 || !ZBWriteAll(fd, bytes) || ::fsync(fd) != 0) return fail(errno);
  if (::close(fd) != 0) {
    int code = errno;
    ::unlink(temporary.c_str());
    return ZBSetError(error, writeFailure(code, file));
  }
  if (::rename(temporary.c_str(), file.c_str()) != 0) {
    int code = errno;
    ::unlink(temporary.c_str());
    return ZBSetError(error, writeFailure(code, file));
  }
  return true;
}

std::shared_ptr<ZBPinboardCredentials> ZBPinboardCredentials::readFromFile(const fs::path& file, NSErrorPtr* error) {
  struct stat st {};
  if (::stat(file.c_str(), &st) != 0) {
    if (errno != ENOENT)
      ZBSetError(error, fileError(NSFileReadUnknownError, errno,
                                  ZBLocalizedString("The Pinboard credentials couldn’t be read."), file));
    return nullptr;
  }
  if ((st.st_mode & 077) != 0) ::chmod(file.c_str(), 0600);
  std::ifstream in(file, std::ios::binary);
  // A credentials file is a few hundred bytes; anything large is not ours.
  Data bytes;
  if (in && st.st_size > 0 && st.st_size < 65536) {
    bytes.resize(static_cast<std::size_t>(st.st_size));
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!in) bytes.clear();
  }
  Value plist = bytes.empty() ? Value() : NSPropertyListSerialization::propertyListWithData(bytes);
  const Dictionary& d = plist.asDictionary();
  const Value& username = d["username"];
  const Value& token = d["token"];
  if (!username.isString() || !token.isString() || username.asString().empty() || token.asString().empty()) {
    ZBSetError(error, fileError(NSFileReadCorruptFileError, 0,
                                ZBLocalizedString("The Pinboard credentials couldn’t be read."), file));
    return nullptr;
  }
  return create(username.asString(), token.asString());
}

bool ZBPinboardCredentials::removeFile(const fs::path& file, NSErrorPtr* error) {
  if (::unlink(file.c_str()) == 0 || errno == ENOENT) return true;
  int code = errno;
  return ZBSetError(error, fileError(code == EACCES || code == EPERM ? NSFileWriteNoPermissionError : NSFileWriteUnknownError,
                                     code, ZBLocalizedString("The Pinboard credentials couldn’t be removed."), file));
}
