#include "model/ZBTarrowCollection.h"

#include <array>
#include <limits>
#include <utility>

#include "model/ZBTarrowPinboardPost.h"
#include "platform/archive/NSKeyedArchiver.h"
#include "platform/archive/NSKeyedUnarchiver.h"
#include "platform/foundation/NSCalendar.h"
#include "platform/foundation/NSUUID.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/predicate/NSComparisonPredicate.h"
#include "platform/predicate/NSCompoundPredicate.h"

const std::string ZBTarrowCollectionEntityName = "Collection";
const std::string ZBTarrowCollectionIdentifierKey = "identifier";
const std::string ZBTarrowCollectionTitleKey = "title";
const std::string ZBTarrowCollectionPredicateKey = "predicate";
const std::string ZBTarrowCollectionEditableKey = "editable";
const std::string ZBTarrowCollectionOrderKey = "order";
const std::string ZBTarrowCollectionHiddenKey = "hidden";
const std::string ZBTarrowCollectionDisplayPredicateKey = "displayPredicate";
const std::string ZBTarrowCollectionPostCountKey = "postCount";

const std::string ZBTarrowCollectionPostRelativeDateKey = "relative_date";
const std::string ZBTarrowCollectionRelativeDateHoursKey = "hours";
const std::string ZBTarrowCollectionRelativeDateDaysKey = "days";
const std::string ZBTarrowCollectionRelativeDateWeeksKey = "weeks";
const std::string ZBTarrowCollectionRelativeDateMonthsKey = "months";
const std::string ZBTarrowCollectionRelativeDateYearsKey = "years";

namespace {

constexpr std::string_view kTokenSeparator = "__";

// The text of a value as the platform's "%@" prints it.
std::string formatObject(const Value& value) {
  switch (value.type()) {
    case Value::Type::Absent: return "(null)";
    case Value::Type::String: return value.asString();
    case Value::Type::Bool: return value.boolValue() ? "1" : "0";
    default: return value.description();
  }
}

bool isRelativeDateCondition(const NSPredicate& node) {
  auto* comparison = dynamic_cast<const NSComparisonPredicate*>(&node);
  if (!comparison) return false;
  Value keyPath = comparison->valueForExpressionType(NSExpressionType::KeyPath);
  return keyPath.isString() && keyPath.asString() == ZBTarrowCollectionPostRelativeDateKey;
}

}  // namespace

// --- Relative dates ---

std::string ZBTarrowCollectionCreateRelativeDateToken(const Value& time, const Value& unit) {
  std::string token = time.isAbsent() ? std::string() : formatObject(time);
  token += kTokenSeparator;
  token += formatObject(unit);
  return token;
}

void ZBTarrowCollectionParseRelativeDateToken(std::string_view token, std::string* time, std::string* unit) {
  auto first = token.find(kTokenSeparator);
  auto last = token.rfind(kTokenSeparator);
  if (time) *time = std::string(first == std::string_view::npos ? token : token.substr(0, first));
  if (unit) *unit = std::string(last == std::string_view::npos ? token : token.substr(last + kTokenSeparator.size()));
}

std::optional<NSDate> ZBTarrowCollectionRelativeDateWithTimeAndUnit(const Value& time, std::string_view unit) {
  const std::int64_t amount = time.integerValue();
  static const std::array<std::pair<const std::string*, NSCalendarUnit>, 5> units = {{
      {&ZBTarrowCollectionRelativeDateHoursKey, NSCalendarUnit::Hour},
      {&ZBTarrowCollectionRelativeDateDaysKey, NSCalendarUnit::Day},
      {&ZBTarrowCollectionRelativeDateWeeksKey, NSCalendarUnit::WeekOfYear},
      {&ZBTarrowCollectionRelativeDateMonthsKey, NSCalendarUnit::Month},
      {&ZBTarrowCollectionRelativeDateYearsKey, NSCalendarUnit::Year},
  }};
  const NSDate now = NSDate::date();
  for (const auto& [name, calendarUnit] : units) {
    if (unit != *name) continue;
    if (amount == std::numeric_limits<std::int64_t>::min()) return std::nullopt;  // -amount would overflow
    return NSCalendar::currentCalendar()->dateByAddingUnit(calendarUnit, -amount, now);
  }
  return now;
}

// --- Attributes ---

ZBTarrowCollection::~ZBTarrowCollection() = default;

std::optional<std::string> ZBTarrowCollection::identifier() const {
  Value value = valueForKey(ZBTarrowCollectionIdentifierKey);
  if (!value.isString()) return std::nullopt;
  return value.asString();
}

std::optional<std::string> ZBTarrowCollection::title() const {
  Value value = valueForKey(ZBTarrowCollectionTitleKey);
  if (!value.isString()) return std::nullopt;
  return value.asString();
}

NSPredicatePtr ZBTarrowCollection::predicate() const {
  return valueForKey(ZBTarrowCollectionPredicateKey).as<NSPredicate>();
}

void ZBTarrowCollection::setPredicate(NSPredicatePtr predicate) {
  setValueForKey(predicate ? Value(std::move(predicate)) : Value(), ZBTarrowCollectionPredicateKey);
}

NSPredicatePtr ZBTarrowCollection::displayPredicate() const {
  auto stored = predicate();
  if (!stored) return nullptr;
  return stored->mapPredicateTree([](const NSPredicatePtr& node) -> NSPredicatePtr {
    if (!isRelativeDateCondition(*node)) return nullptr;
    auto& comparison = static_cast<const NSComparisonPredicate&>(*node);
    // The stored operator does not matter: a relative date always means "on
    // or after".
    std::string time, unit;
    ZBTarrowCollectionParseRelativeDateToken(comparison.valueForExpressionType(NSExpressionType::Variable).asString(),
                                             &time, &unit);
    auto date = ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value(time), unit);
    return NSPredicate::predicateWithFormat("%K >= %@",
                                            {Value(ZBTarrowPinboardPostDateKey), date ? Value(*date) : Value()});
  });
}

bool ZBTarrowCollection::predicateHasRelativeDate() const {
  auto stored = predicate();
  if (!stored) return false;
  bool found = false;
  stored->visitPredicateTree([&](const NSPredicate& node, bool& stop) {
    if (isRelativeDateCondition(node)) found = stop = true;
  });
  return found;
}

Value ZBTarrowCollection::valueForKey(const std::string& key) const {
  if (key == ZBTarrowCollectionDisplayPredicateKey) {
    auto display = displayPredicate();
    return display ? Value(std::move(display)) : Value();
  }
  if (key == ZBTarrowCollectionPostCountKey) return Value(static_cast<std::int64_t>(_postCount));
  return NSManagedObject::valueForKey(key);
}

std::vector<std::string> ZBTarrowCollection::keyPathsForValuesAffectingValueForKey(const std::string& key) const {
  auto keyPaths = NSManagedObject::keyPathsForValuesAffectingValueForKey(key);
  if (key == ZBTarrowCollectionDisplayPredicateKey) keyPaths.push_back(ZBTarrowCollectionPredicateKey);
  return keyPaths;
}

// --- Post count ---

void ZBTarrowCollection::setPostCount(std::uint64_t count) {
  willChangeValueForKey(ZBTarrowCollectionPostCountKey);
  _postCount = count;
  didChangeValueForKey(ZBTarrowCollectionPostCountKey);
}

std::uint64_t ZBTarrowCollection::_retrievePostCount() const {
  auto context = managedObjectContext();
  if (!context) return 0;
  static const NSPredicatePtr notDeleting =
      NSPredicate::predicateWithFormat("%K == NO", {Value(ZBTarrowPinboardObjectDeletingKey)});
  auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
  if (auto display = displayPredicate()) {
    request->setPredicate(NSCompoundPredicate::andPredicateWithSubpredicates({notDeleting, display}));
  } else {
    request->setPredicate(notDeleting);
  }
  const std::int64_t count = context->countForFetchRequest(request);  // a failed count reads as none
  return count == NSNotFound || count < 0 ? 0 : static_cast<std::uint64_t>(count);
}

void ZBTarrowCollection::_refreshPostCount() {
  const std::uint64_t count = _retrievePostCount();
  if (count != _postCount) setPostCount(count);
}

void ZBTarrowCollection::refreshPostCount() { _refreshPostCount(); }

// --- Observation while awake ---

void ZBTarrowCollection::_startObserving() {
  _stopObserving();
  auto context = managedObjectContext();
  if (context) {
    std::weak_ptr<ZBTarrowCollection> weakSelf = std::static_pointer_cast<ZBTarrowCollection>(shared_from_this());
    _contextObservation = NSNotificationCenter::defaultCenter().addObserver(
        NSManagedObjectContextObjectsDidChangeNotification, context, [weakSelf](const NSNotification&) {
          if (auto self = weakSelf.lock()) self->_refreshPostCount();
        });
  }
  // Initial: the count is computed at once. The token is ours and ends
  // before we do, so the callback may refer to this object directly.
  _predicateObservation = addObserver(
      ZBTarrowCollectionPredicateKey,
      NSKeyValueObservingOptions::New | NSKeyValueObservingOptions::Old | NSKeyValueObservingOptions::Initial,
      [this](const std::string&, NSObject&, const NSKeyValueChange&) { _refreshPostCount(); });
}

void ZBTarrowCollection::_stopObserving() {
  _contextObservation.invalidate();
  _predicateObservation.invalidate();
}

void ZBTarrowCollection::awakeFromInsert() {
  NSManagedObject::awakeFromInsert();
  setPrimitiveValueForKey(Value(ZBGloballyUniqueString()), ZBTarrowCollectionIdentifierKey);
  _startObserving();
}

void ZBTarrowCollection::awakeFromFetch() {
  NSManagedObject::awakeFromFetch();
  _startObserving();
}

void ZBTarrowCollection::willTurnIntoFault() {
  _stopObserving();
  NSManagedObject::willTurnIntoFault();
}

// --- Dictionary form ---

Dictionary ZBTarrowCollection::dictionaryRepresentation() const {
  Dictionary dictionary = ZBTarrowStoredAttributesDictionary(*this);
  auto stored = predicate();
  Data archive = NSKeyedArchiver::archivedDataWithRootObject(stored ? Value(stored) : Value());
  dictionary.set(ZBTarrowCollectionPredicateKey, Value(std::move(archive)));
  return dictionary;
}

bool ZBTarrowCollection::updateWithDictionaryRepresentation(const Dictionary& dictionary, NSErrorPtr* error) {
  Dictionary values = dictionary;
  Value predicate = values[ZBTarrowCollectionPredicateKey];
  if (predicate.isData()) {
    ZBPredicateRegisterArchivableClasses();
    // Damaged data and the archive of nothing both come back absent, which
    // removes the key: the current predicate stays.
    predicate = NSKeyedUnarchiver::unarchivedObjectOfClass("NSPredicate", predicate.asData());
    values.set(ZBTarrowCollectionPredicateKey, predicate);
  }
  return setValuesForKeysWithDictionary(values, error);
}
