#include "platform/objectstore/impl/ZBFetchPlanner.h"

#include "platform/objectstore/NSPersistentStoreCoordinator.h"
#include "platform/predicate/NSComparisonPredicate.h"
#include "platform/predicate/NSCompoundPredicate.h"

namespace {

std::string collationFor(NSSortComparison comparison) {
  switch (comparison) {
    case NSSortComparison::Compare: return "";
    case NSSortComparison::CaseInsensitiveCompare: return " COLLATE ZB_CASE_INSENSITIVE";
    case NSSortComparison::LocalizedCaseInsensitiveCompare: return " COLLATE ZB_LOCALIZED";
    case NSSortComparison::LocalizedStandardCompare: return " COLLATE ZB_LOCALIZED_STANDARD";
  }
  return "";
}

}  // namespace

std::optional<std::pair<std::size_t, Value>> ZBEqualityConjunct(const NSPredicate& predicate,
                                                                 const NSEntityDescription& entity) {
  if (auto* compound = dynamic_cast<const NSCompoundPredicate*>(&predicate)) {
    if (compound->compoundPredicateType() != NSCompoundPredicateType::And) return std::nullopt;
    for (auto& sub : compound->subpredicates()) {
      if (auto found = ZBEqualityConjunct(*sub, entity)) return found;
    }
    return std::nullopt;
  }
  auto* comparison = dynamic_cast<const NSComparisonPredicate*>(&predicate);
  if (!comparison || comparison->predicateOperatorType() != NSPredicateOperatorType::EqualTo ||
      comparison->comparisonPredicateModifier() != NSComparisonPredicateModifier::Direct ||
      (comparison->options() & (NSCaseInsensitivePredicateOption | NSDiacriticInsensitivePredicateOption))) {
    return std::nullopt;
  }
  auto& left = *comparison->leftExpression();
  auto& right = *comparison->rightExpression();
  const NSExpression* key = nullptr;
  const NSExpression* constant = nullptr;
  if (left.expressionType() == NSExpressionType::KeyPath && right.expressionType() == NSExpressionType::ConstantValue) {
    key = &left;
    constant = &right;
  } else if (right.expressionType() == NSExpressionType::KeyPath &&
             left.expressionType() == NSExpressionType::ConstantValue) {
    key = &right;
    constant = &left;
  } else {
    return std::nullopt;
  }
  auto* attribute = entity.attributeNamed(key->keyPath());
  if (!attribute || constant->constantValue().isAbsent() || constant->constantValue().isNull()) return std::nullopt;
  auto coerced = attribute->coercedValue(constant->constantValue());
  if (!coerced) return std::nullopt;
  return std::make_pair(attribute->index(), std::move(*coerced));
}

void ZBPlanFetch(const NSFetchRequest& request, const std::shared_ptr<NSEntityDescription>& entity,
                 const ZBSQLiteStore& store, ZBFetchPlan* plan) {
  plan->entity = entity;
  plan->predicate = request.predicate();
  plan->sortDescriptors = request.sortDescriptors();
  plan->limit = request.fetchLimit();
  plan->query.entity = entity.get();
  auto* layout = store.layout(entity.get());
  if (plan->predicate) {
    std::string where;
    std::vector<Value> parameters;
    if (layout && ZBTranslatePredicate(*plan->predicate, store, *layout, &where, &parameters)) {
      plan->query.where = std::move(where);
      plan->query.parameters = std::move(parameters);
      plan->predicateInSQL = true;
    } else {
      plan->predicateInSQL = false;
    }
    plan->equality = ZBEqualityConjunct(*plan->predicate, *entity);
  }
  std::string orderBy;
  for (auto& descriptor : plan->sortDescriptors) {
    auto* attribute = entity->attributeNamed(descriptor.key());
    if (!attribute || !layout) {
      plan->sortInSQL = false;
      break;
    }
    if (!orderBy.empty()) orderBy += ", ";
    orderBy += "t0." + layout->attributeColumns[attribute->index()];
    if (attribute->attributeType() == NSAttributeType::String) orderBy += collationFor(descriptor.comparison());
    orderBy += descriptor.ascending() ? " ASC" : " DESC";
  }
  if (plan->sortInSQL && !orderBy.empty()) plan->query.orderBy = orderBy + ", t0.\"Z_PK\"";
}

bool ZBCanTranslatePredicate(NSPersistentStoreCoordinator& coordinator, const NSEntityDescription& entity,
                             const NSPredicate& predicate) {
  return coordinator._withStore(&entity, nullptr, [&](ZBSQLiteStore& store) {
    auto* layout = store.layout(&entity);
    std::string sql;
    std::vector<Value> parameters;
    return layout && ZBTranslatePredicate(predicate, store, *layout, &sql, &parameters);
  });
}
