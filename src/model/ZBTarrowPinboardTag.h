#pragma once
// ZBTarrowPinboardTag: one tag of the user's bookmarks, shared by every post
// that carries it (entity "PinboardTag", configuration "Pinboard").
// `previousTitle` is the title the service still knows after a local rename.
// `postCount` counts every post of the tag, deleting ones included, and is
// observable (it follows "posts.@count").
//
// Thread-safety: use only on its context's queue.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "model/ZBTarrowManagedObjectExporting.h"
#include "platform/objectstore/NSManagedObject.h"

extern const std::string ZBTarrowPinboardTagEntityName;  // "PinboardTag"

extern const std::string ZBTarrowPinboardTagTitleKey;          // "title"
extern const std::string ZBTarrowPinboardTagPreviousTitleKey;  // "previousTitle"
// Relationship to PinboardPost (inverse: the post's "tags").
extern const std::string ZBTarrowPinboardTagPostsKey;  // "posts"
// Derived, read-only.
extern const std::string ZBTarrowPinboardTagPostCountKey;  // "postCount"

class ZBTarrowPinboardPost;

class ZBTarrowPinboardTag final : public NSManagedObject, public ZBTarrowPinboardObject {
public:
  std::optional<std::string> title() const;
  void setTitle(std::optional<std::string> title);
  std::optional<std::string> previousTitle() const;
  void setPreviousTitle(std::optional<std::string> title);
  std::vector<std::shared_ptr<ZBTarrowPinboardPost>> posts() const;
  std::uint64_t postCount() const;

  // ZBTarrowPinboardObject
  bool deleting() const override { return valueForKey(ZBTarrowPinboardObjectDeletingKey).boolValue(); }
  void setDeleting(bool value) override { setValueForKey(Value(value), ZBTarrowPinboardObjectDeletingKey); }
  bool dirty() const override { return valueForKey(ZBTarrowPinboardObjectDirtyKey).boolValue(); }
  void setDirty(bool value) override { setValueForKey(Value(value), ZBTarrowPinboardObjectDirtyKey); }

  // title, previousTitle, deleting, dirty as far as present; never posts.
  Dictionary dictionaryRepresentation() const override;
  // Sets every entry except "posts", which is ignored.
  bool updateWithDictionaryRepresentation(const Dictionary& dictionary, NSErrorPtr* error = nullptr) override;

  static std::vector<std::string> keyPathsForValuesAffectingPostCount() { return {"posts.@count"}; }

  // NSManagedObject
  Value valueForKey(const std::string& key) const override;
  std::vector<std::string> keyPathsForValuesAffectingValueForKey(const std::string& key) const override;
};

using ZBTarrowPinboardTagPtr = std::shared_ptr<ZBTarrowPinboardTag>;
