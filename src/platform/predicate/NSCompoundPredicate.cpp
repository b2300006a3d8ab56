#include "platform/predicate/NSCompoundPredicate.h"

#include "platform/predicate/impl/ZBPredicateEvaluation.h"

NSCompoundPredicate::NSCompoundPredicate(NSCompoundPredicateType type, std::vector<NSPredicatePtr> subpredicates)
    : _type(type), _subpredicates(std::move(subpredicates)) {
  std::erase(_subpredicates, nullptr);
}

std::shared_ptr<NSCompoundPredicate> NSCompoundPredicate::create(NSCompoundPredicateType type,
                                                                 std::vector<NSPredicatePtr> subpredicates) {
  return std::make_shared<NSCompoundPredicate>(type, std::move(subpredicates));
}

std::shared_ptr<NSCompoundPredicate> NSCompoundPredicate::andPredicateWithSubpredicates(
    std::vector<NSPredicatePtr> subpredicates) {
  return create(NSCompoundPredicateType::And, std::move(subpredicates));
}

std::shared_ptr<NSCompoundPredicate> NSCompoundPredicate::orPredicateWithSubpredicates(
    std::vector<NSPredicatePtr> subpredicates) {
  return create(NSCompoundPredicateType::Or, std::move(subpredicates));
}

std::shared_ptr<NSCompoundPredicate> NSCompoundPredicate::notPredicateWithSubpredicate(NSPredicatePtr subpredicate) {
  return create(NSCompoundPredicateType::Not, {std::move(subpredicate)});
}

bool NSCompoundPredicate::_evaluate(const Value& object, ZBPredicateEvaluationState& state) const {
  switch (_type) {
    case NSCompoundPredicateType::And:
      for (const auto& p : _subpredicates)
        if (!p->_evaluate(object, state)) return false;
      return true;
    case NSCompoundPredicateType::Or:
      for (const auto& p : _subpredicates)
        if (p->_evaluate(object, state)) return true;
      return false;
    case NSCompoundPredicateType::Not:
      for (const auto& p : _subpredicates)
        if (!p->_evaluate(object, state)) return true;
      return false;
  }
  return false;
}

void NSCompoundPredicate::_appendFormat(std::string& out) const {
  auto appendSub = [&out](const NSPredicatePtr& p) {
    bool wrap = dynamic_cast<const NSCompoundPredicate*>(p.get()) != nullptr;
    if (wrap) out += '(';
    p->_appendFormat(out);
    if (wrap) out += ')';
  };
  if (_type == NSCompoundPredicateType::Not) {
    out += "NOT ";
    if (_subpredicates.size() == 1) {
      appendSub(_subpredicates[0]);
    } else {
      // NOT over several subpredicates negates their conjunction.
      out += '(';
      andPredicateWithSubpredicates(_subpredicates)->_appendFormat(out);
      out += ')';
    }
    return;
  }
  if (_subpredicates.empty()) {
    out += _type == NSCompoundPredicateType::And ? "TRUEPREDICATE" : "FALSEPREDICATE";
    return;
  }
  const char* separator = _type == NSCompoundPredicateType::And ? " AND " : " OR ";
  for (std::size_t i = 0; i < _subpredicates.size(); ++i) {
    if (i) out += separator;
    appendSub(_subpredicates[i]);
  }
}

NSPredicatePtr NSCompoundPredicate::predicateWithSubstitutionVariables(const Dictionary& variables) const {
  bool changed = false;
  std::vector<NSPredicatePtr> subpredicates;
  subpredicates.reserve(_subpredicates.size());
  for (const auto& p : _subpredicates) {
    subpredicates.push_back(p->predicateWithSubstitutionVariables(variables));
    changed |= subpredicates.back() != p;
  }
  if (!changed) return _self();
  return create(_type, std::move(subpredicates));
}

bool NSCompoundPredicate::isEqual(const NSObject& other) const {
  if (this == &other) return true;
  auto* o = dynamic_cast<const NSCompoundPredicate*>(&other);
  if (!o || o->_type != _type || o->_subpredicates.size() != _subpredicates.size()) return false;
  for (std::size_t i = 0; i < _subpredicates.size(); ++i)
    if (!_subpredicates[i]->isEqual(*o->_subpredicates[i])) return false;
  return true;
}

std::size_t NSCompoundPredicate::hash() const {
  std::size_t h = 0x636f6d70u + static_cast<std::size_t>(_type);
  for (const auto& p : _subpredicates) h = h * 31 + p->hash();
  return h;
}

void NSCompoundPredicate::_visit(const std::function<void(const NSPredicate&, bool&)>& visitor, bool& stop) const {
  if (stop) return;
  visitor(*this, stop);
  for (const auto& p : _subpredicates) p->_visit(visitor, stop);
}

NSPredicatePtr NSCompoundPredicate::_map(const std::function<NSPredicatePtr(const NSPredicatePtr&)>& mapper) const {
  bool changed = false;
  std::vector<NSPredicatePtr> subpredicates;
  subpredicates.reserve(_subpredicates.size());
  for (const auto& p : _subpredicates) {
    subpredicates.push_back(p->_map(mapper));
    changed |= subpredicates.back() != p;
  }
  NSPredicatePtr node = changed ? create(_type, std::move(subpredicates)) : _self();
  NSPredicatePtr mapped = mapper(node);
  return mapped ? mapped : node;
}
