#pragma once
// ZBTarrowPersistentStoreNotification: a context's did-save notification in a
// form that can leave the process — a name and, for each kind of change
// (NSInsertedObjectsKey, NSUpdatedObjectsKey, NSDeletedObjectsKey…), the
// URI strings of the objects' permanent IDs. Another process that opened the
// same store files turns it back into a did-save notification of its own
// objects (NSManagedObjectContext+ZBTarrowPersistentStoreSaveNotification.h)
// and merges it. How the bytes travel is up to the application.
//
// Archive: a keyed archive with this class at the root, keys "name" (a
// string) and "userInfo" (a dictionary of arrays of strings); decoding admits
// nothing else.
//
// Ownership: shared_ptr (notificationWithName / unarchive).
// Thread-safety: the properties are read and written atomically, so the
// object may be handed between threads.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/archive/NSCoding.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/Value.h"
#include "platform/foundation/ZBMutex.h"

// A request identifier the application may use when it exchanges these
// notifications; the library does not read it.
inline constexpr std::int64_t ZBTArrowPersistentStoreNotificationRequestIdentifier = 1;

class ZBTarrowPersistentStoreNotification final : public NSObject, public NSCoding {
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  static std::shared_ptr<ZBTarrowPersistentStoreNotification> notificationWithName(std::string name,
                                                                                   Dictionary userInfo);
  static bool supportsSecureCoding() { return true; }

  std::string name() const;
  void setName(std::string name);
  // Key → array of URI strings.
  Dictionary userInfo() const;
  void setUserInfo(Dictionary userInfo);

  // The keyed archive of the receiver; nullopt when it cannot be archived.
  [[nodiscard]] std::optional<Data> archive() const;
  // The notification held by data; null for anything else (damaged bytes, an
  // archive of another class, values of the wrong kinds).
  static std::shared_ptr<ZBTarrowPersistentStoreNotification> unarchive(const Data& data);

  void encodeWithCoder(NSKeyedArchiver& coder) const override;
  std::string className() const override { return "ZBTarrowPersistentStoreNotification"; }

  // For notificationWithName only (archive needs the object in a shared_ptr).
  ZBTarrowPersistentStoreNotification(Passkey, std::string name, Dictionary userInfo);

private:
  mutable ZBMutex _lock;
  std::string _name ZB_GUARDED_BY(_lock);
  Dictionary _userInfo ZB_GUARDED_BY(_lock);
};

using ZBTarrowPersistentStoreNotificationPtr = std::shared_ptr<ZBTarrowPersistentStoreNotification>;
