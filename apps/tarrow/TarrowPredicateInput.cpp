#include "TarrowPredicateInput.h"

#include "TarrowErrors.h"
#include "TarrowText.h"
#include "model/ZBTarrowCollection.h"
#include "model/ZBTarrowPinboardPost.h"
#include "platform/objectstore/NSEntityDescription.h"
#include "platform/objectstore/NSManagedObjectModel.h"
#include "platform/objectstore/NSPersistentStoreCoordinator.h"
#include "platform/predicate/NSComparisonPredicate.h"
#include "platform/predicate/ZBPredicateError.h"

namespace {

// Columns of the terminal up to byte offset: UTF-8 continuation bytes take none.
std::size_t columnOf(const std::string& text, std::size_t offset) {
  std::size_t column = 0;
  for (std::size_t i = 0; i < offset && i < text.size(); ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) ++column;
  }
  return column;
}

}  // namespace

NSPredicatePtr TarrowParsePredicate(const std::string& text, NSErrorPtr* error) {
  NSErrorPtr parseError;
  NSPredicatePtr predicate = NSPredicate::predicateWithFormat(text, {}, &parseError);
  if (predicate) return predicate;
  std::string suggestion = "  " + text;
  const Value& position = parseError ? parseError->userInfo()[ZBPredicateErrorPositionKey] : Value();
  if (position.isInteger()) {
    const std::size_t column = columnOf(text, static_cast<std::size_t>(position.integerValue()));
    suggestion += "\n  " + std::string(column, ' ') + "^ " +
                  TarrowLocalized("(character %@)", {std::to_string(column + 1)});
  }
  Dictionary info{{NSLocalizedDescriptionKey, Value(TarrowLocalized("The predicate can’t be read"))},
                  {NSLocalizedRecoverySuggestionErrorKey, Value(suggestion)}};
  if (parseError) {
    info.set(NSLocalizedFailureReasonErrorKey, Value(parseError->localizedDescription()));
    info.set(NSUnderlyingErrorKey, Value(parseError));
  }
  ZBSetError(error, NSError::create(TarrowErrorDomain, TarrowInvalidInputError, std::move(info)));
  return nullptr;
}

NSPredicatePtr TarrowConcretePredicate(const NSPredicatePtr& predicate, const NSManagedObjectContextPtr& context) {
  if (!predicate) return predicate;
  // Only a predicate naming relative dates needs the collection's rewriting.
  if (predicate->predicateFormat().find(ZBTarrowCollectionPostRelativeDateKey) == std::string::npos) return predicate;
  auto scratch = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  scratch->setParentContext(context);
  auto collection = scratch->insertNewObject<ZBTarrowCollection>(ZBTarrowCollectionEntityName);
  collection->setPredicate(predicate);
  return collection->displayPredicate();
}

NSErrorPtr TarrowCheckPostKeys(const NSPredicate& predicate, const NSManagedObjectContextPtr& context) {
  auto coordinator = context->persistentStoreCoordinator();
  auto entity = coordinator ? coordinator->managedObjectModel()->entityNamed(ZBTarrowPinboardPostEntityName) : nullptr;
  if (!entity) return nullptr;
  std::string unknown;
  predicate.visitPredicateTree([&](const NSPredicate& node, bool& stop) {
    auto* comparison = dynamic_cast<const NSComparisonPredicate*>(&node);
    if (!comparison) return;
    for (const auto* side : {&comparison->leftExpression(), &comparison->rightExpression()}) {
      if (!*side || (*side)->expressionType() != NSExpressionType::KeyPath) continue;
      std::string key = (*side)->keyPath().substr(0, (*side)->keyPath().find('.'));
      if (key == ZBTarrowCollectionPostRelativeDateKey || key == "SELF" || entity->propertyNamed(key)) continue;
      unknown = key;
      stop = true;
      return;
    }
  });
  if (unknown.empty()) return nullptr;
  return TarrowMakeError(TarrowInvalidInputError, TarrowLocalized("Bookmarks have no “%@”", {unknown}),
                         TarrowLocalized("Use url, title, desc, tags, date, relative_date, unread, shared, starred, "
                                         "dead, source or others."));
}
