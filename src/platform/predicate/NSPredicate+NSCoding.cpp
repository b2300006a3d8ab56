// Keyed archiving of predicate trees. The keys are part of the stored format
// of collections and backups: never rename them.
//
//   NSComparisonPredicate  NSLeftExpression, NSRightExpression (NSExpression),
//                          NSModifier, NSPredicateOperatorType, NSOptions (integers)
//   NSCompoundPredicate    NSCompoundPredicateType (integer), NSSubpredicates (array)
//   NSTruePredicate, NSFalsePredicate   no keys
//   NSExpression           NSExpressionType (integer), and by type:
//                          NSConstantValue; NSName (key path, variable, function,
//                          symbol, subquery variable); NSOperand (key path
//                          operand, FUNCTION receiver, subquery collection);
//                          NSArguments (function arguments, aggregate
//                          elements); NSPredicate (subquery)

#include <mutex>

#include "platform/archive/NSKeyedArchiver.h"
#include "platform/archive/NSKeyedUnarchiver.h"
#include "platform/predicate/NSComparisonPredicate.h"
#include "platform/predicate/NSCompoundPredicate.h"
#include "platform/predicate/NSExpression.h"
#include "platform/predicate/NSPredicate.h"

namespace {

const std::set<std::string> kConstantClasses = {"NSString", "NSNumber", "NSDate", "NSData",
                                                "NSArray",  "NSDictionary", "NSSet", "NSNull"};
const std::set<std::string> kExpressionArrayClasses = {"NSArray", "NSExpression"};
const std::set<std::string> kPredicateArrayClasses = {"NSArray", "NSPredicate"};

std::nullptr_t corrupt(NSKeyedUnarchiver& coder, const std::string& reason) {
  coder.failWithError(NSError::create(
      NSCocoaErrorDomain, NSCoderReadCorruptError,
      Dictionary{{NSLocalizedDescriptionKey, "The data couldn’t be read because it isn’t in the correct format."},
                 {"NSDebugDescription", reason}}));
  return nullptr;
}

Array encodeExpressions(const std::vector<NSExpressionPtr>& expressions) {
  Array array;
  array.reserve(expressions.size());
  for (const auto& e : expressions) array.push_back(Value(e));
  return array;
}

// Reads an array of objects of class T under key; false (and the coder
// failed) when it is missing or holds anything else.
template <class T>
bool decodeArray(NSKeyedUnarchiver& coder, const std::set<std::string>& classes, const std::string& key,
                 std::vector<std::shared_ptr<T>>& out) {
  Value value = coder.decodeObjectOfClasses(classes, key);
  if (coder.error()) return false;
  if (!value.isArray()) return corrupt(coder, key + " is not an array"), false;
  for (const Value& element : value.asArray()) {
    auto object = element.as<T>();
    if (!object) return corrupt(coder, key + " holds an object of the wrong class"), false;
    out.push_back(std::move(object));
  }
  return true;
}

bool decodeName(NSKeyedUnarchiver& coder, std::string& name) {
  Value value = coder.decodeObjectOfClass("NSString", "NSName");
  if (coder.error()) return false;
  if (!value.isString()) return corrupt(coder, "NSName is missing"), false;
  name = value.asString();
  return true;
}

std::shared_ptr<NSObject> decodeExpression(NSKeyedUnarchiver& coder, NSErrorPtr*) {
  auto type = static_cast<NSExpressionType>(coder.decodeInt64ForKey("NSExpressionType"));
  if (coder.error()) return nullptr;
  std::string name;
  switch (type) {
    case NSExpressionType::ConstantValue: {
      Value constant = coder.decodeObjectOfClasses(kConstantClasses, "NSConstantValue");
      if (coder.error()) return nullptr;
      return NSExpression::expressionForConstantValue(std::move(constant));
    }
    case NSExpressionType::EvaluatedObject:
      return NSExpression::expressionForEvaluatedObject();
    case NSExpressionType::Variable:
      if (!decodeName(coder, name)) return nullptr;
      return NSExpression::expressionForVariable(std::move(name));
    case NSExpressionType::Symbolic:
      if (!decodeName(coder, name)) return nullptr;
      if (name != "FIRST" && name != "LAST" && name != "SIZE") return corrupt(coder, "unknown symbol " + name);
      return NSExpression::expressionForSymbol(std::move(name));
    case NSExpressionType::KeyPath: {
      if (!decodeName(coder, name)) return nullptr;
      auto operand = coder.decodeObjectOfClass("NSExpression", "NSOperand").as<NSExpression>();
      if (coder.error()) return nullptr;
      return NSExpression::expressionForKeyPath(std::move(operand), std::move(name));
    }
    case NSExpressionType::Function:
    case NSExpressionType::Aggregate: {
      if (type == NSExpressionType::Function && !decodeName(coder, name)) return nullptr;
      std::vector<NSExpressionPtr> arguments;
      if (!decodeArray(coder, kExpressionArrayClasses, "NSArguments", arguments)) return nullptr;
      if (type == NSExpressionType::Aggregate) return NSExpression::expressionForAggregate(std::move(arguments));
      auto receiver = coder.decodeObjectOfClass("NSExpression", "NSOperand").as<NSExpression>();
      if (coder.error()) return nullptr;
      if (!receiver) return NSExpression::expressionForFunction(std::move(name), std::move(arguments));
      return NSExpression::expressionForFunction(std::move(receiver), std::move(name), std::move(arguments));
    }
    case NSExpressionType::Subquery: {
      if (!decodeName(coder, name)) return nullptr;
      auto collection = coder.decodeObjectOfClass("NSExpression", "NSOperand").as<NSExpression>();
      if (coder.error()) return nullptr;
      auto predicate = coder.decodeObjectOfClass("NSPredicate", "NSPredicate").as<NSPredicate>();
      if (coder.error()) return nullptr;
      if (!collection || !predicate) return corrupt(coder, "SUBQUERY lacks its collection or predicate");
      return NSExpression::expressionForSubquery(std::move(collection), std::move(name), std::move(predicate));
    }
  }
  return corrupt(coder, "unknown expression type");
}

std::shared_ptr<NSObject> decodeComparison(NSKeyedUnarchiver& coder, NSErrorPtr*) {
  auto left = coder.decodeObjectOfClass("NSExpression", "NSLeftExpression").as<NSExpression>();
  auto right = coder.decodeObjectOfClass("NSExpression", "NSRightExpression").as<NSExpression>();
  std::int64_t modifier = coder.decodeInt64ForKey("NSModifier");
  std::int64_t type = coder.decodeInt64ForKey("NSPredicateOperatorType");
  std::int64_t options = coder.decodeInt64ForKey("NSOptions");
  if (coder.error()) return nullptr;
  if (!left || !right) return corrupt(coder, "comparison lacks an expression");
  if (modifier < 0 || modifier > 2) return corrupt(coder, "unknown comparison modifier");
  bool knownType = (type >= 0 && type <= 10) || type == 99 || type == 100;
  if (!knownType) return corrupt(coder, "unknown comparison operator");
  if (options < 0 || options > 0x0F) return corrupt(coder, "unknown comparison options");
  return NSComparisonPredicate::create(std::move(left), std::move(right),
                                       static_cast<NSComparisonPredicateModifier>(modifier),
                                       static_cast<NSPredicateOperatorType>(type),
                                       static_cast<NSComparisonPredicateOptions>(options));
}

std::shared_ptr<NSObject> decodeCompound(NSKeyedUnarchiver& coder, NSErrorPtr*) {
  std::int64_t type = coder.decodeInt64ForKey("NSCompoundPredicateType");
  if (coder.error()) return nullptr;
  if (type < 0 || type > 2) return corrupt(coder, "unknown compound type");
  std::vector<NSPredicatePtr> subpredicates;
  if (!decodeArray(coder, kPredicateArrayClasses, "NSSubpredicates", subpredicates)) return nullptr;
  return NSCompoundPredicate::create(static_cast<NSCompoundPredicateType>(type), std::move(subpredicates));
}

}  // namespace

void ZBPredicateRegisterArchivableClasses() {
  static std::once_flag once;
  std::call_once(once, [] {
    NSKeyedUnarchiver::registerClass("NSExpression", {}, decodeExpression);
    NSKeyedUnarchiver::registerClass("NSComparisonPredicate", {"NSPredicate"}, decodeComparison);
    NSKeyedUnarchiver::registerClass("NSCompoundPredicate", {"NSPredicate"}, decodeCompound);
    NSKeyedUnarchiver::registerClass("NSTruePredicate", {"NSPredicate"},
                                     [](NSKeyedUnarchiver&, NSErrorPtr*) -> std::shared_ptr<NSObject> {
                                       return NSTruePredicate::create();
                                     });
    NSKeyedUnarchiver::registerClass("NSFalsePredicate", {"NSPredicate"},
                                     [](NSKeyedUnarchiver&, NSErrorPtr*) -> std::shared_ptr<NSObject> {
                                       return NSFalsePredicate::create();
                                     });
  });
}

void NSComparisonPredicate::encodeWithCoder(NSKeyedArchiver& coder) const {
  coder.encodeObject(Value(_left), "NSLeftExpression");
  coder.encodeObject(Value(_right), "NSRightExpression");
  coder.encodeInt64(static_cast<std::int64_t>(_modifier), "NSModifier");
  coder.encodeInt64(static_cast<std::int64_t>(_operator), "NSPredicateOperatorType");
  coder.encodeInt64(static_cast<std::int64_t>(_options), "NSOptions");
}

void NSCompoundPredicate::encodeWithCoder(NSKeyedArchiver& coder) const {
  coder.encodeInt64(static_cast<std::int64_t>(_type), "NSCompoundPredicateType");
  Array subpredicates;
  subpredicates.reserve(_subpredicates.size());
  for (const auto& p : _subpredicates) subpredicates.push_back(Value(p));
  coder.encodeObject(Value(std::move(subpredicates)), "NSSubpredicates");
}

void NSExpression::encodeWithCoder(NSKeyedArchiver& coder) const {
  coder.encodeInt64(static_cast<std::int64_t>(_type), "NSExpressionType");
  switch (_type) {
    case NSExpressionType::ConstantValue:
      coder.encodeObject(_constant, "NSConstantValue");
      return;
    case NSExpressionType::EvaluatedObject:
      return;
    case NSExpressionType::Variable:
    case NSExpressionType::Symbolic:
      coder.encodeObject(Value(_name), "NSName");
      return;
    case NSExpressionType::KeyPath:
      coder.encodeObject(Value(_name), "NSName");
      if (_operand && _operand->expressionType() != NSExpressionType::EvaluatedObject)
        coder.encodeObject(Value(_operand), "NSOperand");
      return;
    case NSExpressionType::Function:
      coder.encodeObject(Value(_name), "NSName");
      coder.encodeObject(Value(encodeExpressions(_arguments)), "NSArguments");
      if (_operand) coder.encodeObject(Value(_operand), "NSOperand");
      return;
    case NSExpressionType::Aggregate:
      coder.encodeObject(Value(encodeExpressions(_arguments)), "NSArguments");
      return;
    case NSExpressionType::Subquery:
      coder.encodeObject(Value(_name), "NSName");
      coder.encodeObject(Value(_operand), "NSOperand");
      coder.encodeObject(Value(_predicate), "NSPredicate");
      return;
  }
}
