#pragma once
// ZBTarrowCollection: a smart collection of the sidebar — a named, stored
// predicate over the posts with a live count of the posts it matches
// (entity "Collection", configuration "Tarrow").
//
// The predicate may hold relative-date conditions: comparisons whose key path
// is "relative_date" and whose other side is a variable named by a token such
// as "7__days". displayPredicate turns each into "date >= <now moved back by
// that amount>", computed anew on every read, whatever operator the stored
// condition used.
//
// While awake (from insertion or fetch until it turns into a fault) the
// collection recounts on every objects-did-change notification of its
// context and on every change of its own predicate, and publishes the count
// through the observable key "postCount" (only real changes are announced).
// The count runs in SQL; posts are never loaded for it.
//
// Thread-safety: use only on its context's queue; the recount triggered by
// the context's notification runs on the thread that posts it (the
// context's queue).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/ZBTarrowManagedObjectExporting.h"
#include "platform/foundation/NSNotificationCenter.h"
#include "platform/objectstore/NSManagedObject.h"
#include "platform/predicate/NSPredicate.h"

extern const std::string ZBTarrowCollectionEntityName;  // "Collection"

extern const std::string ZBTarrowCollectionIdentifierKey;        // "identifier"
extern const std::string ZBTarrowCollectionTitleKey;             // "title"
extern const std::string ZBTarrowCollectionPredicateKey;         // "predicate" (an archived predicate)
extern const std::string ZBTarrowCollectionEditableKey;          // "editable"
extern const std::string ZBTarrowCollectionOrderKey;             // "order"
extern const std::string ZBTarrowCollectionHiddenKey;            // "hidden"
// Not stored.
extern const std::string ZBTarrowCollectionDisplayPredicateKey;  // "displayPredicate"
extern const std::string ZBTarrowCollectionPostCountKey;         // "postCount"

// Relative dates.
extern const std::string ZBTarrowCollectionPostRelativeDateKey;    // "relative_date"
extern const std::string ZBTarrowCollectionRelativeDateHoursKey;   // "hours"
extern const std::string ZBTarrowCollectionRelativeDateDaysKey;    // "days"
extern const std::string ZBTarrowCollectionRelativeDateWeeksKey;   // "weeks"
extern const std::string ZBTarrowCollectionRelativeDateMonthsKey;  // "months"
extern const std::string ZBTarrowCollectionRelativeDateYearsKey;   // "years"

// "<time>__<unit>": time as text (empty when absent), unit as text ("(null)"
// when absent, as the platform prints a missing object).
std::string ZBTarrowCollectionCreateRelativeDateToken(const Value& time, const Value& unit);
// Splits token at every "__": the first piece goes to *time, the last to
// *unit, each only when given. A token without "__" gives itself for both.
void ZBTarrowCollectionParseRelativeDateToken(std::string_view token, std::string* time, std::string* unit);
// Now (ZBClock) moved back by time units of the user's current calendar in
// the default time zone. time is a number or numeric text (anything else
// counts as 0); unit is matched exactly against the unit keys above (hour,
// day, week of year, month, year). An unknown unit gives now. nullopt when
// the calendar cannot represent the result (an absurd amount).
std::optional<NSDate> ZBTarrowCollectionRelativeDateWithTimeAndUnit(const Value& time, std::string_view unit);

class ZBTarrowCollection final : public NSManagedObject, public ZBTarrowManagedObjectExporting {
public:
  ~ZBTarrowCollection() override;

  std::optional<std::string> identifier() const;
  std::optional<std::string> title() const;
  bool editable() const { return valueForKey(ZBTarrowCollectionEditableKey).boolValue(); }
  bool hidden() const { return valueForKey(ZBTarrowCollectionHiddenKey).boolValue(); }
  std::int64_t order() const { return valueForKey(ZBTarrowCollectionOrderKey).integerValue(); }
  // The stored predicate; null when there is none (the collection then holds
  // every post that is not being deleted).
  NSPredicatePtr predicate() const;
  void setPredicate(NSPredicatePtr predicate);

  // The stored predicate with every relative-date condition made concrete;
  // null when there is no predicate.
  NSPredicatePtr displayPredicate() const;
  bool predicateHasRelativeDate() const;

  // Non-deleting posts matching displayPredicate, as of the last recount.
  std::uint64_t postCount() const { return _postCount; }
  void setPostCount(std::uint64_t count);
  // Recounts now; observers of "postCount" hear of it only if it changed.
  void refreshPostCount();

  // Every stored attribute with a value; "predicate" holds the keyed archive
  // of the predicate (of an absent object when there is none).
  Dictionary dictionaryRepresentation() const override;
  // Sets every entry. A "predicate" given as data is unarchived first; data
  // that does not hold a predicate (damaged, or the archive of nothing)
  // leaves the current predicate as it is.
  bool updateWithDictionaryRepresentation(const Dictionary& dictionary, NSErrorPtr* error = nullptr) override;

  // NSManagedObject
  void awakeFromInsert() override;
  void awakeFromFetch() override;
  void willTurnIntoFault() override;
  Value valueForKey(const std::string& key) const override;
  std::vector<std::string> keyPathsForValuesAffectingValueForKey(const std::string& key) const override;

private:
  void _startObserving();
  void _stopObserving();
  std::uint64_t _retrievePostCount() const;
  void _refreshPostCount();

  std::uint64_t _postCount = 0;
  NSNotificationObservation _contextObservation;
  NSKeyValueObservation _predicateObservation;
};

using ZBTarrowCollectionPtr = std::shared_ptr<ZBTarrowCollection>;
