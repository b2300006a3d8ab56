#pragma once
// TarrowStore: the lookups and saves the subcommands make in the main
// context, by the names a user types (a post's URL, a collection's or saved
// search's title or identifier, a tag's title). Posts and tags being deleted
// count as gone.
//
// Borrows the context; use only on the main thread.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "model/ZBTarrowCollection.h"
#include "model/ZBTarrowPinboardPost.h"
#include "model/ZBTarrowPinboardTag.h"
#include "model/ZBTarrowSearch.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/objectstore/NSManagedObjectContext.h"

class TarrowStore {
public:
  explicit TarrowStore(NSManagedObjectContextPtr context) : _context(std::move(context)) {}

  const NSManagedObjectContextPtr& context() const { return _context; }

  // Objects of entity matching predicate (null: all), in order, at most limit
  // (0: no limit). nullopt and *error when the fetch fails.
  std::optional<std::vector<std::shared_ptr<NSManagedObject>>> fetch(const std::string& entity,
                                                                     NSPredicatePtr predicate,
                                                                     std::vector<NSSortDescriptor> order,
                                                                     std::uint64_t limit, NSErrorPtr* error) const;
  // -1 and *error when the count fails.
  std::int64_t count(const std::string& entity, NSPredicatePtr predicate, NSErrorPtr* error) const;

  // Each: null and *error (TarrowNotFoundError naming what was asked, or the
  // fetch's error) when there is none.
  ZBTarrowPinboardPostPtr post(const std::string& url, NSErrorPtr* error) const;
  ZBTarrowCollectionPtr collection(const std::string& name, NSErrorPtr* error) const;
  ZBTarrowSearchPtr search(const std::string& name, NSErrorPtr* error) const;
  std::shared_ptr<ZBTarrowPinboardTag> tag(const std::string& title, NSErrorPtr* error) const;

  // "deleting == NO": the posts and tags a user still sees.
  static NSPredicatePtr notDeleting();

  [[nodiscard]] bool save(NSErrorPtr* error) const { return _context->save(error); }

private:
  template <class T>
  std::shared_ptr<T> _first(const std::string& entity, NSPredicatePtr predicate, const std::string& notFound,
                            NSErrorPtr* error) const;

  NSManagedObjectContextPtr _context;
};
