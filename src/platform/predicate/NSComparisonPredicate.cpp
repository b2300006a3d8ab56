#include "platform/predicate/NSComparisonPredicate.h"

#include "platform/predicate/ZBStringFolding.h"
#include "platform/predicate/impl/ZBPredicateEvaluation.h"

namespace {

// Folding buffers reused across evaluations on a thread, so comparing folded
// strings allocates nothing once warm. Each comparison uses them only between
// evaluating its operands and returning.
std::string& leftBuffer() {
  thread_local std::string buffer;
  return buffer;
}
std::string& rightBuffer() {
  thread_local std::string buffer;
  return buffer;
}

const Value& nilIfNull(const Value& v) { return v.isNull() ? ZBPredicateAbsentValue() : v; }

const char* operatorText(NSPredicateOperatorType type) {
  switch (type) {
    case NSPredicateOperatorType::LessThan: return "<";
    case NSPredicateOperatorType::LessThanOrEqualTo: return "<=";
    case NSPredicateOperatorType::GreaterThan: return ">";
    case NSPredicateOperatorType::GreaterThanOrEqualTo: return ">=";
    case NSPredicateOperatorType::EqualTo: return "==";
    case NSPredicateOperatorType::NotEqualTo: return "!=";
    case NSPredicateOperatorType::Matches: return "MATCHES";
    case NSPredicateOperatorType::Like: return "LIKE";
    case NSPredicateOperatorType::BeginsWith: return "BEGINSWITH";
    case NSPredicateOperatorType::EndsWith: return "ENDSWITH";
    case NSPredicateOperatorType::In: return "IN";
    case NSPredicateOperatorType::Contains: return "CONTAINS";
    case NSPredicateOperatorType::Between: return "BETWEEN";
  }
  return "==";
}

bool isKnownOperator(NSPredicateOperatorType type) {
  switch (type) {
    case NSPredicateOperatorType::LessThan:
    case NSPredicateOperatorType::LessThanOrEqualTo:
    case NSPredicateOperatorType::GreaterThan:
    case NSPredicateOperatorType::GreaterThanOrEqualTo:
    case NSPredicateOperatorType::EqualTo:
    case NSPredicateOperatorType::NotEqualTo:
    case NSPredicateOperatorType::Matches:
    case NSPredicateOperatorType::Like:
    case NSPredicateOperatorType::BeginsWith:
    case NSPredicateOperatorType::EndsWith:
    case NSPredicateOperatorType::In:
    case NSPredicateOperatorType::Contains:
    case NSPredicateOperatorType::Between:
      return true;
  }
  return false;
}

// Calls f on each element of an array, set or dictionary (its values) until f
// returns true; returns whether it did.
template <class F>
bool anyElement(const Value& collection, F&& f) {
  if (collection.isArray()) {
    for (const Value& e : collection.asArray())
      if (f(nilIfNull(e))) return true;
  } else if (collection.isSet()) {
    for (const Value& e : collection.asSet())
      if (f(nilIfNull(e))) return true;
  } else if (collection.isDictionary()) {
    for (const auto& entry : collection.asDictionary())
      if (f(nilIfNull(entry.second))) return true;
  }
  return false;
}

bool isContainer(const Value& v) { return v.isCollection() || v.isDictionary(); }

}  // namespace

NSComparisonPredicate::NSComparisonPredicate(NSExpressionPtr left, NSExpressionPtr right,
                                             NSComparisonPredicateModifier modifier, NSPredicateOperatorType type,
                                             NSComparisonPredicateOptions options)
    : _left(left ? std::move(left) : NSExpression::expressionForConstantValue(Value())),
      _right(right ? std::move(right) : NSExpression::expressionForConstantValue(Value())),
      _modifier(modifier),
      _operator(isKnownOperator(type) ? type : NSPredicateOperatorType::EqualTo),
      _options(options & 0x0F) {
  bool normalized = (_options & NSNormalizedPredicateOption) != 0;
  _caseInsensitive = !normalized && (_options & NSCaseInsensitivePredicateOption);
  _diacriticInsensitive = !normalized && (_options & NSDiacriticInsensitivePredicateOption);
  if (_right->expressionType() == NSExpressionType::ConstantValue && _right->constantValue().isString()) {
    const std::string& constant = _right->constantValue().asString();
    if (_caseInsensitive || _diacriticInsensitive) {
      _foldedConstant = ZBFoldString(constant, _caseInsensitive, _diacriticInsensitive);
      _hasFoldedConstant = true;
    }
    if (_operator == NSPredicateOperatorType::Like)
      _likePattern = std::make_unique<ZBLikePattern>(constant, _caseInsensitive, _diacriticInsensitive);
    if (_operator == NSPredicateOperatorType::Matches)
      _regex = ZBRegex::create(constant, _caseInsensitive, _diacriticInsensitive, &_regexError);
  }
}

NSComparisonPredicate::~NSComparisonPredicate() = default;

std::shared_ptr<NSComparisonPredicate> NSComparisonPredicate::create(NSExpressionPtr leftExpression,
                                                                     NSExpressionPtr rightExpression,
                                                                     NSComparisonPredicateModifier modifier,
                                                                     NSPredicateOperatorType type,
                                                                     NSComparisonPredicateOptions options) {
  return std::make_shared<NSComparisonPredicate>(std::move(leftExpression), std::move(rightExpression), modifier,
                                                 type, options);
}

// MARK: Evaluation

bool NSComparisonPredicate::_evaluate(const Value& object, ZBPredicateEvaluationState& state) const {
  Value leftScratch, rightScratch;
  const Value& left = _left->_evaluate(object, state, leftScratch);
  const Value& right = _right->_evaluate(object, state, rightScratch);
  if (_modifier == NSComparisonPredicateModifier::Direct) return _compare(left, right, state);

  bool all = _modifier == NSComparisonPredicateModifier::All;
  if (left.isAbsent() || left.isNull()) return all;
  if (!isContainer(left)) {
    state.fail(ZBPredicateTypeMismatchError, [&] {
      return std::string(all ? "ALL" : "ANY") + " needs a collection, got " + left.description();
    });
    return false;
  }
  if (all) return !anyElement(left, [&](const Value& e) { return !_compare(e, right, state); });
  return anyElement(left, [&](const Value& e) { return _compare(e, right, state); });
}

bool NSComparisonPredicate::_equal(const Value& left, const Value& right, bool rightIsConstant) const {
  if (left.isAbsent()) return right.isAbsent();
  if (right.isAbsent()) return false;
  if ((_caseInsensitive || _diacriticInsensitive) && left.isString() && right.isString()) {
    std::string& l = leftBuffer();
    ZBFoldStringInto(left.asString(), _caseInsensitive, _diacriticInsensitive, l);
    if (rightIsConstant && _hasFoldedConstant) return l == _foldedConstant;
    std::string& r = rightBuffer();
    ZBFoldStringInto(right.asString(), _caseInsensitive, _diacriticInsensitive, r);
    return l == r;
  }
  return left.isEqual(right);
}

bool NSComparisonPredicate::_order(const Value& left, const Value& right, ZBPredicateEvaluationState& state,
                                   int& result) const {
  if ((_caseInsensitive || _diacriticInsensitive) && left.isString() && right.isString()) {
    std::string& l = leftBuffer();
    std::string& r = rightBuffer();
    ZBFoldStringInto(left.asString(), _caseInsensitive, _diacriticInsensitive, l);
    ZBFoldStringInto(right.asString(), _caseInsensitive, _diacriticInsensitive, r);
    int c = l.compare(r);
    result = c < 0 ? -1 : (c > 0 ? 1 : 0);
    return true;
  }
  auto order = left.compare(right);
  if (!order) {
    state.fail(ZBPredicateTypeMismatchError, [&] {
      return "Can’t compare " + left.description() + " with " + right.description();
    });
    return false;
  }
  result = *order;
  return true;
}

bool NSComparisonPredicate::_membership(const Value& element, const Value& collection,
                                        ZBPredicateEvaluationState& state) const {
  if (element.isAbsent() || collection.isAbsent()) return false;
  if (collection.isString()) {
    if (!element.isString()) {
      state.fail(ZBPredicateTypeMismatchError,
                 [&] { return "Can’t look for " + element.description() + " in a string"; });
      return false;
    }
    if (element.asString().empty()) return false;
    if (!_caseInsensitive && !_diacriticInsensitive)
      return collection.asString().find(element.asString()) != std::string::npos;
    std::string& l = leftBuffer();
    std::string& r = rightBuffer();
    ZBFoldStringInto(element.asString(), _caseInsensitive, _diacriticInsensitive, l);
    ZBFoldStringInto(collection.asString(), _caseInsensitive, _diacriticInsensitive, r);
    return !l.empty() && r.find(l) != std::string::npos;
  }
  if (!isContainer(collection)) {
    state.fail(ZBPredicateTypeMismatchError,
               [&] { return "Can’t test membership in " + collection.description(); });
    return false;
  }
  if ((_caseInsensitive || _diacriticInsensitive) && element.isString()) {
    std::string& l = leftBuffer();
    ZBFoldStringInto(element.asString(), _caseInsensitive, _diacriticInsensitive, l);
    std::string& r = rightBuffer();
    return anyElement(collection, [&](const Value& e) {
      if (!e.isString()) return false;
      ZBFoldStringInto(e.asString(), _caseInsensitive, _diacriticInsensitive, r);
      return r == l;
    });
  }
  if (collection.isSet()) return collection.asSet().contains(element);
  return anyElement(collection, [&](const Value& e) { return e.isEqual(element); });
}

bool NSComparisonPredicate::_stringOperator(const Value& left, const Value& right,
                                            ZBPredicateEvaluationState& state) const {
  if (left.isAbsent() || right.isAbsent()) return false;
  if (!left.isString() || !right.isString()) {
    state.fail(ZBPredicateTypeMismatchError, [&] {
      return std::string(operatorText(_operator)) + " needs strings, got " + left.description() + " and " +
             right.description();
    });
    return false;
  }
  bool rightIsConstant = &right == &_right->constantValue();
  const std::string& text = left.asString();
  switch (_operator) {
    case NSPredicateOperatorType::Like:
      if (rightIsConstant && _likePattern) return _likePattern->matches(text);
      return ZBStringLike(text, right.asString(), _caseInsensitive, _diacriticInsensitive);
    case NSPredicateOperatorType::Matches: {
      if (rightIsConstant) {
        if (_regexError) {
          if (state.wantsError && !state.error) state.error = _regexError;
          return false;
        }
        return _regex && _regex->matches(text);
      }
      NSErrorPtr error;
      bool matched = ZBStringMatches(text, right.asString(), _caseInsensitive, _diacriticInsensitive,
                                     state.wantsError ? &error : nullptr);
      if (error && !state.error) state.error = error;
      return matched;
    }
    default:
      break;
  }
  std::string_view haystack = text;
  std::string_view needle = right.asString();
  if (_caseInsensitive || _diacriticInsensitive) {
    std::string& l = leftBuffer();
    ZBFoldStringInto(text, _caseInsensitive, _diacriticInsensitive, l);
    haystack = l;
    if (rightIsConstant && _hasFoldedConstant) {
      needle = _foldedConstant;
    } else {
      std::string& r = rightBuffer();
      ZBFoldStringInto(right.asString(), _caseInsensitive, _diacriticInsensitive, r);
      needle = r;
    }
  }
  // An empty search string is found nowhere.
  if (needle.empty()) return false;
  switch (_operator) {
    case NSPredicateOperatorType::BeginsWith: return haystack.starts_with(needle);
    case NSPredicateOperatorType::EndsWith: return haystack.ends_with(needle);
    default: return haystack.find(needle) != std::string_view::npos;
  }
}

bool NSComparisonPredicate::_compare(const Value& leftValue, const Value& rightValue,
                                     ZBPredicateEvaluationState& state) const {
  const Value& left = nilIfNull(leftValue);
  const Value& right = nilIfNull(rightValue);
  switch (_operator) {
    case NSPredicateOperatorType::EqualTo:
      return _equal(left, right, &rightValue == &_right->constantValue());
    case NSPredicateOperatorType::NotEqualTo:
      return !_equal(left, right, &rightValue == &_right->constantValue());
    case NSPredicateOperatorType::LessThan:
    case NSPredicateOperatorType::LessThanOrEqualTo:
    case NSPredicateOperatorType::GreaterThan:
    case NSPredicateOperatorType::GreaterThanOrEqualTo: {
      bool orEqual = _operator == NSPredicateOperatorType::LessThanOrEqualTo ||
                     _operator == NSPredicateOperatorType::GreaterThanOrEqualTo;
      if (left.isAbsent() || right.isAbsent()) return left.isAbsent() && right.isAbsent() && orEqual;
      int order = 0;
      if (!_order(left, right, state, order)) return false;
      switch (_operator) {
        case NSPredicateOperatorType::LessThan: return order < 0;
        case NSPredicateOperatorType::LessThanOrEqualTo: return order <= 0;
        case NSPredicateOperatorType::GreaterThan: return order > 0;
        default: return order >= 0;
      }
    }
    case NSPredicateOperatorType::Between: {
      if (left.isAbsent() || right.isAbsent()) return false;
      if (!right.isArray() || right.asArray().size() != 2) {
        state.fail(ZBPredicateTypeMismatchError,
                   [&] { return "BETWEEN needs a collection of two bounds, got " + right.description(); });
        return false;
      }
      const Value& low = nilIfNull(right.asArray()[0]);
      const Value& high = nilIfNull(right.asArray()[1]);
      if (low.isAbsent() || high.isAbsent()) return false;
      int order = 0;
      if (!_order(left, low, state, order) || order < 0) return false;
      return _order(left, high, state, order) && order <= 0;
    }
    case NSPredicateOperatorType::In:
      if (left.isAbsent() || right.isAbsent()) return false;
      return _membership(left, right, state);
    case NSPredicateOperatorType::Contains:
      if (left.isAbsent() || right.isAbsent()) return false;
      if (isContainer(left)) return _membership(right, left, state);
      return _stringOperator(left, right, state);
    case NSPredicateOperatorType::Like:
    case NSPredicateOperatorType::Matches:
    case NSPredicateOperatorType::BeginsWith:
    case NSPredicateOperatorType::EndsWith:
      return _stringOperator(left, right, state);
  }
  return false;
}

// MARK: Printing, equality, tree helpers

void NSComparisonPredicate::_appendFormat(std::string& out) const {
  if (_modifier == NSComparisonPredicateModifier::Any) out += "ANY ";
  if (_modifier == NSComparisonPredicateModifier::All) out += "ALL ";
  _left->_appendFormat(out);
  out += ' ';
  out += operatorText(_operator);
  if (_options) {
    out += '[';
    if (_options & NSCaseInsensitivePredicateOption) out += 'c';
    if (_options & NSDiacriticInsensitivePredicateOption) out += 'd';
    if (_options & NSNormalizedPredicateOption) out += 'n';
    if (_options & NSLocaleSensitivePredicateOption) out += 'l';
    out += ']';
  }
  out += ' ';
  _right->_appendFormat(out);
}

bool NSComparisonPredicate::isEqual(const NSObject& other) const {
  if (this == &other) return true;
  auto* o = dynamic_cast<const NSComparisonPredicate*>(&other);
  return o && o->_modifier == _modifier && o->_operator == _operator && o->_options == _options &&
         _left->isEqual(*o->_left) && _right->isEqual(*o->_right);
}

std::size_t NSComparisonPredicate::hash() const {
  std::size_t h = static_cast<std::size_t>(_operator) * 131 + static_cast<std::size_t>(_modifier) * 17 + _options;
  h = h * 1000003 ^ _left->hash();
  return h * 1000003 ^ _right->hash();
}

NSPredicatePtr NSComparisonPredicate::predicateWithSubstitutionVariables(const Dictionary& variables) const {
  auto left = _left->expressionWithSubstitutionVariables(variables);
  auto right = _right->expressionWithSubstitutionVariables(variables);
  if (left == _left && right == _right) return _self();
  return create(left, right, _modifier, _operator, _options);
}

NSExpressionPtr NSComparisonPredicate::expressionForExpressionType(NSExpressionType type) const {
  if (_left->expressionType() == type) return _left;
  if (_right->expressionType() == type) return _right;
  return nullptr;
}

Value NSComparisonPredicate::valueForExpressionType(NSExpressionType type) const {
  NSExpressionPtr e = expressionForExpressionType(type);
  if (!e) return Value();
  switch (type) {
    case NSExpressionType::ConstantValue: return e->constantValue();
    case NSExpressionType::KeyPath: return Value(e->keyPath());
    case NSExpressionType::Variable: return Value(e->variable());
    case NSExpressionType::Function: return Value(e->function());
    case NSExpressionType::Subquery: return Value(e->variable());
    case NSExpressionType::Symbolic: return Value(e->symbol());
    default: return Value();
  }
}
