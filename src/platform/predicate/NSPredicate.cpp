#include "platform/predicate/NSPredicate.h"

#include <stdexcept>

#include "platform/predicate/impl/ZBPredicateEvaluation.h"
#include "platform/predicate/impl/ZBPredicateParser.h"

NSPredicate::NSPredicate() { ZBPredicateRegisterArchivableClasses(); }

NSPredicatePtr NSPredicate::predicateWithFormat(std::string_view format, std::vector<Value> arguments,
                                                NSErrorPtr* error) {
  return ZBParsePredicateFormat(format, arguments, error);
}

NSPredicatePtr NSPredicate::predicateWithValue(bool value) {
  if (value) return NSTruePredicate::create();
  return NSFalsePredicate::create();
}

std::string NSPredicate::predicateFormat() const {
  std::string out;
  _appendFormat(out);
  return out;
}

NSPredicatePtr NSPredicate::_self() const {
  return std::static_pointer_cast<NSPredicate>(std::const_pointer_cast<NSObject>(shared_from_this()));
}

namespace {

bool evaluate(const NSPredicate& predicate, const Value& object, ZBPredicateEvaluationState& state) {
  // Key-value coding throws for keys an object does not have; one bad key
  // must not take the caller down, so it becomes a false result.
  try {
    return predicate._evaluate(object, state);
  } catch (const std::exception& e) {
    std::string what = e.what();
    state.fail(ZBPredicateUnknownKeyError, [&] { return what; });
    return false;
  }
}

}  // namespace

bool NSPredicate::evaluateWithObject(const Value& object) const {
  ZBPredicateEvaluationState state;
  return evaluate(*this, object, state);
}

bool NSPredicate::evaluateWithObject(const Value& object, const Dictionary& substitutionVariables,
                                     NSErrorPtr* error) const {
  ZBPredicateEvaluationState state;
  state.bindings = &substitutionVariables;
  state.wantsError = error != nullptr;
  bool result = evaluate(*this, object, state);
  if (error && state.error) *error = state.error;
  return result;
}

NSPredicatePtr NSPredicate::predicateWithSubstitutionVariables(const Dictionary&) const { return _self(); }

void NSPredicate::visitPredicateTree(const std::function<void(const NSPredicate& node, bool& stop)>& visitor) const {
  bool stop = false;
  _visit(visitor, stop);
}

NSPredicatePtr NSPredicate::mapPredicateTree(
    const std::function<NSPredicatePtr(const NSPredicatePtr& node)>& mapper) const {
  return _map(mapper);
}

void NSPredicate::_visit(const std::function<void(const NSPredicate&, bool&)>& visitor, bool& stop) const {
  if (!stop) visitor(*this, stop);
}

NSPredicatePtr NSPredicate::_map(const std::function<NSPredicatePtr(const NSPredicatePtr&)>& mapper) const {
  NSPredicatePtr self = _self();
  NSPredicatePtr mapped = mapper(self);
  return mapped ? mapped : self;
}

// MARK: Constants

std::shared_ptr<NSTruePredicate> NSTruePredicate::create() {
  static const auto shared = std::make_shared<NSTruePredicate>();
  return shared;
}

bool NSTruePredicate::isEqual(const NSObject& other) const {
  return dynamic_cast<const NSTruePredicate*>(&other) != nullptr;
}

std::shared_ptr<NSFalsePredicate> NSFalsePredicate::create() {
  static const auto shared = std::make_shared<NSFalsePredicate>();
  return shared;
}

bool NSFalsePredicate::isEqual(const NSObject& other) const {
  return dynamic_cast<const NSFalsePredicate*>(&other) != nullptr;
}
