#pragma once
// ZBTarrowPinboardPost: one bookmark of the signed-in user as the service
// knows it (entity "PinboardPost", configuration "Pinboard").
//
// A post gets `date` = now when inserted and, on its first save, an
// `identifier` derived from its URL unless one was given (posts from the
// service carry the service's own). Derived keys: `host` (follows "url"),
// `sortedTagTitles` (follows "tags" only, although the source prefix depends
// on `source` too) and `editable` (always YES for a stored post).
//
// Ownership: made by contexts (insertNewObject / fetches) like every managed
// object.
// Thread-safety: use only on its context's queue; the tag lookup of
// updateWithDictionaryRepresentation fetches and inserts in that context.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/ZBTarrowManagedObjectExporting.h"
#include "platform/objectstore/NSManagedObject.h"

extern const std::string ZBTarrowPinboardPostEntityName;  // "PinboardPost"

// Stored attributes.
extern const std::string ZBTarrowPinboardPostIdentifierKey;  // "identifier"
extern const std::string ZBTarrowPinboardPostMetaKey;        // "meta"
extern const std::string ZBTarrowPinboardPostUsernameKey;    // "username"
extern const std::string ZBTarrowPinboardPostURLKey;         // "url"
extern const std::string ZBTarrowPinboardPostTitleKey;       // "title"
extern const std::string ZBTarrowPinboardPostDescKey;        // "desc"
extern const std::string ZBTarrowPinboardPostDateKey;        // "date"
extern const std::string ZBTarrowPinboardPostUnreadKey;      // "unread"
extern const std::string ZBTarrowPinboardPostSharedKey;      // "shared"
extern const std::string ZBTarrowPinboardPostStarredKey;     // "starred"
extern const std::string ZBTarrowPinboardPostDeadKey;        // "dead"
extern const std::string ZBTarrowPinboardPostSourceKey;      // "source"
extern const std::string ZBTarrowPinboardPostOthersKey;      // "others"
// Relationship to PinboardTag (inverse: the tag's "posts").
extern const std::string ZBTarrowPinboardPostTagsKey;  // "tags"
// Derived, read-only.
extern const std::string ZBTarrowPinboardPostHostKey;             // "host"
extern const std::string ZBTarrowPinboardPostSortedTagTitlesKey;  // "sortedTagTitles"
extern const std::string ZBTarrowPinboardPostEditableKey;         // "editable"

class ZBTarrowPinboardTag;

class ZBTarrowPinboardPost final : public NSManagedObject, public ZBTarrowPinboardObject {
public:
  // Typed access to the stored attributes (nullopt / NO / 0 when absent).
  std::optional<std::string> identifier() const { return _string(ZBTarrowPinboardPostIdentifierKey); }
  void setIdentifier(std::optional<std::string> value) { _setString(ZBTarrowPinboardPostIdentifierKey, std::move(value)); }
  std::optional<std::string> meta() const { return _string(ZBTarrowPinboardPostMetaKey); }
  void setMeta(std::optional<std::string> value) { _setString(ZBTarrowPinboardPostMetaKey, std::move(value)); }
  std::optional<std::string> username() const { return _string(ZBTarrowPinboardPostUsernameKey); }
  void setUsername(std::optional<std::string> value) { _setString(ZBTarrowPinboardPostUsernameKey, std::move(value)); }
  std::optional<std::string> url() const { return _string(ZBTarrowPinboardPostURLKey); }
  void setUrl(std::optional<std::string> value) { _setString(ZBTarrowPinboardPostURLKey, std::move(value)); }
  std::optional<std::string> title() const { return _string(ZBTarrowPinboardPostTitleKey); }
  void setTitle(std::optional<std::string> value) { _setString(ZBTarrowPinboardPostTitleKey, std::move(value)); }
  std::optional<std::string> desc() const { return _string(ZBTarrowPinboardPostDescKey); }
  void setDesc(std::optional<std::string> value) { _setString(ZBTarrowPinboardPostDescKey, std::move(value)); }
  std::optional<NSDate> date() const;
  void setDate(std::optional<NSDate> value);
  bool unread() const { return valueForKey(ZBTarrowPinboardPostUnreadKey).boolValue(); }
  void setUnread(bool value) { setValueForKey(Value(value), ZBTarrowPinboardPostUnreadKey); }
  bool shared() const { return valueForKey(ZBTarrowPinboardPostSharedKey).boolValue(); }
  void setShared(bool value) { setValueForKey(Value(value), ZBTarrowPinboardPostSharedKey); }
  bool starred() const { return valueForKey(ZBTarrowPinboardPostStarredKey).boolValue(); }
  void setStarred(bool value) { setValueForKey(Value(value), ZBTarrowPinboardPostStarredKey); }
  bool dead() const { return valueForKey(ZBTarrowPinboardPostDeadKey).boolValue(); }
  void setDead(bool value) { setValueForKey(Value(value), ZBTarrowPinboardPostDeadKey); }
  std::int64_t source() const { return valueForKey(ZBTarrowPinboardPostSourceKey).integerValue(); }
  void setSource(std::int64_t value) { setValueForKey(Value(value), ZBTarrowPinboardPostSourceKey); }
  std::uint64_t others() const;
  void setOthers(std::uint64_t value);
  // The post's tags (their order is not meaningful).
  std::vector<std::shared_ptr<ZBTarrowPinboardTag>> tags() const;

  // ZBTarrowPinboardObject
  bool deleting() const override { return valueForKey(ZBTarrowPinboardObjectDeletingKey).boolValue(); }
  void setDeleting(bool value) override { setValueForKey(Value(value), ZBTarrowPinboardObjectDeletingKey); }
  bool dirty() const override { return valueForKey(ZBTarrowPinboardObjectDirtyKey).boolValue(); }
  void setDirty(bool value) override { setValueForKey(Value(value), ZBTarrowPinboardObjectDirtyKey); }

  // Every stored attribute with a value, plus "tags": the set of the tag
  // titles (empty when the post has none).
  Dictionary dictionaryRepresentation() const override;
  // Sets the attributes from dictionary. Missing "unread", "shared" and
  // "starred" entries mean NO, YES and NO (the service leaves them out for
  // read, public, unstarred posts). "tags": missing leaves the tags alone;
  // the null marker or an empty collection clears them; otherwise each member
  // is a tag object (taken as it is) or a title (resolved by tagWithTitle;
  // empty titles are skipped), and the result replaces the post's tags.
  // Values of the wrong kind (a "tags" value that is not such a collection
  // included) are skipped as the protocol says; an unknown key throws
  // std::logic_error before any tag is looked up or set.
  bool updateWithDictionaryRepresentation(const Dictionary& dictionary, NSErrorPtr* error = nullptr) override;

  // The tag of that title in the post's context: an exact match, else one
  // differing only in case or diacritics (keeping its spelling), else a new
  // tag with that title. Fetch errors count as no match. Null only when the
  // post has no context.
  std::shared_ptr<ZBTarrowPinboardTag> tagWithTitle(const std::string& title) const;

  bool isEditable() const { return true; }
  // The host of url, nullopt when url is absent, not a URL or has no host.
  std::optional<std::string> host() const;
  // The tag titles in localized case-insensitive order, preceded by
  // "from:<source name>" (localized format) when source names a service.
  std::vector<std::string> sortedTagTitles() const;

  // The host component of text parsed as a URL; nullopt when it does not
  // parse or has no host.
  static std::optional<std::string> hostForURL(std::string_view text);
  // titles sorted ascending by localized, case-insensitive comparison (ICU
  // collation in the default locale at secondary strength). Non-string
  // members are ignored.
  static std::vector<std::string> sortedTagTitles(const Set& titles);
  static std::vector<std::string> sortedTagTitles(std::vector<std::string> titles);
  // The name of a source code: "twitter", "twitter_favs", "instapaper",
  // "pocket", "iphone", "delicious", "readability" for 1…7; nullopt otherwise.
  static std::optional<std::string> sourceName(std::int64_t source);
  // The 32 lower-case hex digits of the MD5 of url's bytes up to its first
  // zero byte: the identifier of a locally created post.
  static std::string identifierForURL(std::string_view url, NSErrorPtr* error = nullptr);
  static std::vector<std::string> keyPathsForValuesAffectingHost() { return {ZBTarrowPinboardPostURLKey}; }
  static std::vector<std::string> keyPathsForValuesAffectingSortedTagTitles() { return {ZBTarrowPinboardPostTagsKey}; }

  // NSManagedObject
  void awakeFromInsert() override;
  // After the base validation: fills in identifier from url when absent.
  [[nodiscard]] bool validateForInsert(NSErrorPtr* error) override;
  Value valueForKey(const std::string& key) const override;
  std::vector<std::string> keyPathsForValuesAffectingValueForKey(const std::string& key) const override;

private:
  // The tags a dictionary's "tags" value stands for (see
  // updateWithDictionaryRepresentation); a value that is not a collection of
  // tags and titles comes back as it is, for the setter to refuse.
  Value _tagsForValue(const Value& tags) const;
  std::optional<std::string> _string(const std::string& key) const;
  void _setString(const std::string& key, std::optional<std::string> value);
};

using ZBTarrowPinboardPostPtr = std::shared_ptr<ZBTarrowPinboardPost>;
