#include "store/ZBTarrowPersistentStoreNotification.h"

#include <mutex>

#include "platform/archive/NSKeyedArchiver.h"
#include "platform/archive/NSKeyedUnarchiver.h"

namespace {

const std::string kClassName = "ZBTarrowPersistentStoreNotification";
const std::string kNameKey = "name";
const std::string kUserInfoKey = "userInfo";

std::shared_ptr<NSObject> decode(NSKeyedUnarchiver& coder, NSErrorPtr*) {
  Value name = coder.decodeObjectOfClasses({"NSString"}, kNameKey);
  Value userInfo = coder.decodeObjectOfClasses({"NSDictionary", "NSArray", "NSString"}, kUserInfoKey);
  if (coder.error()) return nullptr;
  return ZBTarrowPersistentStoreNotification::notificationWithName(name.asString(), userInfo.asDictionary());
}

void registerClass() {
  static std::once_flag once;
  std::call_once(once, [] { NSKeyedUnarchiver::registerClass(kClassName, {}, decode); });
}

}  // namespace

ZBTarrowPersistentStoreNotification::ZBTarrowPersistentStoreNotification(Passkey, std::string name, Dictionary userInfo)
    : _name(std::move(name)), _userInfo(std::move(userInfo)) {}

std::shared_ptr<ZBTarrowPersistentStoreNotification> ZBTarrowPersistentStoreNotification::notificationWithName(
    std::string name, Dictionary userInfo) {
  return std::make_shared<ZBTarrowPersistentStoreNotification>(Passkey(), std::move(name), std::move(userInfo));
}

std::string ZBTarrowPersistentStoreNotification::name() const {
  ZBMutexLock hold(_lock);
  return _name;
}

void ZBTarrowPersistentStoreNotification::setName(std::string name) {
  ZBMutexLock hold(_lock);
  _name = std::move(name);
}

Dictionary ZBTarrowPersistentStoreNotification::userInfo() const {
  ZBMutexLock hold(_lock);
  return _userInfo;
}

void ZBTarrowPersistentStoreNotification::setUserInfo(Dictionary userInfo) {
  ZBMutexLock hold(_lock);
  _userInfo = std::move(userInfo);
}

void ZBTarrowPersistentStoreNotification::encodeWithCoder(NSKeyedArchiver& coder) const {
  coder.encodeObject(name(), kNameKey);
  coder.encodeObject(userInfo(), kUserInfoKey);
}

std::optional<Data> ZBTarrowPersistentStoreNotification::archive() const {
  registerClass();
  auto self = std::static_pointer_cast<const NSObject>(shared_from_this());
  NSErrorPtr error;
  Data data = NSKeyedArchiver::archivedDataWithRootObject(Value(std::const_pointer_cast<NSObject>(self)), &error);
  if (error || data.empty()) return std::nullopt;
  return data;
}

std::shared_ptr<ZBTarrowPersistentStoreNotification> ZBTarrowPersistentStoreNotification::unarchive(
    const Data& data) {
  registerClass();
  Value root = NSKeyedUnarchiver::unarchivedObjectOfClass(kClassName, data);
  return root.as<ZBTarrowPersistentStoreNotification>();
}
