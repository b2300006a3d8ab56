#include "TarrowStore.h"

#include "TarrowErrors.h"
#include "TarrowText.h"
#include "platform/predicate/NSCompoundPredicate.h"

std::optional<std::vector<std::shared_ptr<NSManagedObject>>> TarrowStore::fetch(const std::string& entity,
                                                                                NSPredicatePtr predicate,
                                                                                std::vector<NSSortDescriptor> order,
                                                                                std::uint64_t limit,
                                                                                NSErrorPtr* error) const {
  auto request = NSFetchRequest::fetchRequestWithEntityName(entity);
  request->setPredicate(std::move(predicate));
  request->setSortDescriptors(std::move(order));
  request->setFetchLimit(limit);
  auto found = _context->executeFetchRequest(request, error);
  if (!found) return std::nullopt;
  std::vector<std::shared_ptr<NSManagedObject>> objects;
  objects.reserve(found->size());
  for (const Value& value : *found) {
    if (auto object = value.as<NSManagedObject>()) objects.push_back(std::move(object));
  }
  return objects;
}

std::int64_t TarrowStore::count(const std::string& entity, NSPredicatePtr predicate, NSErrorPtr* error) const {
  auto request = NSFetchRequest::fetchRequestWithEntityName(entity);
  request->setPredicate(std::move(predicate));
  std::int64_t n = _context->countForFetchRequest(request, error);
  return n == NSNotFound ? -1 : n;
}

NSPredicatePtr TarrowStore::notDeleting() {
  static const NSPredicatePtr predicate =
      NSPredicate::predicateWithFormat("%K == NO", {Value(ZBTarrowPinboardObjectDeletingKey)});
  return predicate;
}

template <class T>
std::shared_ptr<T> TarrowStore::_first(const std::string& entity, NSPredicatePtr predicate,
                                       const std::string& notFound, NSErrorPtr* error) const {
  auto found = fetch(entity, std::move(predicate), {}, 1, error);
  if (!found) return nullptr;
  if (found->empty()) {
    ZBSetError(error, TarrowMakeError(TarrowNotFoundError, notFound));
    return nullptr;
  }
  return std::dynamic_pointer_cast<T>(found->front());
}

ZBTarrowPinboardPostPtr TarrowStore::post(const std::string& url, NSErrorPtr* error) const {
  auto predicate = NSCompoundPredicate::andPredicateWithSubpredicates(
      {notDeleting(), NSPredicate::predicateWithFormat("%K == %@", {Value(ZBTarrowPinboardPostURLKey), Value(url)})});
  return _first<ZBTarrowPinboardPost>(ZBTarrowPinboardPostEntityName, predicate,
                                      TarrowLocalized("No bookmark of “%@”", {url}), error);
}

ZBTarrowCollectionPtr TarrowStore::collection(const std::string& name, NSErrorPtr* error) const {
  auto predicate = NSPredicate::predicateWithFormat(
      "%K ==[c] %@ OR %K == %@",
      {Value(ZBTarrowCollectionTitleKey), Value(name), Value(ZBTarrowCollectionIdentifierKey), Value(name)});
  return _first<ZBTarrowCollection>(ZBTarrowCollectionEntityName, predicate,
                                    TarrowLocalized("No collection named “%@”", {name}), error);
}

ZBTarrowSearchPtr TarrowStore::search(const std::string& name, NSErrorPtr* error) const {
  auto predicate = NSPredicate::predicateWithFormat(
      "%K ==[c] %@ OR %K == %@",
      {Value(ZBTarrowSearchTitleKey), Value(name), Value(ZBTarrowSearchIdentifierKey), Value(name)});
  return _first<ZBTarrowSearch>(ZBTarrowSearchEntityName, predicate,
                                TarrowLocalized("No saved search named “%@”", {name}), error);
}

std::shared_ptr<ZBTarrowPinboardTag> TarrowStore::tag(const std::string& title, NSErrorPtr* error) const {
  auto predicate = NSCompoundPredicate::andPredicateWithSubpredicates(
      {notDeleting(), NSPredicate::predicateWithFormat("%K == %@", {Value(ZBTarrowPinboardTagTitleKey), Value(title)})});
  return _first<ZBTarrowPinboardTag>(ZBTarrowPinboardTagEntityName, predicate,
                                     TarrowLocalized("No tag named “%@”", {title}), error);
}
