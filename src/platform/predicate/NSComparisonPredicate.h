#pragma once
// NSComparisonPredicate: left expression, operator, right expression, with a
// modifier (ANY / ALL over a collection on the left) and string options.
// Immutable; thread-safe to share and evaluate.
//
// Semantics in brief: nil == nil; nil equals nothing else (so != nil is true);
// ordering with nil is false (except nil <= nil, nil >= nil); numbers and
// booleans compare numerically, dates by time, strings by code point, or
// folded when [c]/[d] is given and both sides are strings; string operators
// are false when either side is nil; BEGINSWITH/ENDSWITH/CONTAINS with an
// empty search string are false; IN and CONTAINS test membership when the
// collection side is an array, set or dictionary (its values) and substrings
// when it is a string; ANY is false and ALL true over nil or an empty
// collection.

#include <memory>
#include <string>

#include "platform/predicate/NSExpression.h"
#include "platform/predicate/NSPredicate.h"

class ZBLikePattern;
class ZBRegex;

enum class NSComparisonPredicateModifier { Direct = 0, All = 1, Any = 2 };

enum class NSPredicateOperatorType {
  LessThan = 0,
  LessThanOrEqualTo = 1,
  GreaterThan = 2,
  GreaterThanOrEqualTo = 3,
  EqualTo = 4,
  NotEqualTo = 5,
  Matches = 6,
  Like = 7,
  BeginsWith = 8,
  EndsWith = 9,
  In = 10,
  Contains = 99,
  Between = 100,
};

// Option bits, printed as [c], [d], [n], [l].
using NSComparisonPredicateOptions = unsigned;
inline constexpr NSComparisonPredicateOptions NSCaseInsensitivePredicateOption = 0x01;
inline constexpr NSComparisonPredicateOptions NSDiacriticInsensitivePredicateOption = 0x02;
// The caller promises pre-folded strings: compare literally; overrides [c] [d].
inline constexpr NSComparisonPredicateOptions NSNormalizedPredicateOption = 0x04;
// Accepted and kept; comparisons do not depend on the locale.
inline constexpr NSComparisonPredicateOptions NSLocaleSensitivePredicateOption = 0x08;

class NSComparisonPredicate final : public NSPredicate {
public:
  // Option bits outside the four above are dropped.
  static std::shared_ptr<NSComparisonPredicate> create(NSExpressionPtr leftExpression, NSExpressionPtr rightExpression,
                                                       NSComparisonPredicateModifier modifier,
                                                       NSPredicateOperatorType type,
                                                       NSComparisonPredicateOptions options = 0);

  const NSExpressionPtr& leftExpression() const { return _left; }
  const NSExpressionPtr& rightExpression() const { return _right; }
  NSComparisonPredicateModifier comparisonPredicateModifier() const { return _modifier; }
  NSPredicateOperatorType predicateOperatorType() const { return _operator; }
  NSComparisonPredicateOptions options() const { return _options; }

  // The value carried by whichever side has the given type, left side first:
  // the key path string for KeyPath, the variable name for Variable, the
  // constant for ConstantValue, the function name for Function. Absent when
  // neither side has that type.
  Value valueForExpressionType(NSExpressionType type) const;
  // The side with the given type, left first; nullptr when neither has it.
  NSExpressionPtr expressionForExpressionType(NSExpressionType type) const;

  NSPredicatePtr predicateWithSubstitutionVariables(const Dictionary& variables) const override;
  bool isEqual(const NSObject& other) const override;
  std::size_t hash() const override;
  std::string className() const override { return "NSComparisonPredicate"; }
  void encodeWithCoder(NSKeyedArchiver& coder) const override;

  bool _evaluate(const Value& object, ZBPredicateEvaluationState& state) const override;
  void _appendFormat(std::string& out) const override;

  // Internal: use create.
  NSComparisonPredicate(NSExpressionPtr left, NSExpressionPtr right, NSComparisonPredicateModifier modifier,
                        NSPredicateOperatorType type, NSComparisonPredicateOptions options);
  ~NSComparisonPredicate() override;

private:
  bool _compare(const Value& left, const Value& right, ZBPredicateEvaluationState& state) const;
  bool _stringOperator(const Value& left, const Value& right, ZBPredicateEvaluationState& state) const;
  bool _membership(const Value& element, const Value& collection, ZBPredicateEvaluationState& state) const;
  bool _equal(const Value& left, const Value& right, bool rightIsConstant) const;
  bool _order(const Value& left, const Value& right, ZBPredicateEvaluationState& state, int& result) const;

  NSExpressionPtr _left;
  NSExpressionPtr _right;
  NSComparisonPredicateModifier _modifier;
  NSPredicateOperatorType _operator;
  NSComparisonPredicateOptions _options;
  // Work done once when the right side is a constant: the folded string, the
  // LIKE pattern, the compiled regular expression (or its compile error).
  bool _caseInsensitive = false;
  bool _diacriticInsensitive = false;
  bool _hasFoldedConstant = false;
  std::string _foldedConstant;
  std::unique_ptr<ZBLikePattern> _likePattern;
  std::shared_ptr<const ZBRegex> _regex;
  NSErrorPtr _regexError;
};
