#pragma once
// NSCompoundPredicate: NOT, AND or OR over subpredicates. AND and OR
// short-circuit left to right; an empty AND is true, an empty OR false; NOT
// over several subpredicates negates their AND. Immutable; thread-safe to
// share and evaluate.

#include <memory>
#include <vector>

#include "platform/predicate/NSPredicate.h"

enum class NSCompoundPredicateType { Not = 0, And = 1, Or = 2 };

class NSCompoundPredicate final : public NSPredicate {
public:
  // Null entries of subpredicates are dropped.
  static std::shared_ptr<NSCompoundPredicate> create(NSCompoundPredicateType type,
                                                     std::vector<NSPredicatePtr> subpredicates);
  static std::shared_ptr<NSCompoundPredicate> andPredicateWithSubpredicates(std::vector<NSPredicatePtr> subpredicates);
  static std::shared_ptr<NSCompoundPredicate> orPredicateWithSubpredicates(std::vector<NSPredicatePtr> subpredicates);
  static std::shared_ptr<NSCompoundPredicate> notPredicateWithSubpredicate(NSPredicatePtr subpredicate);

  NSCompoundPredicateType compoundPredicateType() const { return _type; }
  const std::vector<NSPredicatePtr>& subpredicates() const { return _subpredicates; }

  NSPredicatePtr predicateWithSubstitutionVariables(const Dictionary& variables) const override;
  bool isEqual(const NSObject& other) const override;
  std::size_t hash() const override;
  std::string className() const override { return "NSCompoundPredicate"; }
  void encodeWithCoder(NSKeyedArchiver& coder) const override;

  bool _evaluate(const Value& object, ZBPredicateEvaluationState& state) const override;
  void _appendFormat(std::string& out) const override;

  // Internal: use create.
  NSCompoundPredicate(NSCompoundPredicateType type, std::vector<NSPredicatePtr> subpredicates);
  void _visit(const std::function<void(const NSPredicate&, bool&)>& visitor, bool& stop) const override;
  NSPredicatePtr _map(const std::function<NSPredicatePtr(const NSPredicatePtr&)>& mapper) const override;

private:
  NSCompoundPredicateType _type;
  std::vector<NSPredicatePtr> _subpredicates;
};
