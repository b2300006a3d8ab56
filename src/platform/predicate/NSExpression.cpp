#include "platform/predicate/NSExpression.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <stdexcept>

#include <unicode/locid.h>
#include <unicode/unistr.h>

#include "platform/predicate/NSPredicate.h"
#include "platform/predicate/ZBStringFolding.h"
#include "platform/predicate/impl/ZBPredicateEvaluation.h"
#include "platform/predicate/impl/ZBPredicateFormatting.h"
#include "platform/predicate/impl/ZBPredicateParser.h"

namespace {

enum FunctionId {
  FnAdd, FnSubtract, FnMultiply, FnDivide, FnPower,
  FnBitwiseAnd, FnBitwiseOr, FnBitwiseXor, FnShiftLeft, FnShiftRight, FnLength,
  FnSum, FnCount, FnMin, FnMax, FnAverage, FnMedian, FnMode, FnStddev,
  FnSqrt, FnLog, FnLn, FnExp, FnFloor, FnCeiling, FnAbs, FnTrunc,
  FnUppercase, FnLowercase, FnRandomN, FnNow, FnRandom, FnCast, FnIndex,
};

struct FunctionInfo {
  const char* name;
  FunctionId id;
  int arity;
  const char* infix;  // operator text of the infix forms
};

constexpr FunctionInfo kFunctions[] = {
    {"add:to:", FnAdd, 2, "+"},          {"from:subtract:", FnSubtract, 2, "-"}, {"multiply:by:", FnMultiply, 2, "*"},
    {"divide:by:", FnDivide, 2, "/"},    {"raise:toPower:", FnPower, 2, "**"},
    {"bitwiseAnd:with:", FnBitwiseAnd, 2, "&"}, {"bitwiseOr:with:", FnBitwiseOr, 2, "|"},
    {"bitwiseXor:with:", FnBitwiseXor, 2, "^"}, {"leftshift:by:", FnShiftLeft, 2, "<<"},
    {"rightshift:by:", FnShiftRight, 2, ">>"},  {"sum:", FnSum, 1, nullptr},
    {"count:", FnCount, 1, nullptr},     {"min:", FnMin, 1, nullptr},            {"max:", FnMax, 1, nullptr},
    {"average:", FnAverage, 1, nullptr}, {"median:", FnMedian, 1, nullptr},      {"mode:", FnMode, 1, nullptr},
    {"stddev:", FnStddev, 1, nullptr},   {"sqrt:", FnSqrt, 1, nullptr},          {"log:", FnLog, 1, nullptr},
    {"ln:", FnLn, 1, nullptr},           {"exp:", FnExp, 1, nullptr},            {"floor:", FnFloor, 1, nullptr},
    {"ceiling:", FnCeiling, 1, nullptr}, {"abs:", FnAbs, 1, nullptr},            {"trunc:", FnTrunc, 1, nullptr},
    {"uppercase:", FnUppercase, 1, nullptr}, {"lowercase:", FnLowercase, 1, nullptr},
    {"randomn:", FnRandomN, 1, nullptr}, {"now", FnNow, 0, nullptr},             {"random", FnRandom, 0, nullptr},
    {"castObject:toType:", FnCast, 2, nullptr}, {"objectFrom:withIndex:", FnIndex, 2, nullptr},
};

const FunctionInfo* functionNamed(std::string_view name) {
  for (const FunctionInfo& info : kFunctions)
    if (name == info.name) return &info;
  return nullptr;
}

// The selectors FUNCTION(receiver, "selector", …) evaluates; arity counts the
// arguments after the selector.
constexpr FunctionInfo kSelectors[] = {
    {"uppercase", FnUppercase, 0, nullptr}, {"uppercaseString", FnUppercase, 0, nullptr},
    {"lowercase", FnLowercase, 0, nullptr}, {"lowercaseString", FnLowercase, 0, nullptr},
    {"length", FnLength, 0, nullptr},       {"pow:", FnPower, 1, nullptr},
};

const FunctionInfo* selectorNamed(std::string_view name) {
  for (const FunctionInfo& info : kSelectors)
    if (name == info.name) return &info;
  return nullptr;
}

std::size_t hashCombine(std::size_t seed, std::size_t value) {
  return seed ^ (value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
}

// Constants compare as values do, except that NaN equals NaN: a tree must
// equal itself and its reprint.
bool sameConstant(const Value& a, const Value& b) {
  if (a.isDouble() && b.isDouble() && std::isnan(a.doubleValue()) && std::isnan(b.doubleValue())) return true;
  if (a.isArray() && b.isArray()) {
    const Array& x = a.asArray();
    const Array& y = b.asArray();
    if (x.size() != y.size()) return false;
    for (std::size_t i = 0; i < x.size(); ++i)
      if (!sameConstant(x[i], y[i])) return false;
    return true;
  }
  return a.isEqual(b);
}

// One NaN bit pattern for every NaN (also inside arrays), so equal constants
// hash alike.
bool containsNaN(const Value& v) {
  if (v.isDouble()) return std::isnan(v.doubleValue());
  if (v.isArray())
    for (const Value& e : v.asArray())
      if (containsNaN(e)) return true;
  return false;
}

Value canonicalNaN(const Value& v) {
  if (v.isDouble()) return Value(std::numeric_limits<double>::quiet_NaN());
  Array elements;
  elements.reserve(v.asArray().size());
  for (const Value& e : v.asArray()) elements.push_back(containsNaN(e) ? canonicalNaN(e) : e);
  return Value(std::move(elements));
}

bool sameExpression(const NSExpressionPtr& a, const NSExpressionPtr& b) {
  if (a == b) return true;
  if (!a || !b) return false;
  return a->isEqual(*b);
}

Array elementsOf(const Value& collection) {
  if (collection.isDictionary()) {
    Array values;
    values.reserve(collection.count());
    for (const auto& entry : collection.asDictionary()) values.push_back(entry.second);
    return values;
  }
  return collection.collectionElements();
}

// Checked integer arithmetic; falls back to doubles on overflow.
Value arithmetic(FunctionId id, const Value& a, const Value& b, ZBPredicateEvaluationState& state) {
  if (!a.isNumber() || !b.isNumber()) return Value();
  bool integers = !a.isDouble() && !b.isDouble();
  if (integers) {
    std::int64_t x = a.integerValue(), y = b.integerValue(), r = 0;
    switch (id) {
      case FnAdd:
        if (!__builtin_add_overflow(x, y, &r)) return Value(r);
        break;
      case FnSubtract:
        if (!__builtin_sub_overflow(x, y, &r)) return Value(r);
        break;
      case FnMultiply:
        if (!__builtin_mul_overflow(x, y, &r)) return Value(r);
        break;
      case FnDivide:
        if (y == 0) {
          state.fail(ZBPredicateTypeMismatchError, [] { return std::string("Division by zero"); });
          return Value();
        }
        if (!(x == INT64_MIN && y == -1)) return Value(x / y);
        break;
      default:
        break;
    }
  }
  double x = a.doubleValue(), y = b.doubleValue();
  switch (id) {
    case FnAdd: return Value(x + y);
    case FnSubtract: return Value(x - y);
    case FnMultiply: return Value(x * y);
    case FnDivide: return Value(x / y);
    case FnPower: {
      double r = std::pow(x, y);
      if (integers && y >= 0 && std::isfinite(r) && std::fabs(r) < 9.0e18 && r == std::trunc(r))
        return Value(static_cast<std::int64_t>(r));
      return Value(r);
    }
    default: return Value();
  }
}

// Integers, booleans as 0 and 1, and doubles that hold a whole number.
std::optional<std::int64_t> bitwiseOperand(const Value& v) {
  if (!v.isDouble()) return v.integerValue();
  double d = v.doubleValue();
  if (d != std::trunc(d) || d < -0x1p63 || d >= 0x1p63) return std::nullopt;
  return static_cast<std::int64_t>(d);
}

// A shift by 64 or more moves every bit out; right shifts keep the sign.
Value bitwise(FunctionId id, const Value& a, const Value& b, ZBPredicateEvaluationState& state) {
  if (!a.isNumber() || !b.isNumber()) return Value();
  auto x = bitwiseOperand(a), y = bitwiseOperand(b);
  if (!x || !y) {
    state.fail(ZBPredicateTypeMismatchError, [&] {
      return "Bitwise operators need integers, got " + a.description() + " and " + b.description();
    });
    return Value();
  }
  bool shift = id == FnShiftLeft || id == FnShiftRight;
  if (shift && *y < 0) {
    state.fail(ZBPredicateTypeMismatchError, [&] { return "Can’t shift by a negative count " + b.description(); });
    return Value();
  }
  switch (id) {
    case FnBitwiseAnd: return Value(*x & *y);
    case FnBitwiseOr: return Value(*x | *y);
    case FnBitwiseXor: return Value(*x ^ *y);
    case FnShiftLeft:
      return Value(*y >= 64 ? std::int64_t{0} : static_cast<std::int64_t>(static_cast<std::uint64_t>(*x) << *y));
    case FnShiftRight: return Value(*y >= 64 ? (*x < 0 ? std::int64_t{-1} : std::int64_t{0}) : *x >> *y);
    default: return Value();
  }
}

std::vector<double> numbersOf(const Array& elements) {
  std::vector<double> numbers;
  numbers.reserve(elements.size());
  for (const Value& e : elements)
    if (e.isNumber()) numbers.push_back(e.doubleValue());
  return numbers;
}

Value aggregate(FunctionId id, const Value& argument) {
  if (!argument.isCollection() && !argument.isDictionary()) return Value();
  Array elements = elementsOf(argument);
  switch (id) {
    case FnCount:
      return Value(static_cast<std::int64_t>(elements.size()));
    case FnSum: {
      std::int64_t integerSum = 0;
      double doubleSum = 0;
      bool integral = true;
      for (const Value& e : elements) {
        if (!e.isNumber()) continue;
        doubleSum += e.doubleValue();
        if (integral && !e.isDouble() && !__builtin_add_overflow(integerSum, e.integerValue(), &integerSum)) continue;
        integral = false;
      }
      return integral ? Value(integerSum) : Value(doubleSum);
    }
    case FnMin:
    case FnMax: {
      const Value* best = nullptr;
      for (const Value& e : elements) {
        if (e.isAbsent() || e.isNull()) continue;
        if (!best) {
          best = &e;
          continue;
        }
        auto order = e.compare(*best);
        if (order && ((id == FnMin && *order < 0) || (id == FnMax && *order > 0))) best = &e;
      }
      return best ? *best : Value();
    }
    case FnAverage: {
      auto numbers = numbersOf(elements);
      if (numbers.empty()) return Value();
      double sum = 0;
      for (double n : numbers) sum += n;
      return Value(sum / static_cast<double>(numbers.size()));
    }
    case FnMedian: {
      auto numbers = numbersOf(elements);
      if (numbers.empty()) return Value();
      std::sort(numbers.begin(), numbers.end());
      std::size_t mid = numbers.size() / 2;
      return Value(numbers.size() % 2 ? numbers[mid] : (numbers[mid - 1] + numbers[mid]) / 2);
    }
    case FnMode: {
      // Every value that occurs most often, in first-occurrence order.
      Array distinct;
      std::vector<std::size_t> counts;
      for (const Value& e : elements) {
        auto it = std::find(distinct.begin(), distinct.end(), e);
        if (it == distinct.end()) {
          distinct.push_back(e);
          counts.push_back(1);
        } else {
          ++counts[static_cast<std::size_t>(it - distinct.begin())];
        }
      }
      std::size_t most = counts.empty() ? 0 : *std::max_element(counts.begin(), counts.end());
      Array modes;
      for (std::size_t i = 0; i < distinct.size(); ++i)
        if (counts[i] == most) modes.push_back(distinct[i]);
      return Value(std::move(modes));
    }
    case FnStddev: {
      auto numbers = numbersOf(elements);
      if (numbers.empty()) return Value();
      double mean = 0;
      for (double n : numbers) mean += n;
      mean /= static_cast<double>(numbers.size());
      double squares = 0;
      for (double n : numbers) squares += (n - mean) * (n - mean);
      return Value(std::sqrt(squares / static_cast<double>(numbers.size())));
    }
    default:
      return Value();
  }
}

Value mathFunction(FunctionId id, const Value& argument) {
  if (!argument.isNumber()) return Value();
  if (id == FnAbs && !argument.isDouble()) {
    std::int64_t i = argument.integerValue();
    return i == INT64_MIN ? Value(std::fabs(static_cast<double>(i))) : Value(i < 0 ? -i : i);
  }
  double x = argument.doubleValue();
  switch (id) {
    case FnSqrt: return Value(std::sqrt(x));
    case FnLog: return Value(std::log10(x));
    case FnLn: return Value(std::log(x));
    case FnExp: return Value(std::exp(x));
    case FnFloor: return Value(std::floor(x));
    case FnCeiling: return Value(std::ceil(x));
    case FnAbs: return Value(std::fabs(x));
    case FnTrunc: return Value(std::trunc(x));
    default: return Value();
  }
}

Value changeCase(const Value& argument, bool upper) {
  if (!argument.isString()) return Value();
  const std::string& s = argument.asString();
  icu::UnicodeString u = icu::UnicodeString::fromUTF8(icu::StringPiece(s.data(), static_cast<int32_t>(s.size())));
  if (upper)
    u.toUpper(icu::Locale::getRoot());
  else
    u.toLower(icu::Locale::getRoot());
  std::string out;
  u.toUTF8String(out);
  return Value(std::move(out));
}

std::mt19937_64& randomEngine() {
  thread_local std::mt19937_64 engine{std::random_device{}()};
  return engine;
}

std::optional<Data> dataFromHex(std::string_view hex) {
  if (hex.size() % 2) return std::nullopt;
  Data data;
  data.reserve(hex.size() / 2);
  auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    int hi = nibble(hex[i]), lo = nibble(hex[i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    data.push_back(static_cast<std::uint8_t>(hi * 16 + lo));
  }
  return data;
}

std::optional<Value> numberFromString(const std::string& s) {
  if (s.empty()) return std::nullopt;
  char* end = nullptr;
  errno = 0;
  long long i = std::strtoll(s.c_str(), &end, 10);
  if (end && *end == '\0' && errno == 0) return Value(static_cast<std::int64_t>(i));
  double d = std::strtod(s.c_str(), &end);
  if (end && *end == '\0') return Value(d);
  return std::nullopt;
}

}  // namespace

std::optional<Value> ZBPredicateCast(const Value& value, std::string_view type) {
  if (type == "NSDate") {
    if (value.isDate()) return value;
    if (value.isNumber()) return Value(NSDate(value.doubleValue()));
    if (value.isString()) {
      if (auto n = numberFromString(value.asString())) return Value(NSDate(n->doubleValue()));
    }
    return std::nullopt;
  }
  if (type == "NSNumber") {
    if (value.isNumber()) return value;
    if (value.isDate()) return Value(value.asDate().timeIntervalSinceReferenceDate());
    if (value.isString()) return numberFromString(value.asString());
    return std::nullopt;
  }
  if (type == "NSString") {
    if (value.isString()) return value;
    if (value.isNumber()) {
      std::string text;
      ZBPredicateAppendNumber(text, value);
      return Value(std::move(text));
    }
    if (value.isDate()) return Value(value.asDate().ISO8601String());
    return std::nullopt;
  }
  if (type == "NSData") {
    if (value.isData()) return value;
    if (value.isString()) {
      if (auto data = dataFromHex(value.asString())) return Value(std::move(*data));
    }
    return std::nullopt;
  }
  return std::nullopt;
}

int ZBPredicateFunctionArity(std::string_view name) {
  const FunctionInfo* info = functionNamed(name);
  return info ? info->arity : -1;
}

const Value& ZBPredicateAbsentValue() {
  static const Value absent;
  return absent;
}

// MARK: Construction

NSExpression::NSExpression(NSExpressionType type, Value constant, std::string name, NSExpressionPtr operand,
                           std::vector<NSExpressionPtr> arguments, std::shared_ptr<NSPredicate> predicate)
    : _type(type),
      _constant(std::move(constant)),
      _name(std::move(name)),
      _operand(std::move(operand)),
      _arguments(std::move(arguments)),
      _predicate(std::move(predicate)) {
  ZBPredicateRegisterArchivableClasses();
  if (_type == NSExpressionType::ConstantValue && _constant.isNull()) _constant = Value();
  if (_type == NSExpressionType::ConstantValue && containsNaN(_constant)) _constant = canonicalNaN(_constant);
  if (_type == NSExpressionType::KeyPath) {
    _plainKeyPath = true;
    std::size_t start = 0;
    while (start <= _name.size()) {
      std::size_t dot = _name.find('.', start);
      if (dot == std::string::npos) dot = _name.size();
      _components.emplace_back(static_cast<std::uint32_t>(start), static_cast<std::uint32_t>(dot - start));
      if (dot - start == 0 || _name[start] == '@') _plainKeyPath = false;
      start = dot + 1;
    }
  }
  if (_type == NSExpressionType::Function) {
    const FunctionInfo* info = _operand ? selectorNamed(_name) : functionNamed(_name);
    if (info && static_cast<int>(_arguments.size()) == info->arity &&
        std::none_of(_arguments.begin(), _arguments.end(), [](const auto& a) { return !a; }))
      _functionId = info->id;
  }
}

NSExpressionPtr NSExpression::expressionForConstantValue(Value value) {
  return std::make_shared<NSExpression>(NSExpressionType::ConstantValue, std::move(value), std::string(), nullptr,
                                        std::vector<NSExpressionPtr>(), nullptr);
}

NSExpressionPtr NSExpression::expressionForEvaluatedObject() {
  static const NSExpressionPtr self = std::make_shared<NSExpression>(
      NSExpressionType::EvaluatedObject, Value(), std::string(), nullptr, std::vector<NSExpressionPtr>(), nullptr);
  return self;
}

NSExpressionPtr NSExpression::expressionForVariable(std::string name) {
  return std::make_shared<NSExpression>(NSExpressionType::Variable, Value(), std::move(name), nullptr,
                                        std::vector<NSExpressionPtr>(), nullptr);
}

NSExpressionPtr NSExpression::expressionForKeyPath(std::string keyPath) {
  return expressionForKeyPath(nullptr, std::move(keyPath));
}

NSExpressionPtr NSExpression::expressionForKeyPath(NSExpressionPtr operand, std::string keyPath) {
  if (!operand) operand = expressionForEvaluatedObject();
  return std::make_shared<NSExpression>(NSExpressionType::KeyPath, Value(), std::move(keyPath), std::move(operand),
                                        std::vector<NSExpressionPtr>(), nullptr);
}

NSExpressionPtr NSExpression::expressionForFunction(std::string name, std::vector<NSExpressionPtr> arguments) {
  return std::make_shared<NSExpression>(NSExpressionType::Function, Value(), std::move(name), nullptr,
                                        std::move(arguments), nullptr);
}

NSExpressionPtr NSExpression::expressionForFunction(NSExpressionPtr operand, std::string selector,
                                                    std::vector<NSExpressionPtr> arguments) {
  if (!operand) operand = expressionForEvaluatedObject();
  return std::make_shared<NSExpression>(NSExpressionType::Function, Value(), std::move(selector), std::move(operand),
                                        std::move(arguments), nullptr);
}

NSExpressionPtr NSExpression::expressionForAggregate(std::vector<NSExpressionPtr> collection) {
  std::erase(collection, nullptr);
  return std::make_shared<NSExpression>(NSExpressionType::Aggregate, Value(), std::string(), nullptr,
                                        std::move(collection), nullptr);
}

NSExpressionPtr NSExpression::expressionForSubquery(NSExpressionPtr collection, std::string variable,
                                                    std::shared_ptr<NSPredicate> predicate) {
  if (!collection) collection = expressionForConstantValue(Value());
  if (!predicate) predicate = NSPredicate::predicateWithValue(false);
  return std::make_shared<NSExpression>(NSExpressionType::Subquery, Value(), std::move(variable),
                                        std::move(collection), std::vector<NSExpressionPtr>(), std::move(predicate));
}

NSExpressionPtr NSExpression::expressionForSymbol(std::string symbol) {
  return std::make_shared<NSExpression>(NSExpressionType::Symbolic, Value(), std::move(symbol), nullptr,
                                        std::vector<NSExpressionPtr>(), nullptr);
}

NSExpressionPtr NSExpression::expressionWithFormat(std::string_view format, std::vector<Value> arguments,
                                                   NSErrorPtr* error) {
  return ZBParseExpressionFormat(format, arguments, error);
}

// MARK: Equality

bool NSExpression::isEqual(const NSObject& other) const {
  if (this == &other) return true;
  auto* o = dynamic_cast<const NSExpression*>(&other);
  if (!o || o->_type != _type) return false;
  switch (_type) {
    case NSExpressionType::ConstantValue:
      return sameConstant(_constant, o->_constant);
    case NSExpressionType::EvaluatedObject:
      return true;
    case NSExpressionType::Variable:
    case NSExpressionType::Symbolic:
      return _name == o->_name;
    case NSExpressionType::KeyPath:
      return _name == o->_name && sameExpression(_operand, o->_operand);
    case NSExpressionType::Function:
    case NSExpressionType::Aggregate:
      if (_name != o->_name || _arguments.size() != o->_arguments.size()) return false;
      if (!sameExpression(_operand, o->_operand)) return false;
      for (std::size_t i = 0; i < _arguments.size(); ++i)
        if (!sameExpression(_arguments[i], o->_arguments[i])) return false;
      return true;
    case NSExpressionType::Subquery:
      return _name == o->_name && sameExpression(_operand, o->_operand) &&
             (_predicate == o->_predicate || (_predicate && o->_predicate && _predicate->isEqual(*o->_predicate)));
  }
  return false;
}

std::size_t NSExpression::hash() const {
  std::size_t h = std::hash<int>()(static_cast<int>(_type));
  switch (_type) {
    case NSExpressionType::ConstantValue:
      return hashCombine(h, _constant.hash());
    case NSExpressionType::EvaluatedObject:
      return h;
    default:
      break;
  }
  h = hashCombine(h, std::hash<std::string>()(_name));
  if (_operand) h = hashCombine(h, _operand->hash());
  for (const auto& a : _arguments) h = hashCombine(h, a ? a->hash() : 0);
  if (_predicate) h = hashCombine(h, _predicate->hash());
  return h;
}

// MARK: Printing

bool NSExpression::_isInfix() const {
  if (_type != NSExpressionType::Function || _operand) return false;
  const FunctionInfo* info = functionNamed(_name);
  return info && info->infix && _arguments.size() == 2;
}

std::string NSExpression::expressionFormat() const {
  std::string out;
  _appendFormat(out);
  return out;
}

namespace {

// Operands of infix operators, key paths and indexes are parenthesised when
// they are infix forms themselves; before '.' or '[' a number is too, since
// the dot would read as part of it.
void appendOperand(std::string& out, const NSExpressionPtr& e, bool wrapNumbers) {
  bool wrap = e->_isInfix() || (wrapNumbers && e->expressionType() == NSExpressionType::ConstantValue &&
                                 e->constantValue().isNumber());
  if (wrap) out += '(';
  e->_appendFormat(out);
  if (wrap) out += ')';
}

// afterDot: the path continues an operand ($v.title), so its first component
// follows a dot too.
void appendKeyPath(std::string& out, std::string_view path, bool afterDot) {
  std::size_t start = 0;
  while (true) {
    std::size_t dot = path.find('.', start);
    ZBPredicateAppendKeyComponent(out, path.substr(start, dot == std::string_view::npos ? dot : dot - start),
                                  afterDot || start > 0);
    if (dot == std::string_view::npos) break;
    out += '.';
    start = dot + 1;
  }
}

}  // namespace

void NSExpression::_appendFormat(std::string& out) const {
  switch (_type) {
    case NSExpressionType::ConstantValue:
      ZBPredicateAppendConstant(out, _constant);
      return;
    case NSExpressionType::EvaluatedObject:
      out += "SELF";
      return;
    case NSExpressionType::Variable:
      out += '$';
      ZBPredicateAppendVariableName(out, _name);
      return;
    case NSExpressionType::Symbolic:
      out += _name;
      return;
    case NSExpressionType::KeyPath: {
      bool fromOperand = _operand && _operand->expressionType() != NSExpressionType::EvaluatedObject;
      if (fromOperand) {
        appendOperand(out, _operand, true);
        if (_name.empty()) return;
        out += '.';
      } else if (_name.empty()) {
        out += "SELF";
        return;
      }
      appendKeyPath(out, _name, fromOperand);
      return;
    }
    case NSExpressionType::Aggregate:
      out += '{';
      for (std::size_t i = 0; i < _arguments.size(); ++i) {
        if (i) out += ", ";
        _arguments[i]->_appendFormat(out);
      }
      out += '}';
      return;
    case NSExpressionType::Subquery:
      out += "SUBQUERY(";
      _operand->_appendFormat(out);
      out += ", $";
      ZBPredicateAppendVariableName(out, _name);
      out += ", ";
      _predicate->_appendFormat(out);
      out += ')';
      return;
    case NSExpressionType::Function: {
      // Arguments after `separator` (the first) and ", " (the rest); a missing one prints nil.
      auto appendArguments = [&](const char* separator) {
        for (std::size_t i = 0; i < _arguments.size(); ++i) {
          out += i == 0 ? separator : ", ";
          if (_arguments[i])
            _arguments[i]->_appendFormat(out);
          else
            out += "nil";
        }
      };
      if (_operand) {
        // The space before the comma after the selector is how the platform
        // prints it: FUNCTION(a, "pow:" , 3).
        out += "FUNCTION(";
        _operand->_appendFormat(out);
        out += ", ";
        ZBPredicateAppendQuotedString(out, _name);
        appendArguments(" , ");
        out += ')';
        return;
      }
      const FunctionInfo* info = functionNamed(_name);
      if (info && info->infix && _arguments.size() == 2 && _arguments[0] && _arguments[1]) {
        appendOperand(out, _arguments[0], false);
        out += ' ';
        out += info->infix;
        out += ' ';
        appendOperand(out, _arguments[1], false);
        return;
      }
      if (_functionId == FnIndex) {
        appendOperand(out, _arguments[0], true);
        out += '[';
        _arguments[1]->_appendFormat(out);
        out += ']';
        return;
      }
      if (_functionId == FnCast) {
        out += "CAST(";
        _arguments[0]->_appendFormat(out);
        out += ", ";
        _arguments[1]->_appendFormat(out);
        out += ')';
        return;
      }
      // name:(args) for one-argument functions, name() for nullary ones.
      out += _name;
      out += '(';
      appendArguments("");
      out += ')';
      return;
    }
  }
}

// MARK: Evaluation

Value NSExpression::expressionValueWithObject(const Value& object, const Dictionary& context, NSErrorPtr* error) const {
  ZBPredicateEvaluationState state;
  state.bindings = &context;
  state.wantsError = error != nullptr;
  Value scratch;
  Value result;
  try {
    result = _evaluate(object, state, scratch);
  } catch (const std::exception& e) {
    std::string what = e.what();
    state.fail(ZBPredicateUnknownKeyError, [&] { return what; });
    result = Value();
  }
  if (error && state.error) *error = state.error;
  return result;
}

NSExpressionPtr NSExpression::expressionWithSubstitutionVariables(const Dictionary& variables) const {
  auto self = std::static_pointer_cast<NSExpression>(std::const_pointer_cast<NSObject>(shared_from_this()));
  switch (_type) {
    case NSExpressionType::Variable: {
      if (!variables.contains(_name)) return self;
      return expressionForConstantValue(variables[_name]);
    }
    case NSExpressionType::KeyPath: {
      if (!_operand) return self;
      auto operand = _operand->expressionWithSubstitutionVariables(variables);
      return operand == _operand ? self : expressionForKeyPath(operand, _name);
    }
    case NSExpressionType::Function:
    case NSExpressionType::Aggregate: {
      NSExpressionPtr operand = _operand ? _operand->expressionWithSubstitutionVariables(variables) : nullptr;
      bool changed = operand != _operand;
      std::vector<NSExpressionPtr> arguments;
      arguments.reserve(_arguments.size());
      for (const auto& a : _arguments) {
        arguments.push_back(a ? a->expressionWithSubstitutionVariables(variables) : a);
        changed |= arguments.back() != a;
      }
      if (!changed) return self;
      return std::make_shared<NSExpression>(_type, Value(), _name, std::move(operand), std::move(arguments), nullptr);
    }
    case NSExpressionType::Subquery: {
      auto collection = _operand->expressionWithSubstitutionVariables(variables);
      // The subquery's own variable is bound per element, never substituted.
      NSPredicatePtr predicate;
      if (variables.contains(_name)) {
        Dictionary outer = variables;
        outer.remove(_name);
        predicate = _predicate->predicateWithSubstitutionVariables(outer);
      } else {
        predicate = _predicate->predicateWithSubstitutionVariables(variables);
      }
      if (collection == _operand && predicate == _predicate) return self;
      return expressionForSubquery(collection, _name, predicate);
    }
    default:
      return self;
  }
}

const Value& NSExpression::_evaluate(const Value& object, ZBPredicateEvaluationState& state, Value& scratch) const {
  switch (_type) {
    case NSExpressionType::ConstantValue:
      return _constant;
    case NSExpressionType::EvaluatedObject:
      return object;
    case NSExpressionType::Variable: {
      if (state.bindings) {
        const Value& bound = (*state.bindings)[_name];
        if (!bound.isAbsent() || state.bindings->contains(_name)) return bound;
      }
      state.fail(ZBPredicateUnboundVariableError, [&] { return "Can’t get value for “" + _name + "” in bindings"; });
      return ZBPredicateAbsentValue();
    }
    case NSExpressionType::KeyPath:
      return _evaluateKeyPath(object, state, scratch);
    case NSExpressionType::Function:
      return _evaluateFunction(object, state, scratch);
    case NSExpressionType::Aggregate: {
      Array values;
      values.reserve(_arguments.size());
      for (const auto& e : _arguments) {
        Value elementScratch;
        values.push_back(e->_evaluate(object, state, elementScratch));
      }
      scratch = Value(std::move(values));
      return scratch;
    }
    case NSExpressionType::Subquery: {
      Value collectionScratch;
      const Value& collection = _operand->_evaluate(object, state, collectionScratch);
      if (!collection.isCollection() && !collection.isDictionary()) {
        if (!collection.isAbsent() && !collection.isNull())
          state.fail(ZBPredicateTypeMismatchError, [&] { return "SUBQUERY needs a collection, got " + collection.description(); });
        return ZBPredicateAbsentValue();
      }
      Dictionary bindings = state.bindings ? *state.bindings : Dictionary();
      const Dictionary* outer = state.bindings;
      Array matches;
      for (const Value& element : elementsOf(collection)) {
        bindings.set(_name, element);
        state.bindings = &bindings;
        bool keep = _predicate->_evaluate(element, state);
        state.bindings = outer;
        if (keep) matches.push_back(element);
      }
      scratch = Value(std::move(matches));
      return scratch;
    }
    case NSExpressionType::Symbolic:
      return ZBPredicateAbsentValue();
  }
  return ZBPredicateAbsentValue();
}

const Value& NSExpression::_evaluateKeyPath(const Value& object, ZBPredicateEvaluationState& state,
                                            Value& scratch) const {
  bool fromSelf = !_operand || _operand->expressionType() == NSExpressionType::EvaluatedObject;
  Value operandScratch;
  const Value* current = fromSelf ? &object : &_operand->_evaluate(object, state, operandScratch);
  if (_name.empty()) {
    if (fromSelf) return object;
    scratch = *current;
    return scratch;
  }
  // Dictionaries are walked by reference; anything else (objects,
  // collections, collection operators) goes through key-value coding for the
  // rest of the path.
  for (std::size_t i = 0; i < _components.size(); ++i) {
    auto [start, length] = _components[i];
    std::string_view component(_name.data() + start, length);
    if (current->isDictionary() && length && component[0] != '@') {
      current = &current->asDictionary()[component];
      continue;
    }
    if (current->isAbsent() || current->isNull()) return ZBPredicateAbsentValue();
    scratch = ::valueForKeyPath(*current, std::string_view(_name).substr(start));
    return scratch;
  }
  if (fromSelf) return *current;
  scratch = *current;  // may point into operandScratch, which dies here
  return scratch;
}

const Value& NSExpression::_evaluateFunction(const Value& object, ZBPredicateEvaluationState& state,
                                             Value& scratch) const {
  if (_operand) return _evaluateSelector(object, state, scratch);
  if (_functionId < 0) {
    state.fail(ZBPredicateUnsupportedError, [&] {
      return "Unsupported function “" + _name + "” with " + std::to_string(_arguments.size()) + " arguments";
    });
    return ZBPredicateAbsentValue();
  }
  auto id = static_cast<FunctionId>(_functionId);
  switch (id) {
    case FnNow:
      scratch = Value(NSDate::date());
      return scratch;
    case FnRandom:
      scratch = Value(std::uniform_real_distribution<double>(0.0, 1.0)(randomEngine()));
      return scratch;
    default:
      break;
  }
  Value s0;
  const Value& a0 = _arguments[0]->_evaluate(object, state, s0);
  switch (id) {
    case FnAdd:
    case FnSubtract:
    case FnMultiply:
    case FnDivide:
    case FnPower: {
      Value s1;
      const Value& a1 = _arguments[1]->_evaluate(object, state, s1);
      scratch = arithmetic(id, a0, a1, state);
      return scratch;
    }
    case FnBitwiseAnd:
    case FnBitwiseOr:
    case FnBitwiseXor:
    case FnShiftLeft:
    case FnShiftRight: {
      Value s1;
      const Value& a1 = _arguments[1]->_evaluate(object, state, s1);
      scratch = bitwise(id, a0, a1, state);
      return scratch;
    }
    case FnSum:
    case FnCount:
    case FnMin:
    case FnMax:
    case FnAverage:
    case FnMedian:
    case FnMode:
    case FnStddev:
      scratch = aggregate(id, a0);
      return scratch;
    case FnSqrt:
    case FnLog:
    case FnLn:
    case FnExp:
    case FnFloor:
    case FnCeiling:
    case FnAbs:
    case FnTrunc:
      scratch = mathFunction(id, a0);
      return scratch;
    case FnUppercase:
    case FnLowercase:
      scratch = changeCase(a0, id == FnUppercase);
      return scratch;
    case FnRandomN: {
      std::int64_t n = a0.isNumber() ? a0.integerValue() : 0;
      if (n <= 0) return ZBPredicateAbsentValue();
      scratch = Value(std::uniform_int_distribution<std::int64_t>(0, n - 1)(randomEngine()));
      return scratch;
    }
    case FnCast: {
      Value s1;
      const Value& type = _arguments[1]->_evaluate(object, state, s1);
      if (a0.isAbsent() || a0.isNull()) return ZBPredicateAbsentValue();
      auto cast = type.isString() ? ZBPredicateCast(a0, type.asString()) : std::nullopt;
      if (!cast) {
        state.fail(ZBPredicateTypeMismatchError, [&] {
          return "Can’t cast " + a0.description() + " to " + type.description();
        });
        return ZBPredicateAbsentValue();
      }
      scratch = std::move(*cast);
      return scratch;
    }
    case FnIndex: {
      const NSExpressionPtr& index = _arguments[1];
      if (index->expressionType() == NSExpressionType::Symbolic) {
        if (!a0.isCollection() && !a0.isDictionary()) return ZBPredicateAbsentValue();
        const std::string& symbol = index->symbol();
        if (symbol == "SIZE") {
          scratch = Value(static_cast<std::int64_t>(a0.count()));
          return scratch;
        }
        if (a0.isArray()) {
          const Array& array = a0.asArray();
          if (array.empty()) return ZBPredicateAbsentValue();
          scratch = symbol == "FIRST" ? array.front() : array.back();
          return scratch;
        }
        Array elements = elementsOf(a0);
        if (elements.empty()) return ZBPredicateAbsentValue();
        scratch = symbol == "FIRST" ? elements.front() : elements.back();
        return scratch;
      }
      Value s1;
      const Value& i = index->_evaluate(object, state, s1);
      if (a0.isDictionary()) {
        if (!i.isString()) return ZBPredicateAbsentValue();
        scratch = a0.asDictionary()[i.asString()];
        return scratch;
      }
      if (a0.isArray() && i.isNumber() && !i.isDouble()) {
        std::int64_t n = i.integerValue();
        const Array& array = a0.asArray();
        if (n < 0 || static_cast<std::uint64_t>(n) >= array.size()) return ZBPredicateAbsentValue();
        scratch = array[static_cast<std::size_t>(n)];
        return scratch;
      }
      return ZBPredicateAbsentValue();
    }
    default:
      return ZBPredicateAbsentValue();
  }
}

const Value& NSExpression::_evaluateSelector(const Value& object, ZBPredicateEvaluationState& state,
                                             Value& scratch) const {
  if (_functionId < 0) {
    state.fail(ZBPredicateUnsupportedError, [&] {
      return "Unsupported FUNCTION selector “" + _name + "” with " + std::to_string(_arguments.size()) + " arguments";
    });
    return ZBPredicateAbsentValue();
  }
  auto id = static_cast<FunctionId>(_functionId);
  Value receiverScratch;
  const Value& receiver = _operand->_evaluate(object, state, receiverScratch);
  // A message to nil answers nil.
  if (receiver.isAbsent() || receiver.isNull()) return ZBPredicateAbsentValue();
  bool wantsNumber = id == FnPower;
  if (wantsNumber ? !receiver.isNumber() : !receiver.isString()) {
    state.fail(ZBPredicateTypeMismatchError, [&] {
      return "“" + _name + "” needs a " + (wantsNumber ? "number" : "string") + ", got " + receiver.description();
    });
    return ZBPredicateAbsentValue();
  }
  switch (id) {
    case FnUppercase:
    case FnLowercase:
      scratch = changeCase(receiver, id == FnUppercase);
      return scratch;
    case FnLength:
      scratch = Value(static_cast<std::int64_t>(ZBStringUTF16Length(receiver.asString())));
      return scratch;
    case FnPower: {
      Value exponentScratch;
      const Value& exponent = _arguments[0]->_evaluate(object, state, exponentScratch);
      if (!exponent.isNumber() && !exponent.isAbsent() && !exponent.isNull()) {
        state.fail(ZBPredicateTypeMismatchError,
                   [&] { return "“pow:” needs a number, got " + exponent.description(); });
        return ZBPredicateAbsentValue();
      }
      scratch = arithmetic(FnPower, receiver, exponent, state);
      return scratch;
    }
    default:
      return ZBPredicateAbsentValue();
  }
}
