#include "model/ZBTarrowPinboardPost.h"

#include <unicode/coll.h>
#include <unicode/locid.h>
#include <unicode/stringpiece.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "model/ZBTarrowPinboardTag.h"
#include "platform/foundation/NSURL.h"
#include "platform/foundation/ZBLocalizedString.h"
#include "platform/foundation/ZBMD5.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/objectstore/NSManagedObjectContext.h"

const std::string ZBTarrowPinboardPostEntityName = "PinboardPost";
const std::string ZBTarrowPinboardPostIdentifierKey = "identifier";
const std::string ZBTarrowPinboardPostMetaKey = "meta";
const std::string ZBTarrowPinboardPostUsernameKey = "username";
const std::string ZBTarrowPinboardPostURLKey = "url";
const std::string ZBTarrowPinboardPostTitleKey = "title";
const std::string ZBTarrowPinboardPostDescKey = "desc";
const std::string ZBTarrowPinboardPostDateKey = "date";
const std::string ZBTarrowPinboardPostUnreadKey = "unread";
const std::string ZBTarrowPinboardPostSharedKey = "shared";
const std::string ZBTarrowPinboardPostStarredKey = "starred";
const std::string ZBTarrowPinboardPostDeadKey = "dead";
const std::string ZBTarrowPinboardPostSourceKey = "source";
const std::string ZBTarrowPinboardPostOthersKey = "others";
const std::string ZBTarrowPinboardPostTagsKey = "tags";
const std::string ZBTarrowPinboardPostHostKey = "host";
const std::string ZBTarrowPinboardPostSortedTagTitlesKey = "sortedTagTitles";
const std::string ZBTarrowPinboardPostEditableKey = "editable";

namespace {

// One collator per thread, remade when ICU's default locale changes.
const icu::Collator* tagTitleCollator() {
  thread_local std::string localeName;
  thread_local std::unique_ptr<icu::Collator> collator;
  const icu::Locale& locale = icu::Locale::getDefault();
  if (!collator || localeName != locale.getName()) {
    // A C/POSIX environment maps to en_US_POSIX, whose collation orders
    // ASCII by code point (all capitals first); such a user expressed no
    // preference, so the root collation serves.
    const bool posix = std::strcmp(locale.getName(), "en_US_POSIX") == 0;
    UErrorCode status = U_ZERO_ERROR;
    collator.reset(icu::Collator::createInstance(posix ? icu::Locale::getRoot() : locale, status));
    if (U_FAILURE(status)) collator.reset();
    // Secondary strength: letter case does not count, accents do.
    if (collator) collator->setStrength(icu::Collator::SECONDARY);
    localeName = locale.getName();
  }
  return collator.get();
}

// "from:%@" filled in; the format comes from the catalogue.
std::string sourceTitle(const std::string& name) {
  std::string format = ZBLocalizedString("from:%@");
  auto at = format.find("%@");
  if (at == std::string::npos) return format;
  return format.replace(at, 2, name);
}

}  // namespace

// --- Typed access ---

std::optional<std::string> ZBTarrowPinboardPost::_string(const std::string& key) const {
  Value value = valueForKey(key);
  if (!value.isString()) return std::nullopt;
  return value.asString();
}

void ZBTarrowPinboardPost::_setString(const std::string& key, std::optional<std::string> value) {
  setValueForKey(value ? Value(std::move(*value)) : Value(), key);
}

std::optional<NSDate> ZBTarrowPinboardPost::date() const {
  Value value = valueForKey(ZBTarrowPinboardPostDateKey);
  if (!value.isDate()) return std::nullopt;
  return value.asDate();
}

void ZBTarrowPinboardPost::setDate(std::optional<NSDate> value) {
  setValueForKey(value ? Value(*value) : Value(), ZBTarrowPinboardPostDateKey);
}

std::uint64_t ZBTarrowPinboardPost::others() const {
  return static_cast<std::uint64_t>(valueForKey(ZBTarrowPinboardPostOthersKey).integerValue());
}

void ZBTarrowPinboardPost::setOthers(std::uint64_t value) {
  setValueForKey(Value(static_cast<std::int64_t>(value)), ZBTarrowPinboardPostOthersKey);
}

std::vector<std::shared_ptr<ZBTarrowPinboardTag>> ZBTarrowPinboardPost::tags() const {
  std::vector<std::shared_ptr<ZBTarrowPinboardTag>> tags;
  for (const auto& member : valueForKey(ZBTarrowPinboardPostTagsKey).collectionElements()) {
    if (auto tag = member.as<ZBTarrowPinboardTag>()) tags.push_back(std::move(tag));
  }
  return tags;
}

// --- Life cycle ---

void ZBTarrowPinboardPost::awakeFromInsert() {
  NSManagedObject::awakeFromInsert();
  setPrimitiveValueForKey(Value(NSDate::date()), ZBTarrowPinboardPostDateKey);
}

std::string ZBTarrowPinboardPost::identifierForURL(std::string_view url, NSErrorPtr* error) {
  // The bytes a C string of the URL would give: up to the first zero byte.
  auto zero = url.find('\0');
  if (zero != std::string_view::npos) url = url.substr(0, zero);
  return ZBMD5HexString(url, error);
}

bool ZBTarrowPinboardPost::validateForInsert(NSErrorPtr* error) {
  if (!NSManagedObject::validateForInsert(error)) return false;
  if (primitiveValueForKey(ZBTarrowPinboardPostIdentifierKey)) return true;
  // The model requires url, so base validation has made sure it is there.
  const std::string url = primitiveValueForKey(ZBTarrowPinboardPostURLKey).asString();
  NSErrorPtr digestError;
  std::string identifier = identifierForURL(url, &digestError);
  if (identifier.empty()) return ZBSetError(error, digestError);
  setPrimitiveValueForKey(Value(std::move(identifier)), ZBTarrowPinboardPostIdentifierKey);
  return true;
}

// --- Derived values ---

std::optional<std::string> ZBTarrowPinboardPost::hostForURL(std::string_view text) {
  auto url = NSURL::URLWithString(text);
  if (!url) return std::nullopt;
  return url->host();
}

std::optional<std::string> ZBTarrowPinboardPost::host() const {
  auto url = this->url();
  if (!url) return std::nullopt;
  return hostForURL(*url);
}

std::vector<std::string> ZBTarrowPinboardPost::sortedTagTitles(const Set& titles) {
  std::vector<std::string> strings;
  strings.reserve(titles.size());
  for (const auto& title : titles) {
    if (title.isString()) strings.push_back(title.asString());
  }
  return sortedTagTitles(std::move(strings));
}

std::vector<std::string> ZBTarrowPinboardPost::sortedTagTitles(std::vector<std::string> titles) {
  // Titles equal to the collator (differing only in case) keep code-point
  // order among themselves, so the result never depends on set order.
  std::sort(titles.begin(), titles.end());
  const icu::Collator* collator = tagTitleCollator();
  if (!collator) return titles;
  std::stable_sort(titles.begin(), titles.end(), [collator](const std::string& a, const std::string& b) {
    UErrorCode status = U_ZERO_ERROR;
    return collator->compareUTF8(icu::StringPiece(a.data(), static_cast<int32_t>(a.size())),
                                 icu::StringPiece(b.data(), static_cast<int32_t>(b.size())), status) == UCOL_LESS;
  });
  return titles;
}

std::optional<std::string> ZBTarrowPinboardPost::sourceName(std::int64_t source) {
  static const char* const names[] = {"twitter",  "twitter_favs", "instapaper", "pocket",
                                      "iphone",   "delicious",    "readability"};
  if (source < 1 || source > 7) return std::nullopt;
  return std::string(names[source - 1]);
}

std::vector<std::string> ZBTarrowPinboardPost::sortedTagTitles() const {
  std::vector<std::string> titles;
  for (const auto& tag : tags()) {
    if (auto title = tag->title()) titles.push_back(std::move(*title));
  }
  titles = sortedTagTitles(std::move(titles));
  if (auto name = sourceName(source())) titles.insert(titles.begin(), sourceTitle(*name));
  return titles;
}

Value ZBTarrowPinboardPost::valueForKey(const std::string& key) const {
  if (key == ZBTarrowPinboardPostHostKey) {
    auto host = this->host();
    return host ? Value(std::move(*host)) : Value();
  }
  if (key == ZBTarrowPinboardPostSortedTagTitlesKey) {
    Array titles;
    for (auto& title : sortedTagTitles()) titles.emplace_back(std::move(title));
    return Value(std::move(titles));
  }
  if (key == ZBTarrowPinboardPostEditableKey) return Value(isEditable());
  return NSManagedObject::valueForKey(key);
}

std::vector<std::string> ZBTarrowPinboardPost::keyPathsForValuesAffectingValueForKey(const std::string& key) const {
  auto keyPaths = NSManagedObject::keyPathsForValuesAffectingValueForKey(key);
  std::vector<std::string> extra;
  if (key == ZBTarrowPinboardPostHostKey) extra = keyPathsForValuesAffectingHost();
  if (key == ZBTarrowPinboardPostSortedTagTitlesKey) extra = keyPathsForValuesAffectingSortedTagTitles();
  keyPaths.insert(keyPaths.end(), extra.begin(), extra.end());
  return keyPaths;
}

// --- Dictionary form ---

Dictionary ZBTarrowPinboardPost::dictionaryRepresentation() const {
  Dictionary dictionary = ZBTarrowStoredAttributesDictionary(*this);
  Set titles;
  for (const auto& tag : tags()) {
    if (auto title = tag->title()) titles.insert(Value(std::move(*title)));
  }
  dictionary.set(ZBTarrowPinboardPostTagsKey, Value(std::move(titles)));
  return dictionary;
}

std::shared_ptr<ZBTarrowPinboardTag> ZBTarrowPinboardPost::tagWithTitle(const std::string& title) const {
  auto context = managedObjectContext();
  if (!context) return nullptr;
  auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardTagEntityName);
  request->setFetchLimit(1);
  for (const char* format : {"%K == %@", "%K ==[cd] %@"}) {
    request->setPredicate(NSPredicate::predicateWithFormat(format, {Value(ZBTarrowPinboardTagTitleKey), Value(title)}));
    auto results = context->executeFetchRequest(request);  // a failed fetch is a miss
    if (results && !results->empty()) {
      if (auto tag = results->front().as<ZBTarrowPinboardTag>()) return tag;
    }
  }
  auto tag = context->insertNewObject<ZBTarrowPinboardTag>(ZBTarrowPinboardTagEntityName);
  tag->setTitle(title);
  return tag;
}

Value ZBTarrowPinboardPost::_tagsForValue(const Value& tags) const {
  if (tags.isNull()) return Value(Set());
  if (!tags.isCollection()) return tags;
  const Array members = tags.collectionElements();
  for (const auto& member : members) {
    if (!member.as<ZBTarrowPinboardTag>() && !member.isString()) return tags;
  }
  Set resolved;
  for (const auto& member : members) {
    if (member.isString()) {
      if (member.asString().empty()) continue;
      if (auto tag = tagWithTitle(member.asString())) resolved.insert(Value(tag));
    } else {
      resolved.insert(member);
    }
  }
  return Value(std::move(resolved));
}

bool ZBTarrowPinboardPost::updateWithDictionaryRepresentation(const Dictionary& dictionary, NSErrorPtr* error) {
  for (const auto& entry : dictionary) {
    if (!entity()->propertyNamed(entry.first)) {
      throw std::logic_error("the entity " + entity()->name() + " has no property '" + entry.first + "'");
    }
  }
  Dictionary values = dictionary;
  // Absent flags are the service's way of saying read, public, not starred.
  if (!values.contains(ZBTarrowPinboardPostUnreadKey)) values.set(ZBTarrowPinboardPostUnreadKey, Value(false));
  if (!values.contains(ZBTarrowPinboardPostSharedKey)) values.set(ZBTarrowPinboardPostSharedKey, Value(true));
  if (!values.contains(ZBTarrowPinboardPostStarredKey)) values.set(ZBTarrowPinboardPostStarredKey, Value(false));
  const Value& tags = dictionary[ZBTarrowPinboardPostTagsKey];
  if (!tags.isAbsent()) values.set(ZBTarrowPinboardPostTagsKey, _tagsForValue(tags));
  return setValuesForKeysWithDictionary(values, error);
}
