#include "platform/foundation/NSError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "platform/foundation/ZBErrorRecoveryAttempter.h"
#include "platform/foundation/ZBLocalizedString.h"

TEST(NSError, KeysAndDomainsHaveTheirPlatformValues) {
  // These strings end up in archives and property lists read elsewhere.
  EXPECT_EQ(NSLocalizedDescriptionKey, "NSLocalizedDescription");
  EXPECT_EQ(NSLocalizedRecoverySuggestionErrorKey, "NSLocalizedRecoverySuggestion");
  EXPECT_EQ(NSLocalizedRecoveryOptionsErrorKey, "NSLocalizedRecoveryOptions");
  EXPECT_EQ(NSLocalizedFailureReasonErrorKey, "NSLocalizedFailureReason");
  EXPECT_EQ(NSRecoveryAttempterErrorKey, "NSRecoveryAttempter");
  EXPECT_EQ(NSUnderlyingErrorKey, "NSUnderlyingError");
  EXPECT_EQ(NSFilePathErrorKey, "NSFilePath");
  EXPECT_EQ(NSURLErrorKey, "NSURL");
  EXPECT_EQ(NSDetailedErrorsKey, "NSDetailedErrors");
  EXPECT_EQ(NSValidationObjectErrorKey, "NSValidationErrorObject");
  EXPECT_EQ(NSValidationKeyErrorKey, "NSValidationErrorKey");
  EXPECT_EQ(NSPersistentStoreSaveConflictsErrorKey, "conflictList");
  EXPECT_EQ(NSCocoaErrorDomain, "NSCocoaErrorDomain");
  EXPECT_EQ(NSPOSIXErrorDomain, "NSPOSIXErrorDomain");
}

TEST(NSError, LocalizedDescriptionFallbacks) {
  EXPECT_EQ(NSError::create("com.orvane.zbtarrowdata", -100)->localizedDescription(),
            "The operation couldn’t be completed. (com.orvane.zbtarrowdata error -100.)");
  EXPECT_EQ(NSError::create(NSCocoaErrorDomain, NSUserCancelledError)->localizedDescription(),
            "The operation was cancelled.");
  EXPECT_EQ(NSError::create(NSCocoaErrorDomain, NSManagedObjectValidationError)->localizedDescription(),
            "The operation couldn’t be completed. (NSCocoaErrorDomain error 1550.)");
  EXPECT_EQ(NSError::create(NSPOSIXErrorDomain, ENOENT)->localizedDescription(),
            "The operation couldn’t be completed. No such file or directory");
  EXPECT_EQ(NSError::create(NSPOSIXErrorDomain, 99999)->localizedDescription(),
            "The operation couldn’t be completed. (NSPOSIXErrorDomain error 99999.)");
  EXPECT_EQ(NSError::create("d", 1, Dictionary{{NSLocalizedFailureReasonErrorKey, "The disk is full."}})
                ->localizedDescription(),
            "The operation couldn’t be completed. The disk is full.");
  // An explicit description always wins, even for the cancel code.
  EXPECT_EQ(NSError::create(NSCocoaErrorDomain, NSUserCancelledError, "Stopped")->localizedDescription(), "Stopped");
  // A description of the wrong type is ignored rather than trusted.
  EXPECT_EQ(NSError::create("d", 2, Dictionary{{NSLocalizedDescriptionKey, 5}})->localizedDescription(),
            "The operation couldn’t be completed. (d error 2.)");
}

TEST(NSError, UserInformationAccessors) {
  auto underlying = NSError::create(NSPOSIXErrorDomain, EACCES);
  auto plain = NSError::create("d", 1, "Couldn’t Logout from Pinboard");
  EXPECT_FALSE(plain->localizedRecoverySuggestion());
  EXPECT_FALSE(plain->localizedFailureReason());
  EXPECT_FALSE(plain->userInfo().contains(NSLocalizedRecoverySuggestionErrorKey));  // empty suggestion left out
  EXPECT_TRUE(plain->localizedRecoveryOptions().empty());
  EXPECT_EQ(plain->recoveryAttempter(), nullptr);
  EXPECT_EQ(plain->underlyingError(), nullptr);

  auto error = NSError::create("d", 2,
                               Dictionary{{NSLocalizedDescriptionKey, "Failed"},
                                          {NSLocalizedRecoverySuggestionErrorKey, "Try again."},
                                          {NSLocalizedRecoveryOptionsErrorKey, Array{"OK", 3, "Cancel"}},
                                          {NSUnderlyingErrorKey, underlying}});
  EXPECT_EQ(error->localizedRecoverySuggestion(), "Try again.");
  EXPECT_EQ(error->localizedRecoveryOptions(), (std::vector<std::string>{"OK", "Cancel"}));
  ASSERT_NE(error->underlyingError(), nullptr);
  EXPECT_EQ(error->underlyingError()->code(), EACCES);
  // An underlying "error" that is not one reads as none.
  EXPECT_EQ(NSError::create("d", 3, Dictionary{{NSUnderlyingErrorKey, "text"}})->underlyingError(), nullptr);

  // Equality is by value; description is readable and carries the user information.
  auto same = NSError::create("d", 2,
                              Dictionary{{NSLocalizedDescriptionKey, "Failed"},
                                         {NSLocalizedRecoverySuggestionErrorKey, "Try again."},
                                         {NSLocalizedRecoveryOptionsErrorKey, Array{"OK", 3, "Cancel"}},
                                         {NSUnderlyingErrorKey, underlying}});
  EXPECT_TRUE(error->isEqual(*same));
  EXPECT_EQ(error->hash(), same->hash());
  EXPECT_EQ(Value(error), Value(same));
  EXPECT_FALSE(error->isEqual(*NSError::create("d", 2, "Failed")));
  EXPECT_FALSE(error->isEqual(*NSError::create("e", 2)));
  const std::string text = error->description();
  EXPECT_NE(text.find("Domain=d"), std::string::npos) << text;
  EXPECT_NE(text.find("Code=2"), std::string::npos) << text;
  EXPECT_NE(text.find("Try again."), std::string::npos) << text;
  EXPECT_EQ(NSError::create("d", 4)->description(),
            "Error Domain=d Code=4 \"The operation couldn’t be completed. (d error 4.)\"");
}

TEST(ZBErrorRecoveryAttempter, OptionsRunTheirActionsByIndex) {
  std::string credentials;
  auto attempter = ZBErrorRecoveryAttempter::create();
  attempter->addRecoveryOption("Continue Without Saving", [&] {
    credentials = "alice:token";
    return true;
  });
  attempter->addCancelRecoveryOption();
  EXPECT_EQ(attempter->recoveryOptions(), (std::vector<std::string>{"Continue Without Saving", "Cancel"}));

  // The error the interface sees: titles and attempter travel in user information.
  auto original = NSError::create("ZBPinboardKitErrorDomain", -200, "Couldn’t store credentials");
  Dictionary userInfo = original->userInfo();
  userInfo.set(NSRecoveryAttempterErrorKey, attempter);
  userInfo.set(NSLocalizedRecoveryOptionsErrorKey, attempter->recoveryOptionsValue());
  auto recoverable = NSError::create(original->domain(), original->code(), userInfo);
  EXPECT_EQ(recoverable->localizedRecoveryOptions(), attempter->recoveryOptions());
  auto found = std::dynamic_pointer_cast<ZBErrorRecoveryAttempter>(recoverable->recoveryAttempter());
  ASSERT_EQ(found, attempter);

  EXPECT_FALSE(found->attemptRecoveryFromError(recoverable, 1));  // cancel
  EXPECT_TRUE(credentials.empty());
  EXPECT_FALSE(found->attemptRecoveryFromError(recoverable, 2));  // out of range
  EXPECT_FALSE(found->attemptRecoveryFromError(recoverable, static_cast<std::size_t>(-1)));
  EXPECT_TRUE(found->attemptRecoveryFromError(recoverable, 0));
  EXPECT_EQ(credentials, "alice:token");

  // An action may add options to its own attempter (no lock is held while it runs).
  auto growing = ZBErrorRecoveryAttempter::create();
  growing->addRecoveryOption("More", [&] {
    growing->addCancelRecoveryOption();
    return true;
  });
  EXPECT_TRUE(growing->attemptRecoveryFromError(nullptr, 0));
  EXPECT_EQ(growing->recoveryOptions().size(), 2u);
  growing.reset();  // the action captured the pointer by reference only
}

TEST(ZBErrorRecoveryAttempter, CancelTitleIsLocalised) {
  ZBSetLocalizationLanguage("de");
  auto attempter = ZBErrorRecoveryAttempter::create();
  attempter->addCancelRecoveryOption();
  const auto titles = attempter->recoveryOptions();
  const auto fallback = NSError::create("d", 1)->localizedDescription();
  ZBSetLocalizationLanguage("");
  ASSERT_EQ(titles.size(), 1u);
  EXPECT_EQ(titles[0], "Abbrechen");
  EXPECT_EQ(fallback, "Der Vorgang konnte nicht abgeschlossen werden. (d error 1.)");
  EXPECT_EQ(NSError::create("d", 1)->localizedDescription(), "The operation couldn’t be completed. (d error 1.)");
}
