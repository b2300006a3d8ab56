#pragma once
// NSError: an immutable error value (domain, code, user information). Held as
// NSErrorPtr. Thread-safe (immutable).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/Value.h"

class NSError;
using NSErrorPtr = std::shared_ptr<const NSError>;

// Standard user-information keys.
extern const std::string NSLocalizedDescriptionKey;
extern const std::string NSLocalizedFailureReasonErrorKey;
extern const std::string NSLocalizedRecoverySuggestionErrorKey;
extern const std::string NSLocalizedRecoveryOptionsErrorKey;
extern const std::string NSRecoveryAttempterErrorKey;
extern const std::string NSUnderlyingErrorKey;
extern const std::string NSFilePathErrorKey;
extern const std::string NSURLErrorKey;
extern const std::string NSDetailedErrorsKey;
extern const std::string NSValidationObjectErrorKey;
extern const std::string NSDebugDescriptionErrorKey;  // detail for developers, never shown to users
extern const std::string NSValidationKeyErrorKey;
extern const std::string NSPersistentStoreSaveConflictsErrorKey;

extern const std::string NSCocoaErrorDomain;
extern const std::string NSPOSIXErrorDomain;

// Codes of NSCocoaErrorDomain the system uses.
enum : std::int64_t {
  NSFileNoSuchFileError = 4,
  NSFileReadUnknownError = 256,
  NSFileReadNoPermissionError = 257,
  NSFileReadCorruptFileError = 259,
  NSFileReadNoSuchFileError = 260,
  NSFileWriteUnknownError = 512,
  NSFileWriteNoPermissionError = 513,
  NSFileWriteOutOfSpaceError = 640,
  NSUserCancelledError = 3072,
  NSPropertyListReadCorruptError = 3840,
  NSPropertyListWriteInvalidError = 3852,
  NSCoderReadCorruptError = 4864,
  NSCoderValueNotFoundError = 4865,
  NSCoderInvalidValueError = 4866,
  NSManagedObjectValidationError = 1550,
  NSValidationMultipleErrorsError = 1560,
  NSValidationMissingMandatoryPropertyError = 1570,
  NSValidationRelationshipLacksMinimumCountError = 1580,
  NSValidationRelationshipExceedsMaximumCountError = 1590,
  NSValidationRelationshipDeniedDeleteError = 1600,
  NSValidationNumberTooLargeError = 1610,
  NSValidationNumberTooSmallError = 1620,
  NSValidationDateTooLateError = 1630,
  NSValidationDateTooSoonError = 1640,
  NSValidationInvalidDateError = 1650,
  NSValidationStringTooLongError = 1660,
  NSValidationStringTooShortError = 1670,
  NSValidationStringPatternMatchingError = 1680,
  NSManagedObjectContextLockingError = 132000,
  NSPersistentStoreCoordinatorLockingError = 132010,
  NSManagedObjectReferentialIntegrityError = 133000,
  NSManagedObjectExternalRelationshipError = 133010,
  NSManagedObjectMergeError = 133020,
  NSManagedObjectConstraintMergeError = 133021,
  NSPersistentStoreInvalidTypeError = 134000,
  NSPersistentStoreTypeMismatchError = 134010,
  NSPersistentStoreIncompatibleSchemaError = 134020,
  NSPersistentStoreSaveError = 134030,
  NSPersistentStoreIncompleteSaveError = 134040,
  NSPersistentStoreSaveConflictsError = 134050,
  NSCoreDataError = 134060,
  NSPersistentStoreOperationError = 134070,
  NSPersistentStoreOpenError = 134080,
  NSPersistentStoreTimeoutError = 134090,
  NSPersistentStoreIncompatibleVersionHashError = 134100,
  NSMigrationError = 134110,
  NSMigrationMissingSourceModelError = 134130,
  NSMigrationMissingMappingModelError = 134140,
  NSEntityMigrationPolicyError = 134170,
  NSSQLiteError = 134180,
  NSInferredMappingModelError = 134190,
};

class NSError final : public NSObject {
public:
  static NSErrorPtr create(std::string domain, std::int64_t code, Dictionary userInfo = {});
  // Convenience: description and, when non-empty, recovery suggestion.
  static NSErrorPtr create(std::string domain, std::int64_t code, const std::string& description,
                           const std::string& recoverySuggestion = {});

  const std::string& domain() const { return _domain; }
  std::int64_t code() const { return _code; }
  const Dictionary& userInfo() const { return _userInfo; }

  // The description from user information, else the platform's fallback
  // "The operation couldn’t be completed. (<domain> error <code>.)".
  std::string localizedDescription() const;
  // The recovery suggestion from user information, or nullopt.
  std::optional<std::string> localizedRecoverySuggestion() const;
  std::optional<std::string> localizedFailureReason() const;
  // Titles under NSLocalizedRecoveryOptionsErrorKey (empty when none).
  std::vector<std::string> localizedRecoveryOptions() const;
  // The object under NSRecoveryAttempterErrorKey, if any.
  std::shared_ptr<NSObject> recoveryAttempter() const;
  NSErrorPtr underlyingError() const;

  bool isEqual(const NSObject& other) const override;
  std::size_t hash() const override;
  std::string className() const override { return "NSError"; }
  std::string description() const override;

  NSError(std::string domain, std::int64_t code, Dictionary userInfo);

private:
  std::string _domain;
  std::int64_t _code;
  Dictionary _userInfo;
};

// Stores error into *slot when a slot is given; the common tail of every
// "BOOL + error out-parameter" function. Returns false for convenience.
inline bool ZBSetError(NSErrorPtr* slot, NSErrorPtr error) {
  if (slot) *slot = std::move(error);
  return false;
}
