#include "platform/foundation/NSUserDefaults.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <system_error>
#include <utility>

#include "platform/foundation/NSPropertyListSerialization.h"
#include "platform/foundation/impl/ZBFileIO.h"
#include "platform/foundation/ZBLocalizedString.h"

namespace fs = std::filesystem;

namespace {

struct StandardState {
  std::mutex mutex;
  std::shared_ptr<NSUserDefaults> defaults;  // guarded by mutex
  fs::path path;                             // guarded by mutex
};

// Never destroyed: the shared object must not run its destructor (which may
// write the file and build localised errors) while other statics of the
// process are already gone. Changes still pending at exit need synchronize().
StandardState& standardState() {
  static auto* state = new StandardState();
  return *state;
}

NSErrorPtr fileError(std::int64_t code, const std::string& description, const fs::path& file,
                     NSErrorPtr underlying = nullptr) {
  Dictionary info{{NSLocalizedDescriptionKey, description}, {NSFilePathErrorKey, file.string()}};
  if (underlying) info.set(NSUnderlyingErrorKey, Value(underlying));
  return NSError::create(NSCocoaErrorDomain, code, std::move(info));
}

NSErrorPtr posixError(int code) {
  return NSError::create(NSPOSIXErrorDomain, code, Dictionary{{NSLocalizedDescriptionKey, std::strerror(code)}});
}

NSErrorPtr writeFailure(int code, const fs::path& file) {
  std::int64_t cocoa = code == EACCES || code == EPERM || code == EROFS ? NSFileWriteNoPermissionError
                       : code == ENOSPC || code == EDQUOT              ? NSFileWriteOutOfSpaceError
                                                                       : NSFileWriteUnknownError;
  return fileError(cocoa, ZBLocalizedString("The settings file couldn’t be saved."), file, posixError(code));
}

}  // namespace

std::shared_ptr<NSUserDefaults> NSUserDefaults::create(fs::path file) {
  auto defaults = std::make_shared<NSUserDefaults>(std::move(file));
  NSErrorPtr error;
  std::optional<Dictionary> contents = defaults->_readFile(&error);
  std::lock_guard lock(defaults->_mutex);
  defaults->_persistent = contents ? std::move(*contents) : Dictionary();
  defaults->_lastError = contents ? nullptr : error;
  return defaults;
}

NSUserDefaults::NSUserDefaults(fs::path file) : _path(std::move(file)) {}

NSUserDefaults::~NSUserDefaults() {
  bool pending;
  {
    std::lock_guard lock(_mutex);
    pending = !_pending.empty();
  }
  if (!pending) return;
  // Last chance to keep the changes; nobody is left to hear about a failure.
  std::lock_guard sync(_syncMutex);
  std::optional<Dictionary> disk = _readFile(nullptr);
  Dictionary merged = disk ? std::move(*disk) : Dictionary();
  std::lock_guard lock(_mutex);
  for (const auto& [key, change] : _pending) merged.set(key, change.value);
  _writeFile(merged, nullptr);
}

fs::path NSUserDefaults::standardUserDefaultsPath() {
  {
    StandardState& standard = standardState();
    std::lock_guard lock(standard.mutex);
    if (!standard.path.empty()) return standard.path;
  }
  if (const char* explicitPath = std::getenv("ZBTARROW_DEFAULTS_PATH"); explicitPath && *explicitPath)
    return explicitPath;
  fs::path base;
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg && fs::path(xdg).is_absolute()) {
    base = xdg;
  } else if (const char* home = std::getenv("HOME"); home && *home) {
    base = fs::path(home) / ".config";
  } else {
    base = fs::temp_directory_path();
  }
  return base / "com.orvane.zbtarrowdata" / "defaults.plist";
}

std::shared_ptr<NSUserDefaults> NSUserDefaults::standardUserDefaults() {
  fs::path file = standardUserDefaultsPath();
  StandardState& standard = standardState();
  std::lock_guard lock(standard.mutex);
  if (!standard.defaults) standard.defaults = create(std::move(file));
  return standard.defaults;
}

void NSUserDefaults::setStandardUserDefaultsPath(fs::path file) {
  std::shared_ptr<NSUserDefaults> previous;
  {
    StandardState& standard = standardState();
    std::lock_guard lock(standard.mutex);
    standard.path = std::move(file);
    previous = std::move(standard.defaults);
    standard.defaults.reset();
  }
  if (previous) previous->synchronize();
}

void NSUserDefaults::registerDefaults(const Dictionary& defaults) {
  std::vector<std::string> changed;
  {
    std::lock_guard lock(_mutex);
    for (const auto& [key, value] : defaults) {
      if (!_persistent.contains(key) && !(_registered[key] == value)) changed.push_back(key);
    }
  }
  for (const auto& key : changed) willChangeValueForKey(key);
  {
    std::lock_guard lock(_mutex);
    _registered.addEntries(defaults);
  }
  for (const auto& key : changed) didChangeValueForKey(key);
}

Value NSUserDefaults::_effectiveLocked(const std::string& key) const {
  const Value& persistent = _persistent[key];
  return persistent.isAbsent() ? _registered[key] : persistent;
}

Value NSUserDefaults::objectForKey(const std::string& key) const {
  std::lock_guard lock(_mutex);
  return _effectiveLocked(key);
}

bool NSUserDefaults::setObject(const Value& value, const std::string& key) {
  if (!value.isAbsent() && !NSPropertyListSerialization::propertyListIsValid(value)) return false;
  willChangeValueForKey(key);
  {
    std::lock_guard lock(_mutex);
    _persistent.set(key, value);
    _pending[key] = Pending{value, ++_generation};
  }
  didChangeValueForKey(key);
  return true;
}

void NSUserDefaults::removeObject(const std::string& key) { setObject(Value(), key); }

std::string NSUserDefaults::stringForKey(const std::string& key) const { return objectForKey(key).asString(); }
bool NSUserDefaults::boolForKey(const std::string& key) const { return objectForKey(key).boolValue(); }
std::int64_t NSUserDefaults::integerForKey(const std::string& key) const { return objectForKey(key).integerValue(); }
double NSUserDefaults::doubleForKey(const std::string& key) const { return objectForKey(key).doubleValue(); }
Array NSUserDefaults::arrayForKey(const std::string& key) const { return objectForKey(key).asArray(); }
Dictionary NSUserDefaults::dictionaryForKey(const std::string& key) const {
  return objectForKey(key).asDictionary();
}
Data NSUserDefaults::dataForKey(const std::string& key) const { return objectForKey(key).asData(); }
std::optional<NSDate> NSUserDefaults::dateForKey(const std::string& key) const {
  Value value = objectForKey(key);
  if (!value.isDate()) return std::nullopt;
  return value.asDate();
}

Dictionary NSUserDefaults::dictionaryRepresentation() const {
  std::lock_guard lock(_mutex);
  Dictionary merged = _registered;
  merged.addEntries(_persistent);
  return merged;
}

Dictionary NSUserDefaults::persistentDomain() const {
  std::lock_guard lock(_mutex);
  return _persistent;
}

NSErrorPtr NSUserDefaults::lastError() const {
  std::lock_guard lock(_mutex);
  return _lastError;
}

Value NSUserDefaults::valueForKey(const std::string& key) const { return objectForKey(key); }

void NSUserDefaults::setValueForKey(const Value& value, const std::string& key) { setObject(value, key); }

bool NSUserDefaults::synchronize(NSErrorPtr* error) {
  std::lock_guard sync(_syncMutex);
  std::map<std::string, Pending> pending;
  {
    std::lock_guard lock(_mutex);
    pending = _pending;
  }
  NSErrorPtr readError;
  std::optional<Dictionary> disk = _readFile(&readError);
  if (pending.empty()) {
    _adoptPersistent(disk ? std::move(*disk) : Dictionary(), disk ? nullptr : readError);
    return disk ? true : ZBSetError(error, readError);
  }

  // A damaged file is replaced here: this write is the successful write that
  // supersedes it.
  Dictionary merged = disk ? std::move(*disk) : Dictionary();
  for (const auto& [key, change] : pending) merged.set(key, change.value);
  NSErrorPtr writeError;
  if (!_writeFile(merged, &writeError)) {
    std::lock_guard lock(_mutex);
    _lastError = writeError;
    return ZBSetError(error, writeError);
  }
  {
    // Changes made while the file was being written stay pending.
    std::lock_guard lock(_mutex);
    for (const auto& [key, change] : pending) {
      auto it = _pending.find(key);
      if (it != _pending.end() && it->second.generation == change.generation) _pending.erase(it);
    }
  }
  _adoptPersistent(std::move(merged), nullptr);
  return true;
}

void NSUserDefaults::_adoptPersistent(Dictionary contents, NSErrorPtr loadError) {
  std::vector<std::string> changed;
  {
    std::lock_guard lock(_mutex);
    std::set<std::string> keys;
    for (const auto& entry : _persistent) keys.insert(entry.first);
    for (const auto& entry : contents) keys.insert(entry.first);
    for (const auto& key : keys) {
      if (_pending.count(key)) continue;  // unchanged: our own pending value wins
      const Value& now = contents[key];
      Value after = now.isAbsent() ? _registered[key] : now;
      if (!(after == _effectiveLocked(key))) changed.push_back(key);
    }
  }
  for (const auto& key : changed) willChangeValueForKey(key);
  {
    std::lock_guard lock(_mutex);
    for (const auto& [key, change] : _pending) contents.set(key, change.value);
    _persistent = std::move(contents);
    _lastError = std::move(loadError);
  }
  for (const auto& key : changed) didChangeValueForKey(key);
}

std::optional<Dictionary> NSUserDefaults::_readFile(NSErrorPtr* error) const {
  // Errors are built only when asked for: the destructor asks for none.
  std::error_code ec;
  if (!fs::exists(_path, ec)) {
    if (!ec || ec == std::errc::no_such_file_or_directory) return Dictionary();
  }
  std::ifstream in(_path, std::ios::binary);
  Data bytes;
  if (in) bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  if (!in && !in.eof()) {
    if (error) {
      int code = errno != 0 ? errno : EIO;
      std::int64_t cocoa = code == EACCES || code == EPERM ? NSFileReadNoPermissionError : NSFileReadUnknownError;
      *error = fileError(cocoa, ZBLocalizedString("The settings file couldn’t be opened."), _path, posixError(code));
    }
    return std::nullopt;
  }
  NSErrorPtr parseError;
  Value plist = NSPropertyListSerialization::propertyListWithData(bytes, nullptr, error ? &parseError : nullptr);
  if (!plist.isDictionary()) {
    if (error) {
      if (!parseError) {
        parseError = NSError::create(NSCocoaErrorDomain, NSPropertyListReadCorruptError,
                                     "The property list is not a dictionary.");
      }
      *error = fileError(NSFileReadCorruptFileError,
                         ZBLocalizedString("The settings file couldn’t be opened because it isn’t in the correct "
                                           "format."),
                         _path, parseError);
    }
    return std::nullopt;
  }
  return plist.asDictionary();
}

bool NSUserDefaults::_writeFile(const Dictionary& contents, NSErrorPtr* error) const {
  NSErrorPtr serialisationError;
  Data bytes =
      NSPropertyListSerialization::dataWithPropertyList(Value(contents), NSPropertyListFormat::XML_v1_0,
                                                        &serialisationError);
  if (bytes.empty()) return ZBSetError(error, serialisationError);

  fs::path directory = _path.parent_path();
  // Errors are built only when asked for: the destructor asks for none.
  auto fail = [&](int code) {
    if (error) *error = writeFailure(code, _path);
    return false;
  };
  if (!directory.empty()) {
    std::error_code ec;
    fs::create_directories(directory, ec);
    if (ec) return fail(ec.value());
  }
  std::string temporary = _path.string() + ".XXXXXX";
  int fd = ::mkstemp(temporary.data());  // created with mode 0600
  if (fd < 0) return fail(errno);
  auto discard = [&](int code) {
    ::unlink(temporary.c_str());
    return fail(code);
  };
  if (!ZBWriteAll(fd, bytes) || ::fsync(fd) != 0) {
    int code = errno;
    ::close(fd);
    return discard(code);
  }
  if (::close(fd) != 0) return discard(errno);
  if (::rename(temporary.c_str(), _path.c_str()) != 0) return discard(errno);
  // Make the rename itself durable.
  int dirFd = ::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0) {
    ::fsync(dirFd);
    ::close(dirFd);
  }
  return true;
}
