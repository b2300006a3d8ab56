#pragma once
// NSExpression: one side of a comparison predicate. A constant, the evaluated
// object (SELF), a $variable, a key path (from SELF or from another
// expression: $v.title, SUBQUERY(...).@count), a function (arithmetic,
// bitwise operators, aggregates such as sum:, now(), CAST, indexing, or a
// selector sent to a receiver: FUNCTION(name, "length")), an aggregate {a, b}
// or a SUBQUERY.
//
// Key paths read values by key-value coding, where a string answers "length"
// (its length in UTF-16 code units); a key a value does not answer gives
// absent.
//
// Immutable once created and held by std::shared_ptr; thread-safe to share
// and evaluate from several threads at once.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/archive/NSCoding.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/Value.h"

class NSExpression;
class NSPredicate;
struct ZBPredicateEvaluationState;  // impl/ZBPredicateEvaluation.h
using NSExpressionPtr = std::shared_ptr<NSExpression>;

enum class NSExpressionType {
  ConstantValue = 0,
  EvaluatedObject = 1,
  Variable = 2,
  KeyPath = 3,
  Function = 4,
  Subquery = 13,
  Aggregate = 14,
  // FIRST, LAST and SIZE inside an index: a[LAST].
  Symbolic = 100,
};

class NSExpression final : public NSObject, public NSCoding {
public:
  static NSExpressionPtr expressionForConstantValue(Value value);
  static NSExpressionPtr expressionForEvaluatedObject();
  static NSExpressionPtr expressionForVariable(std::string name);
  // A dotted key path read from the evaluated object ("tags.title",
  // "tags.@count").
  static NSExpressionPtr expressionForKeyPath(std::string keyPath);
  // A key path read from the value of operand ($v.title). An evaluated-object
  // operand gives the plain form above.
  static NSExpressionPtr expressionForKeyPath(NSExpressionPtr operand, std::string keyPath);
  // Functions by name: "add:to:", "from:subtract:", "multiply:by:",
  // "divide:by:", "raise:toPower:", "bitwiseAnd:with:", "bitwiseOr:with:",
  // "bitwiseXor:with:", "leftshift:by:", "rightshift:by:" (two arguments);
  // "sum:", "count:", "min:", "max:", "average:", "median:", "mode:",
  // "stddev:", "sqrt:", "log:", "ln:", "exp:", "floor:", "ceiling:", "abs:",
  // "trunc:", "uppercase:", "lowercase:", "randomn:" (one); "now", "random"
  // (none); "castObject:toType:" (value, type name); "objectFrom:withIndex:"
  // (collection, index). The bitwise ones take integers (a double only when it
  // is whole). An unknown name or arity evaluates to absent with
  // ZBPredicateUnsupportedError.
  static NSExpressionPtr expressionForFunction(std::string name, std::vector<NSExpressionPtr> arguments);
  // FUNCTION(operand, "selector", arguments…): selector sent to the value of
  // operand (the evaluated object when null). Evaluated: "uppercase",
  // "uppercaseString", "lowercase", "lowercaseString" and "length" on strings,
  // "pow:" on numbers; a nil receiver gives absent. Another selector or arity
  // evaluates to absent with ZBPredicateUnsupportedError, a receiver of the
  // wrong kind with ZBPredicateTypeMismatchError.
  static NSExpressionPtr expressionForFunction(NSExpressionPtr operand, std::string selector,
                                               std::vector<NSExpressionPtr> arguments);
  // {a, b, …}; elements are expressions.
  static NSExpressionPtr expressionForAggregate(std::vector<NSExpressionPtr> collection);
  // SUBQUERY(collection, $variable, predicate): the elements for which the
  // predicate holds, with the element bound to the variable and as SELF.
  static NSExpressionPtr expressionForSubquery(NSExpressionPtr collection, std::string variable,
                                               std::shared_ptr<NSPredicate> predicate);
  // "FIRST", "LAST" or "SIZE".
  static NSExpressionPtr expressionForSymbol(std::string symbol);

  // Parses one expression in the predicate format language ("tags.@count + 1",
  // "$x", "{1, 2}"). nullptr and an error for malformed text.
  static NSExpressionPtr expressionWithFormat(std::string_view format, std::vector<Value> arguments = {},
                                              NSErrorPtr* error = nullptr);

  NSExpressionType expressionType() const { return _type; }
  // Each accessor returns an empty value for expressions of another type.
  const Value& constantValue() const { return _constant; }
  const std::string& keyPath() const { return _name; }   // KeyPath
  const std::string& variable() const { return _name; }  // Variable, Subquery (its variable)
  const std::string& function() const { return _name; }  // Function (the selector of FUNCTION)
  const std::string& symbol() const { return _name; }    // Symbolic
  // The operand of a key path (the evaluated object for a plain key path), the
  // receiver of FUNCTION (null for the other functions), or the collection of
  // a subquery.
  const NSExpressionPtr& operand() const { return _operand; }
  // Function arguments, or the elements of an aggregate.
  const std::vector<NSExpressionPtr>& arguments() const { return _arguments; }
  const std::vector<NSExpressionPtr>& collection() const { return _arguments; }
  const std::shared_ptr<NSPredicate>& predicate() const { return _predicate; }

  // The value for object: absent when something on the way is absent or
  // cannot be computed; *error (when given) then says why for real faults
  // (unbound variable, unknown key, unsupported function).
  Value expressionValueWithObject(const Value& object, const Dictionary& context = {},
                                  NSErrorPtr* error = nullptr) const;
  // A copy with every variable found in variables replaced by its value as a
  // constant; others stay variables. Returns this expression when nothing
  // changes.
  NSExpressionPtr expressionWithSubstitutionVariables(const Dictionary& variables) const;

  // The canonical format text of this expression.
  std::string expressionFormat() const;

  bool isEqual(const NSObject& other) const override;
  std::size_t hash() const override;
  std::string className() const override { return "NSExpression"; }
  std::string description() const override { return expressionFormat(); }
  void encodeWithCoder(NSKeyedArchiver& coder) const override;

  // Internal: use the factory functions.
  NSExpression(NSExpressionType type, Value constant, std::string name, NSExpressionPtr operand,
               std::vector<NSExpressionPtr> arguments, std::shared_ptr<NSPredicate> predicate);

  // Internal to the predicate layer: evaluation that avoids copying values.
  // Returns a reference either into object, into the expression itself, or
  // into scratch.
  const Value& _evaluate(const Value& object, ZBPredicateEvaluationState& state, Value& scratch) const;
  // True for the infix forms (+ - * / ** & | ^ << >>), which print
  // parenthesised when nested.
  bool _isInfix() const;
  void _appendFormat(std::string& out) const;

private:
  const Value& _evaluateKeyPath(const Value& object, ZBPredicateEvaluationState& state, Value& scratch) const;
  const Value& _evaluateFunction(const Value& object, ZBPredicateEvaluationState& state, Value& scratch) const;
  const Value& _evaluateSelector(const Value& object, ZBPredicateEvaluationState& state, Value& scratch) const;

  NSExpressionType _type;
  Value _constant;
  std::string _name;
  NSExpressionPtr _operand;
  std::vector<NSExpressionPtr> _arguments;
  std::shared_ptr<NSPredicate> _predicate;
  // Key paths: start offset and length of each dot-separated component, and
  // whether every component is a plain key (no collection operator), which
  // lets dictionary chains be walked without copying.
  std::vector<std::pair<std::uint32_t, std::uint32_t>> _components;
  bool _plainKeyPath = false;
  int _functionId = -1;
};
