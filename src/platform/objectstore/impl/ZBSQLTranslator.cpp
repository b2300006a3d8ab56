// Predicate → SQL. Every value is bound as a parameter; the SQL text holds
// only quoted identifiers, operators and the names of our own functions.
//
// The translation keeps in-memory semantics: a comparison with a missing
// value is false (SQL's NULL), except "!= value", which is true for a missing
// value as in memory, and NOT wraps its operand in IFNULL(…, 0) so that NULL
// does not leak through negation. Anything that cannot be expressed exactly
// makes the whole translation fail, and the caller evaluates in memory.

#include <cstring>
#include <functional>

#include "platform/objectstore/NSManagedObject.h"
#include "platform/objectstore/NSSortDescriptor.h"
#include "platform/objectstore/impl/ZBFetchPlanner.h"
#include "platform/predicate/NSComparisonPredicate.h"
#include "platform/predicate/NSCompoundPredicate.h"
#include "platform/predicate/ZBStringFolding.h"

namespace {

enum class Kind { Number, String, Date, Data, Other };

Kind kindOf(NSAttributeType type) {
  switch (type) {
    case NSAttributeType::Integer16:
    case NSAttributeType::Integer32:
    case NSAttributeType::Integer64:
    case NSAttributeType::Double:
    case NSAttributeType::Boolean: return Kind::Number;
    case NSAttributeType::String: return Kind::String;
    case NSAttributeType::Date: return Kind::Date;
    case NSAttributeType::Binary: return Kind::Data;
    case NSAttributeType::Transformable: return Kind::Other;
  }
  return Kind::Other;
}

bool valueFits(Kind kind, const Value& value) {
  switch (kind) {
    case Kind::Number: return value.isNumber();
    case Kind::String: return value.isString();
    case Kind::Date: return value.isDate();
    case Kind::Data: return value.isData();
    case Kind::Other: return false;
  }
  return false;
}

// A column-like SQL expression with the kind of its values.
struct Operand {
  std::string sql;
  Kind kind = Kind::Other;
  bool isObjectReference = false;  // holds a Z_PK (to-one relationship, SELF)
};

// The primary key an object constant stands for: > 0 stored, 0 never stored
// (it matches no row), nullopt when the value is not an object.
std::optional<std::int64_t> objectKey(const Value& value) {
  if (auto object = value.as<NSManagedObject>()) return object->objectID()->primaryKey();
  if (auto objectID = value.as<NSManagedObjectID>()) return objectID->primaryKey();
  return std::nullopt;
}

int foldFlags(NSComparisonPredicateOptions options) {
  if (options & NSNormalizedPredicateOption) return 0;
  int flags = 0;
  if (options & NSCaseInsensitivePredicateOption) flags |= 1;
  if (options & NSDiacriticInsensitivePredicateOption) flags |= 2;
  return flags;
}

NSPredicateOperatorType mirrored(NSPredicateOperatorType op) {
  switch (op) {
    case NSPredicateOperatorType::LessThan: return NSPredicateOperatorType::GreaterThan;
    case NSPredicateOperatorType::LessThanOrEqualTo: return NSPredicateOperatorType::GreaterThanOrEqualTo;
    case NSPredicateOperatorType::GreaterThan: return NSPredicateOperatorType::LessThan;
    case NSPredicateOperatorType::GreaterThanOrEqualTo: return NSPredicateOperatorType::LessThanOrEqualTo;
    default: return op;
  }
}

class Translator {
public:
  Translator(const ZBSQLiteStore& store, std::vector<Value>* parameters) : _store(store), _parameters(parameters) {}

  bool predicate(const NSPredicate& node, const ZBEntityLayout& layout, const std::string& alias, std::string* out) {
    if (dynamic_cast<const NSTruePredicate*>(&node)) {
      *out = "1";
      return true;
    }
    if (dynamic_cast<const NSFalsePredicate*>(&node)) {
      *out = "0";
      return true;
    }
    if (auto* compound = dynamic_cast<const NSCompoundPredicate*>(&node)) return this->compound(*compound, layout, alias, out);
    if (auto* comparison = dynamic_cast<const NSComparisonPredicate*>(&node)) {
      return this->comparison(*comparison, layout, alias, out);
    }
    return false;
  }

private:
  bool compound(const NSCompoundPredicate& node, const ZBEntityLayout& layout, const std::string& alias,
                std::string* out) {
    auto& subs = node.subpredicates();
    if (node.compoundPredicateType() == NSCompoundPredicateType::Not) {
      if (subs.size() != 1) return false;
      std::string inner;
      if (!predicate(*subs[0], layout, alias, &inner)) return false;
      *out = "NOT IFNULL((" + inner + "), 0)";
      return true;
    }
    bool isAnd = node.compoundPredicateType() == NSCompoundPredicateType::And;
    if (subs.empty()) {
      *out = isAnd ? "1" : "0";
      return true;
    }
    std::string sql = "(";
    for (std::size_t i = 0; i < subs.size(); ++i) {
      std::string inner;
      if (!predicate(*subs[i], layout, alias, &inner)) return false;
      if (i) sql += isAnd ? " AND " : " OR ";
      sql += "(" + inner + ")";
    }
    *out = sql + ")";
    return true;
  }

  std::string bind(Value value) {
    _parameters->push_back(std::move(value));
    return "?";
  }

  // Resolves a key path on the entity of layout into a scalar operand. Follows
  // to-one relationships held in a foreign key column; "rel.@count" of a
  // to-many relationship becomes a count subquery, "attr.length" of a string
  // attribute its length in UTF-16 code units.
  bool scalar(const std::string& keyPath, const ZBEntityLayout& layout, const std::string& alias, Operand* operand) {
    auto dot = keyPath.find('.');
    std::string head = keyPath.substr(0, dot);
    std::string rest = dot == std::string::npos ? std::string() : keyPath.substr(dot + 1);
    auto& entity = *layout.entity;
    if (auto* attribute = entity.attributeNamed(head)) {
      operand->sql = alias + "." + layout.attributeColumns[attribute->index()];
      operand->kind = kindOf(attribute->attributeType());
      if (rest.empty()) return true;
      if (rest != "length" || operand->kind != Kind::String) return false;
      operand->sql = "zb_utf16_length(" + operand->sql + ")";
      operand->kind = Kind::Number;
      return true;
    }
    auto* relationship = entity.relationshipNamed(head);
    if (!relationship) return false;
    auto& r = layout.relationships[relationship->index()];
    auto* destination = _store.layout(r.destination.get());
    if (!destination) return false;
    if (relationship->isToMany()) {
      if (rest != "@count") return false;
      operand->sql = "(SELECT COUNT(*) " + membershipFrom(r, alias, nextAlias()) + ")";
      operand->kind = Kind::Number;
      return true;
    }
    if (r.kind != ZBRelationshipLayout::Kind::ForeignKey) return false;
    if (rest.empty()) {
      operand->sql = alias + "." + r.column;
      operand->isObjectReference = true;
      return true;
    }
    std::string inner = nextAlias();
    Operand nested;
    if (!scalar(rest, *destination, inner, &nested) || nested.isObjectReference) return false;
    operand->sql = "(SELECT " + nested.sql + " FROM " + destination->table + " " + inner + " WHERE " + inner +
                   ".\"Z_PK\" = " + alias + "." + r.column + ")";
    operand->kind = nested.kind;
    return true;
  }

  // "alias.Z_PK IN (…)": the rows of alias's table with a member of the
  // to-many relationship r (aliased inner) for which test holds; negated,
  // the rows with a member for which it fails (or is NULL), for ALL. An
  // uncorrelated subquery is computed once, through the destination's
  // indexes, instead of once per row of alias's table.
  std::string owners(const ZBRelationshipLayout& r, const std::string& alias, const std::string& inner,
                     const std::string& test, bool negated) {
    std::string owner, from;
    if (r.kind == ZBRelationshipLayout::Kind::JoinTable) {
      std::string join = inner + "j";
      owner = join + "." + r.selfColumn;
      from = "FROM " + r.joinTable + " " + join + " JOIN " + r.destinationTable + " " + inner + " ON " + inner +
             ".\"Z_PK\" = " + join + "." + r.otherColumn;
    } else {
      owner = inner + "." + r.column;
      from = "FROM " + r.destinationTable + " " + inner;
    }
    std::string condition = negated ? "NOT IFNULL((" + test + "), 0)" : "(" + test + ")";
    return alias + ".\"Z_PK\" " + (negated ? "NOT IN" : "IN") + " (SELECT " + owner + " " + from + " WHERE " +
           owner + " IS NOT NULL AND " + condition + ")";
  }

  // Only the join table is needed to test for members or count them.
  std::string membershipFrom(const ZBRelationshipLayout& r, const std::string& alias, const std::string& inner) {
    if (r.kind == ZBRelationshipLayout::Kind::JoinTable) {
      return "FROM " + r.joinTable + " " + inner + " WHERE " + inner + "." + r.selfColumn + " = " + alias + ".\"Z_PK\"";
    }
    return "FROM " + r.destinationTable + " " + inner + " WHERE " + inner + "." + r.column + " = " + alias + ".\"Z_PK\"";
  }

  std::string nextAlias() { return "t" + std::to_string(++_aliases); }

  // Splits "rel.rest" where rel is a to-many relationship of layout.
  bool toManyPath(const std::string& keyPath, const ZBEntityLayout& layout, const ZBRelationshipLayout** r,
                  std::string* rest) {
    auto dot = keyPath.find('.');
    if (dot == std::string::npos) return false;
    auto* relationship = layout.entity->relationshipNamed(keyPath.substr(0, dot));
    if (!relationship || !relationship->isToMany()) return false;
    *r = &layout.relationships[relationship->index()];
    *rest = keyPath.substr(dot + 1);
    return !rest->empty() && rest->front() != '@';
  }

  bool comparison(const NSComparisonPredicate& node, const ZBEntityLayout& layout, const std::string& alias,
                  std::string* out) {
    auto op = node.predicateOperatorType();
    auto& left = *node.leftExpression();
    auto& right = *node.rightExpression();
    auto modifier = node.comparisonPredicateModifier();

    if (modifier != NSComparisonPredicateModifier::Direct) {
      // ANY / ALL over a to-many relationship: a subquery over its members.
      if (left.expressionType() != NSExpressionType::KeyPath || right.expressionType() != NSExpressionType::ConstantValue) {
        return false;
      }
      const ZBRelationshipLayout* r = nullptr;
      std::string rest;
      if (!toManyPath(left.keyPath(), layout, &r, &rest)) return false;
      auto* destination = _store.layout(r->destination.get());
      if (!destination) return false;
      std::string inner = nextAlias();
      Operand member;
      if (!scalar(rest, *destination, inner, &member)) return false;
      std::string test;
      if (!compare(member, op, node.options(), right.constantValue(), &test)) return false;
      *out = owners(*r, alias, inner, test, modifier != NSComparisonPredicateModifier::Any);
      return true;
    }

    // "value IN rel.attr" and "rel.attr CONTAINS value": membership, as ANY ==.
    if ((op == NSPredicateOperatorType::In && right.expressionType() == NSExpressionType::KeyPath &&
         left.expressionType() == NSExpressionType::ConstantValue) ||
        (op == NSPredicateOperatorType::Contains && left.expressionType() == NSExpressionType::KeyPath &&
         right.expressionType() == NSExpressionType::ConstantValue)) {
      auto& path = op == NSPredicateOperatorType::In ? right : left;
      auto& constant = op == NSPredicateOperatorType::In ? left : right;
      const ZBRelationshipLayout* r = nullptr;
      std::string rest;
      if (toManyPath(path.keyPath(), layout, &r, &rest)) {
        auto* destination = _store.layout(r->destination.get());
        if (!destination) return false;
        std::string inner = nextAlias();
        Operand member;
        if (!scalar(rest, *destination, inner, &member)) return false;
        if (constant.constantValue().isAbsent() || constant.constantValue().isNull()) {
          *out = "0";
          return true;
        }
        std::string test;
        if (!compare(member, NSPredicateOperatorType::EqualTo, node.options(), constant.constantValue(), &test)) {
          return false;
        }
        *out = owners(*r, alias, inner, test, false);
        return true;
      }
    }

    // "rel.@count == 0" and its opposites test for any member at all, which
    // stops at the first one instead of counting them all.
    if (left.expressionType() == NSExpressionType::KeyPath && right.expressionType() == NSExpressionType::ConstantValue &&
        right.constantValue().isNumber() && right.constantValue().doubleValue() == 0) {
      auto& path = left.keyPath();
      auto dot = path.find('.');
      auto* relationship = dot == std::string::npos ? nullptr : layout.entity->relationshipNamed(path.substr(0, dot));
      if (relationship && relationship->isToMany() && path.substr(dot + 1) == "@count") {
        auto& r = layout.relationships[relationship->index()];
        std::string exists = "EXISTS (SELECT 1 " + membershipFrom(r, alias, nextAlias()) + ")";
        switch (op) {
          case NSPredicateOperatorType::EqualTo:
          case NSPredicateOperatorType::LessThanOrEqualTo: *out = "NOT " + exists; return true;
          case NSPredicateOperatorType::NotEqualTo:
          case NSPredicateOperatorType::GreaterThan: *out = exists; return true;
          default: break;
        }
      }
    }

    // SELF compared with objects.
    if (left.expressionType() == NSExpressionType::EvaluatedObject ||
        right.expressionType() == NSExpressionType::EvaluatedObject) {
      auto& other = left.expressionType() == NSExpressionType::EvaluatedObject ? right : left;
      if (other.expressionType() != NSExpressionType::ConstantValue) return false;
      Operand self{alias + ".\"Z_PK\"", Kind::Other, true};
      return compare(self, op, node.options(), other.constantValue(), out);
    }

    if (left.expressionType() == NSExpressionType::KeyPath && right.expressionType() == NSExpressionType::ConstantValue) {
      Operand operand;
      if (!scalar(left.keyPath(), layout, alias, &operand)) return false;
      return compare(operand, op, node.options(), right.constantValue(), out);
    }
    if (right.expressionType() == NSExpressionType::KeyPath && left.expressionType() == NSExpressionType::ConstantValue) {
      Operand operand;
      if (!scalar(right.keyPath(), layout, alias, &operand)) return false;
      switch (op) {
        case NSPredicateOperatorType::EqualTo:
        case NSPredicateOperatorType::NotEqualTo:
        case NSPredicateOperatorType::LessThan:
        case NSPredicateOperatorType::LessThanOrEqualTo:
        case NSPredicateOperatorType::GreaterThan:
        case NSPredicateOperatorType::GreaterThanOrEqualTo:
          return compare(operand, mirrored(op), node.options(), left.constantValue(), out);
        case NSPredicateOperatorType::In:
          // "constant IN attribute": the constant is a substring of it.
          if (operand.kind != Kind::String || !left.constantValue().isString()) return false;
          return stringFunction("zb_contains", operand, node.options(), left.constantValue(), out);
        default: return false;
      }
    }
    if (left.expressionType() == NSExpressionType::KeyPath && right.expressionType() == NSExpressionType::KeyPath &&
        node.options() == 0 &&
        (op == NSPredicateOperatorType::EqualTo || op == NSPredicateOperatorType::NotEqualTo)) {
      Operand a, b;
      if (!scalar(left.keyPath(), layout, alias, &a) || !scalar(right.keyPath(), layout, alias, &b)) return false;
      if (a.kind != b.kind || a.isObjectReference != b.isObjectReference) return false;
      *out = a.sql + (op == NSPredicateOperatorType::EqualTo ? " IS " : " IS NOT ") + b.sql;
      return true;
    }
    return false;
  }

  bool stringFunction(const char* function, const Operand& operand, NSComparisonPredicateOptions options,
                      const Value& constant, std::string* out) {
    *out = std::string(function) + "(" + operand.sql + ", " + bind(constant) + ", " +
           std::to_string(foldFlags(options)) + ")";
    return true;
  }

  // operand OP constant.
  bool compare(const Operand& operand, NSPredicateOperatorType op, NSComparisonPredicateOptions options,
               const Value& constant, std::string* out) {
    bool missing = constant.isAbsent() || constant.isNull();
    int flags = foldFlags(options);
    // Archived values compare as objects: only memory can do that.
    if (operand.kind == Kind::Other && !operand.isObjectReference) return false;

    if (operand.isObjectReference) {
      auto keyFor = [](const Value& v) { return objectKey(v); };
      switch (op) {
        case NSPredicateOperatorType::EqualTo:
        case NSPredicateOperatorType::NotEqualTo: {
          bool equal = op == NSPredicateOperatorType::EqualTo;
          if (missing) {
            *out = operand.sql + (equal ? " IS NULL" : " IS NOT NULL");
            return true;
          }
          auto key = keyFor(constant);
          if (!key) {
            *out = equal ? "0" : "1";
            return true;
          }
          *out = operand.sql + (equal ? " = " : " IS NOT ") + bind(Value(*key));
          return true;
        }
        case NSPredicateOperatorType::In: {
          if (!constant.isCollection()) return false;
          std::string list;
          for (auto& element : constant.collectionElements()) {
            auto key = keyFor(element);
            if (!key) continue;
            if (!list.empty()) list += ", ";
            list += bind(Value(*key));
          }
          *out = list.empty() ? "0" : operand.sql + " IN (" + list + ")";
          return true;
        }
        default: return false;
      }
    }

    auto sqlOperator = [](NSPredicateOperatorType o) -> const char* {
      switch (o) {
        case NSPredicateOperatorType::EqualTo: return " = ";
        case NSPredicateOperatorType::LessThan: return " < ";
        case NSPredicateOperatorType::LessThanOrEqualTo: return " <= ";
        case NSPredicateOperatorType::GreaterThan: return " > ";
        case NSPredicateOperatorType::GreaterThanOrEqualTo: return " >= ";
        default: return nullptr;
      }
    };
    bool folding = flags != 0 && operand.kind == Kind::String;
    std::string column = folding ? "zb_fold(" + operand.sql + ", " + std::to_string(flags) + ")" : operand.sql;
    auto folded = [&](const Value& v) -> Value {
      return folding && v.isString() ? Value(ZBFoldString(v.asString(), flags & 1, flags & 2)) : v;
    };

    switch (op) {
      case NSPredicateOperatorType::EqualTo:
      case NSPredicateOperatorType::NotEqualTo: {
        bool equal = op == NSPredicateOperatorType::EqualTo;
        if (missing) {
          *out = operand.sql + (equal ? " IS NULL" : " IS NOT NULL");
          return true;
        }
        if (!valueFits(operand.kind, constant)) {
          // A string never equals a number, and so on.
          *out = equal ? "0" : "1";
          return true;
        }
        *out = column + (equal ? " = " : " IS NOT ") + bind(folded(constant));
        return true;
      }
      case NSPredicateOperatorType::LessThan:
      case NSPredicateOperatorType::LessThanOrEqualTo:
      case NSPredicateOperatorType::GreaterThan:
      case NSPredicateOperatorType::GreaterThanOrEqualTo: {
        if (missing) {
          // Only nil <= nil and nil >= nil hold.
          bool inclusive = op == NSPredicateOperatorType::LessThanOrEqualTo || op == NSPredicateOperatorType::GreaterThanOrEqualTo;
          *out = inclusive ? operand.sql + " IS NULL" : "0";
          return true;
        }
        if (!valueFits(operand.kind, constant) || operand.kind == Kind::Data) return false;
        *out = column + sqlOperator(op) + bind(folded(constant));
        return true;
      }
      case NSPredicateOperatorType::Between: {
        if (!constant.isCollection() || constant.count() != 2 || flags) return false;
        auto bounds = constant.collectionElements();
        if (!valueFits(operand.kind, bounds[0]) || !valueFits(operand.kind, bounds[1])) return false;
        // Bind in order: the placeholders are positional.
        std::string low = bind(bounds[0]);
        std::string high = bind(bounds[1]);
        *out = operand.sql + " BETWEEN " + low + " AND " + high;
        return true;
      }
      case NSPredicateOperatorType::In: {
        if (missing) {
          *out = "0";
          return true;
        }
        if (constant.isString()) {
          // "attribute IN string": the attribute is a substring of it.
          if (operand.kind != Kind::String) return false;
          *out = "zb_contains(" + bind(constant) + ", " + operand.sql + ", " + std::to_string(flags) + ")";
          return true;
        }
        if (!constant.isCollection()) return false;
        std::string list;
        for (auto& element : constant.collectionElements()) {
          if (!valueFits(operand.kind, element)) {
            if (element.isAbsent() || element.isNull() || element.isNumber() || element.isString() ||
                element.isDate() || element.isData()) {
              continue;  // can never be equal
            }
            return false;
          }
          if (!list.empty()) list += ", ";
          list += bind(folded(element));
        }
        *out = list.empty() ? "0" : column + " IN (" + list + ")";
        return true;
      }
      case NSPredicateOperatorType::BeginsWith:
      case NSPredicateOperatorType::EndsWith:
      case NSPredicateOperatorType::Contains:
      case NSPredicateOperatorType::Like:
      case NSPredicateOperatorType::Matches: {
        if (missing) {
          *out = "0";
          return true;
        }
        if (operand.kind != Kind::String || !constant.isString()) return false;
        const char* function = op == NSPredicateOperatorType::BeginsWith ? "zb_beginswith"
                               : op == NSPredicateOperatorType::EndsWith ? "zb_endswith"
                               : op == NSPredicateOperatorType::Contains ? "zb_contains"
                               : op == NSPredicateOperatorType::Like     ? "zb_like"
                                                                         : "zb_matches";
        std::string range;
        if (op == NSPredicateOperatorType::BeginsWith && flags == 0 && operand.sql.front() != '(') {
          // A literal prefix is also a range of the column's binary order,
          // which lets an index on the column find the candidates.
          std::string low = constant.asString();
          std::string high = low;
          while (!high.empty() && static_cast<unsigned char>(high.back()) == 0xFF) high.pop_back();
          if (!low.empty() && !high.empty()) {
            high.back() = static_cast<char>(static_cast<unsigned char>(high.back()) + 1);
            // Parameters are bound in the order they are made: SQL order.
            range = operand.sql + " >= " + bind(Value(low));
            range += " AND " + operand.sql + " < " + bind(Value(high)) + " AND ";
          }
        }
        std::string test;
        if (!stringFunction(function, operand, options, constant, &test)) return false;
        *out = range.empty() ? test : "(" + range + test + ")";
        return true;
      }
    }
    return false;
  }

  const ZBSQLiteStore& _store;
  std::vector<Value>* _parameters;
  int _aliases = 0;
};

// --- SQL functions ---

bool textArgument(sqlite3_value* value, std::string_view* text) {
  if (sqlite3_value_type(value) == SQLITE_NULL) return false;
  auto* bytes = reinterpret_cast<const char*>(sqlite3_value_text(value));
  *text = std::string_view(bytes ? bytes : "", static_cast<std::size_t>(sqlite3_value_bytes(value)));
  return true;
}

void utf16LengthFunction(sqlite3_context* context, int, sqlite3_value** argv) {
  std::string_view text;
  if (!textArgument(argv[0], &text)) {
    sqlite3_result_null(context);
    return;
  }
  sqlite3_result_int64(context, static_cast<sqlite3_int64>(ZBStringUTF16Length(text)));
}

void foldFunction(sqlite3_context* context, int, sqlite3_value** argv) {
  std::string_view text;
  if (!textArgument(argv[0], &text)) {
    sqlite3_result_null(context);
    return;
  }
  int flags = sqlite3_value_int(argv[1]);
  std::string folded = ZBFoldString(text, flags & 1, flags & 2);
  sqlite3_result_text(context, folded.data(), static_cast<int>(folded.size()), SQLITE_TRANSIENT);
}

template <class Test>
void substringFunction(sqlite3_context* context, sqlite3_value** argv, Test test) {
  std::string_view text, needle;
  if (!textArgument(argv[0], &text) || !textArgument(argv[1], &needle)) {
    sqlite3_result_null(context);
    return;
  }
  if (needle.empty()) {
    sqlite3_result_int(context, 0);
    return;
  }
  int flags = sqlite3_value_int(argv[2]);
  if (flags) {
    std::string a = ZBFoldString(text, flags & 1, flags & 2);
    std::string b = ZBFoldString(needle, flags & 1, flags & 2);
    sqlite3_result_int(context, test(std::string_view(a), std::string_view(b)) ? 1 : 0);
  } else {
    sqlite3_result_int(context, test(text, needle) ? 1 : 0);
  }
}

void beginsWithFunction(sqlite3_context* context, int, sqlite3_value** argv) {
  substringFunction(context, argv, [](std::string_view a, std::string_view b) { return a.substr(0, b.size()) == b; });
}

void endsWithFunction(sqlite3_context* context, int, sqlite3_value** argv) {
  substringFunction(context, argv, [](std::string_view a, std::string_view b) {
    return a.size() >= b.size() && a.substr(a.size() - b.size()) == b;
  });
}

void containsFunction(sqlite3_context* context, int, sqlite3_value** argv) {
  substringFunction(context, argv, [](std::string_view a, std::string_view b) { return a.find(b) != std::string_view::npos; });
}

// The compiled pattern is kept with the statement for as long as the
// pattern argument stays the same (SQLite's auxiliary data).
void likeFunction(sqlite3_context* context, int, sqlite3_value** argv) {
  std::string_view text, pattern;
  if (!textArgument(argv[0], &text) || !textArgument(argv[1], &pattern)) {
    sqlite3_result_null(context);
    return;
  }
  if (auto* cached = static_cast<ZBLikePattern*>(sqlite3_get_auxdata(context, 1))) {
    sqlite3_result_int(context, cached->matches(text) ? 1 : 0);
    return;
  }
  int flags = sqlite3_value_int(argv[2]);
  auto compiled = std::make_unique<ZBLikePattern>(pattern, flags & 1, flags & 2);
  sqlite3_result_int(context, compiled->matches(text) ? 1 : 0);
  // SQLite owns it from here (and may free it at once).
  sqlite3_set_auxdata(context, 1, compiled.release(), [](void* p) { delete static_cast<ZBLikePattern*>(p); });
}

struct RegexHolder {
  std::shared_ptr<const ZBRegex> regex;  // null for an invalid pattern: matches nothing
};

void matchesFunction(sqlite3_context* context, int, sqlite3_value** argv) {
  std::string_view text, pattern;
  if (!textArgument(argv[0], &text) || !textArgument(argv[1], &pattern)) {
    sqlite3_result_null(context);
    return;
  }
  if (auto* cached = static_cast<RegexHolder*>(sqlite3_get_auxdata(context, 1))) {
    sqlite3_result_int(context, cached->regex && cached->regex->matches(text) ? 1 : 0);
    return;
  }
  int flags = sqlite3_value_int(argv[2]);
  auto holder = std::make_unique<RegexHolder>(RegexHolder{ZBRegex::create(pattern, flags & 1, flags & 2)});
  sqlite3_result_int(context, holder->regex && holder->regex->matches(text) ? 1 : 0);
  sqlite3_set_auxdata(context, 1, holder.release(), [](void* p) { delete static_cast<RegexHolder*>(p); });
}

int collate(NSSortComparison comparison, int lengthA, const void* a, int lengthB, const void* b) {
  return ZBCompareStrings(std::string_view(static_cast<const char*>(a), static_cast<std::size_t>(lengthA)),
                          std::string_view(static_cast<const char*>(b), static_cast<std::size_t>(lengthB)), comparison);
}

}  // namespace

bool ZBTranslatePredicate(const NSPredicate& predicate, const ZBSQLiteStore& store, const ZBEntityLayout& layout,
                          std::string* sql, std::vector<Value>* parameters) {
  std::vector<Value> bound;
  std::string text;
  Translator translator(store, &bound);
  if (!translator.predicate(predicate, layout, "t0", &text)) return false;
  *sql = std::move(text);
  *parameters = std::move(bound);
  return true;
}

void ZBRegisterSQLFunctions(sqlite3* db) {
  const int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
  sqlite3_create_function_v2(db, "zb_fold", 2, flags, nullptr, foldFunction, nullptr, nullptr, nullptr);
  sqlite3_create_function_v2(db, "zb_utf16_length", 1, flags, nullptr, utf16LengthFunction, nullptr, nullptr, nullptr);
  sqlite3_create_function_v2(db, "zb_beginswith", 3, flags, nullptr, beginsWithFunction, nullptr, nullptr, nullptr);
  sqlite3_create_function_v2(db, "zb_endswith", 3, flags, nullptr, endsWithFunction, nullptr, nullptr, nullptr);
  sqlite3_create_function_v2(db, "zb_contains", 3, flags, nullptr, containsFunction, nullptr, nullptr, nullptr);
  sqlite3_create_function_v2(db, "zb_like", 3, flags, nullptr, likeFunction, nullptr, nullptr, nullptr);
  sqlite3_create_function_v2(db, "zb_matches", 3, flags, nullptr, matchesFunction, nullptr, nullptr, nullptr);
  sqlite3_create_collation_v2(db, "ZB_CASE_INSENSITIVE", SQLITE_UTF8, nullptr,
                              [](void*, int la, const void* a, int lb, const void* b) {
                                return collate(NSSortComparison::CaseInsensitiveCompare, la, a, lb, b);
                              },
                              nullptr);
  sqlite3_create_collation_v2(db, "ZB_LOCALIZED", SQLITE_UTF8, nullptr,
                              [](void*, int la, const void* a, int lb, const void* b) {
                                return collate(NSSortComparison::LocalizedCaseInsensitiveCompare, la, a, lb, b);
                              },
                              nullptr);
  sqlite3_create_collation_v2(db, "ZB_LOCALIZED_STANDARD", SQLITE_UTF8, nullptr,
                              [](void*, int la, const void* a, int lb, const void* b) {
                                return collate(NSSortComparison::LocalizedStandardCompare, la, a, lb, b);
                              },
                              nullptr);
}
