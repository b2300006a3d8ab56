#pragma once
// NSPredicate: a logical condition over objects, dictionaries and collections,
// written in the predicate format language ("%K == %@", "ANY tags.title
// ==[cd] 'swift' AND unread == YES"). Subclasses: NSComparisonPredicate,
// NSCompoundPredicate, and the constants NSTruePredicate / NSFalsePredicate.
//
// Predicates are immutable trees held by std::shared_ptr; thread-safe to share
// and evaluate from several threads at once. Evaluation never re-parses and
// allocates only where a value must be built (folded non-ASCII strings,
// arithmetic, subqueries).

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/archive/NSCoding.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/Value.h"
#include "platform/predicate/NSExpression.h"

class NSPredicate;
using NSPredicatePtr = std::shared_ptr<NSPredicate>;
struct ZBPredicateEvaluationState;  // impl/ZBPredicateEvaluation.h

// Makes NSComparisonPredicate, NSCompoundPredicate, NSTruePredicate,
// NSFalsePredicate and NSExpression decodable by NSKeyedUnarchiver (allowed
// under "NSPredicate" or their own names). Idempotent and thread-safe. It runs
// by itself when the first predicate or expression is built, so only code
// that unarchives before building any needs to call it.
void ZBPredicateRegisterArchivableClasses();

class NSPredicate : public NSObject, public NSCoding {
public:
  // Parses format, substituting arguments left to right for the specifiers
  // outside quotes: %@ (a constant: string, number, date, collection, object;
  // an absent or null value gives nil), %K (a key path; needs a non-empty
  // string), %d %i %ld %lld %u %x %o %c (integers), %f %e %g %lf (doubles), %s
  // (a string), %% (the string "%", no argument). Returns nullptr and a
  // ZBPredicateFormatError (with ZBPredicateErrorPositionKey) or
  // ZBPredicateArgumentError for malformed input; never throws. Extra
  // arguments are ignored.
  static NSPredicatePtr predicateWithFormat(std::string_view format, std::vector<Value> arguments = {},
                                            NSErrorPtr* error = nullptr);
  // TRUEPREDICATE or FALSEPREDICATE.
  static NSPredicatePtr predicateWithValue(bool value);

  // The canonical format text: keywords and operators in their canonical
  // spelling, strings double-quoted, nested compounds parenthesised, dates as
  // CAST(…, "NSDate"). Parsing it again gives an equal predicate, for every
  // predicate that was parsed; constants without a literal form that came in
  // as arguments do not come back the same (a set prints as {…} and reads
  // back as an array; an object prints its description). Archive those.
  virtual std::string predicateFormat() const;

  // Evaluates against object (a dictionary, an NSObject, a collection, any
  // value). Unbound variables, incomparable values, unknown keys and invalid
  // regular expressions make the affected comparison false.
  bool evaluateWithObject(const Value& object) const;
  // The same with values for $variables; *error (when given) receives the
  // first fault met, which leaves the result false for the comparison that met
  // it. The error is left untouched when there was none.
  bool evaluateWithObject(const Value& object, const Dictionary& substitutionVariables,
                          NSErrorPtr* error = nullptr) const;
  // A copy with the variables found in variables replaced by constants; other
  // variables are kept. Returns this predicate when nothing changes.
  virtual NSPredicatePtr predicateWithSubstitutionVariables(const Dictionary& variables) const;

  // Calls visitor on every node, parents before children, left to right,
  // until it sets stop.
  void visitPredicateTree(const std::function<void(const NSPredicate& node, bool& stop)>& visitor) const;
  // Rebuilds the tree bottom-up: children are mapped first, a compound whose
  // children changed is rebuilt, then mapper is called with the node and its
  // result replaces it (nullptr keeps the node). Unchanged subtrees are shared
  // with the original; the result is this predicate when nothing changed.
  NSPredicatePtr mapPredicateTree(const std::function<NSPredicatePtr(const NSPredicatePtr& node)>& mapper) const;

  std::string description() const override { return predicateFormat(); }
  std::string className() const override { return "NSPredicate"; }

  // Internal to the predicate layer.
  virtual bool _evaluate(const Value& object, ZBPredicateEvaluationState& state) const = 0;
  virtual void _appendFormat(std::string& out) const = 0;
  NSPredicatePtr _self() const;
  virtual void _visit(const std::function<void(const NSPredicate&, bool&)>& visitor, bool& stop) const;
  virtual NSPredicatePtr _map(const std::function<NSPredicatePtr(const NSPredicatePtr&)>& mapper) const;

protected:
  NSPredicate();
};

// The constant predicates. Equal to every other instance of their class.
class NSTruePredicate final : public NSPredicate {
public:
  static std::shared_ptr<NSTruePredicate> create();
  NSPredicatePtr predicateWithSubstitutionVariables(const Dictionary&) const override { return _self(); }
  bool isEqual(const NSObject& other) const override;
  std::size_t hash() const override { return 0x7472756575; }
  std::string className() const override { return "NSTruePredicate"; }
  void encodeWithCoder(NSKeyedArchiver&) const override {}
  bool _evaluate(const Value&, ZBPredicateEvaluationState&) const override { return true; }
  void _appendFormat(std::string& out) const override { out += "TRUEPREDICATE"; }
  NSTruePredicate() = default;
};

class NSFalsePredicate final : public NSPredicate {
public:
  static std::shared_ptr<NSFalsePredicate> create();
  NSPredicatePtr predicateWithSubstitutionVariables(const Dictionary&) const override { return _self(); }
  bool isEqual(const NSObject& other) const override;
  std::size_t hash() const override { return 0x66616c7365; }
  std::string className() const override { return "NSFalsePredicate"; }
  void encodeWithCoder(NSKeyedArchiver&) const override {}
  bool _evaluate(const Value&, ZBPredicateEvaluationState&) const override { return false; }
  void _appendFormat(std::string& out) const override { out += "FALSEPREDICATE"; }
  NSFalsePredicate() = default;
};
