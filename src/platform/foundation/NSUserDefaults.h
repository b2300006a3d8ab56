#pragma once
// NSUserDefaults: a registration domain (values in memory, registered at
// launch) under a persistent domain kept as an XML property list file whose
// root is a dictionary. Reads look in the persistent domain first, then in the
// registration domain.
//
// Changes apply in memory at once and reach the file on synchronize() (and
// when the object is destroyed with changes still pending). Writing re-reads
// the file, applies this object's pending changes on top (so several objects
// or processes sharing a file keep each other's keys) and replaces the file
// atomically (temporary file, fsync, rename), with mode 0600.
//
// A damaged or unreadable file is never overwritten by loading or reading: the
// persistent domain reads as empty (so registered values show), lastError()
// says what is wrong, and the file stays as it is until a synchronize() with
// pending changes replaces it.
//
// Observable: setObject/removeObject/registerDefaults and a reload that
// changes a key's effective value send willChange/didChange for that key, on
// the calling thread, with no lock held. valueForKey(key) is objectForKey(key).
//
// Held by std::shared_ptr. Thread-safe: every method may be called from any
// thread.

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/Value.h"

class NSUserDefaults final : public NSObject {
public:
  // Defaults kept in file (created on the first write, with its directories).
  // Loads the file at once; a load failure is available from lastError().
  static std::shared_ptr<NSUserDefaults> create(std::filesystem::path file);

  // The process-wide defaults. Its file is, in order of preference: the path
  // given to setStandardUserDefaultsPath, $ZBTARROW_DEFAULTS_PATH, or
  // $XDG_CONFIG_HOME (else ~/.config)/com.orvane.zbtarrowdata/defaults.plist.
  // It is never destroyed, so changes still pending at exit are lost unless
  // synchronize() is called before.
  static std::shared_ptr<NSUserDefaults> standardUserDefaults();
  // Points the process-wide defaults at another file (empty: back to the
  // environment's choice). The current shared object, if any, is synchronised
  // and let go; callers still holding it keep a working object on the old file.
  static void setStandardUserDefaultsPath(std::filesystem::path file);
  static std::filesystem::path standardUserDefaultsPath();

  ~NSUserDefaults() override;

  const std::filesystem::path& path() const { return _path; }

  // Adds entries to the registration domain (replacing equal keys).
  void registerDefaults(const Dictionary& defaults);

  // Persistent value, else registered value, else absent.
  Value objectForKey(const std::string& key) const;
  // Absent removes the key from the persistent domain. Values must be property
  // list values (string, number, bool, date, data, array, dictionary): a value
  // that is not is refused (returns false, nothing changes).
  bool setObject(const Value& value, const std::string& key);
  void removeObject(const std::string& key);

  // Typed readings; the wrong type or a missing key yields the type's empty
  // value (numbers convert as Value's numeric readings do).
  std::string stringForKey(const std::string& key) const;
  bool boolForKey(const std::string& key) const;
  std::int64_t integerForKey(const std::string& key) const;
  double doubleForKey(const std::string& key) const;
  Array arrayForKey(const std::string& key) const;
  Dictionary dictionaryForKey(const std::string& key) const;
  Data dataForKey(const std::string& key) const;
  std::optional<NSDate> dateForKey(const std::string& key) const;
  void setBool(bool value, const std::string& key) { setObject(Value(value), key); }
  void setInteger(std::int64_t value, const std::string& key) { setObject(Value(value), key); }
  void setDouble(double value, const std::string& key) { setObject(Value(value), key); }

  // Registered values overlaid with persistent ones.
  Dictionary dictionaryRepresentation() const;
  // The persistent domain only.
  Dictionary persistentDomain() const;

  // Writes pending changes (re-reading the file first) or, when nothing is
  // pending, re-reads the file. Returns false and sets error when the file
  // cannot be read as a property list dictionary and there is nothing to
  // write, or when writing fails; pending changes then stay pending.
  bool synchronize(NSErrorPtr* error = nullptr);

  // What went wrong with the file at the last load, synchronize or write;
  // null once a load or write succeeds.
  NSErrorPtr lastError() const;

  Value valueForKey(const std::string& key) const override;
  void setValueForKey(const Value& value, const std::string& key) override;
  std::string className() const override { return "NSUserDefaults"; }

  explicit NSUserDefaults(std::filesystem::path file);  // use create()

private:
  struct Pending {
    Value value;  // absent: removal
    std::uint64_t generation;
  };
  // Reads the file; an empty dictionary for a missing file. Absent + error
  // when it is unreadable or damaged.
  std::optional<Dictionary> _readFile(NSErrorPtr* error) const;
  bool _writeFile(const Dictionary& contents, NSErrorPtr* error) const;
  // Replaces the persistent domain and notifies keys whose effective value
  // changed. Takes _mutex.
  void _adoptPersistent(Dictionary contents, NSErrorPtr loadError);
  Value _effectiveLocked(const std::string& key) const;
  void _notify(const std::vector<std::string>& keys);

  const std::filesystem::path _path;
  mutable std::mutex _mutex;
  Dictionary _registered;    // guarded by _mutex
  Dictionary _persistent;    // guarded by _mutex: file content with pending changes applied
  std::map<std::string, Pending> _pending;  // guarded by _mutex
  std::uint64_t _generation = 0;            // guarded by _mutex
  NSErrorPtr _lastError;                    // guarded by _mutex
  std::mutex _syncMutex;                    // serialises file reads and writes
};
