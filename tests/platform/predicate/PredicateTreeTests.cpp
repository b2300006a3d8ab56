// Visiting and rewriting predicate trees, equality, and building trees by hand.

#include <gtest/gtest.h>

#include "platform/predicate/NSComparisonPredicate.h"
#include "platform/predicate/NSCompoundPredicate.h"
#include "platform/predicate/NSPredicate.h"

namespace {

NSPredicatePtr parse(std::string_view format, std::vector<Value> arguments = {}) {
  NSErrorPtr error;
  auto p = NSPredicate::predicateWithFormat(format, std::move(arguments), &error);
  EXPECT_TRUE(p) << format << ": " << (error ? error->localizedDescription() : "");
  return p;
}

bool isRelativeDateCondition(const NSPredicate& node) {
  auto* comparison = dynamic_cast<const NSComparisonPredicate*>(&node);
  return comparison && comparison->valueForExpressionType(NSExpressionType::KeyPath) == Value("relative_date");
}

}  // namespace

TEST(PredicateTree, VisitsEveryNodeInOrderAndStopsWhenAsked) {
  auto p = parse("(a == 1 OR NOT b == 2) AND relative_date < $7__days AND TRUEPREDICATE");
  std::vector<std::string> seen;
  p->visitPredicateTree([&](const NSPredicate& node, bool&) { seen.push_back(node.predicateFormat()); });
  ASSERT_EQ(seen.size(), 8u);
  EXPECT_EQ(seen[0], p->predicateFormat());
  EXPECT_EQ(seen[2], "a == 1 OR (NOT b == 2)");
  EXPECT_EQ(seen[3], "a == 1");
  EXPECT_EQ(seen[4], "NOT b == 2");
  EXPECT_EQ(seen[5], "b == 2");
  EXPECT_EQ(seen[6], "relative_date < $7__days");
  EXPECT_EQ(seen[7], "TRUEPREDICATE");

  int visited = 0;
  bool found = false;
  p->visitPredicateTree([&](const NSPredicate& node, bool& stop) {
    ++visited;
    if (isRelativeDateCondition(node)) found = stop = true;
  });
  EXPECT_TRUE(found);
  EXPECT_EQ(visited, 7);  // the node after the match is not visited

  bool any = false;
  parse("a == 1 AND b == 2")->visitPredicateTree([&](const NSPredicate& node, bool&) { any |= isRelativeDateCondition(node); });
  EXPECT_FALSE(any);
}

TEST(PredicateTree, MapReplacesRelativeDateConditionsAndSharesTheRest) {
  // The display-predicate rewrite: every comparison on the pseudo key
  // "relative_date" becomes "date >= D", whatever its operator.
  auto stored = parse("unread == YES AND (relative_date < $7__days OR NOT relative_date > $2__weeks)");
  NSDate cutoff(1000.0);
  auto mapped = stored->mapPredicateTree([&](const NSPredicatePtr& node) -> NSPredicatePtr {
    auto* comparison = dynamic_cast<const NSComparisonPredicate*>(node.get());
    if (!comparison || comparison->valueForExpressionType(NSExpressionType::KeyPath) != Value("relative_date"))
      return node;
    EXPECT_TRUE(comparison->valueForExpressionType(NSExpressionType::Variable) == Value("7__days") ||
                comparison->valueForExpressionType(NSExpressionType::Variable) == Value("2__weeks"));
    return NSPredicate::predicateWithFormat("%K >= %@", {"date", cutoff});
  });
  EXPECT_EQ(mapped->predicateFormat(),
            "unread == 1 AND (date >= CAST(1000.000000, \"NSDate\") OR (NOT date >= CAST(1000.000000, \"NSDate\")))");
  // The original is untouched; an untouched branch is the same object.
  EXPECT_EQ(stored->predicateFormat(), "unread == 1 AND (relative_date < $7__days OR (NOT relative_date > $2__weeks))");
  auto* before = dynamic_cast<const NSCompoundPredicate*>(stored.get());
  auto* after = dynamic_cast<const NSCompoundPredicate*>(mapped.get());
  ASSERT_TRUE(before && after);
  EXPECT_EQ(before->subpredicates()[0], after->subpredicates()[0]);
  EXPECT_NE(before->subpredicates()[1], after->subpredicates()[1]);
  EXPECT_TRUE(mapped->evaluateWithObject(Value(Dictionary{{"unread", true}, {"date", NSDate(2000.0)}})));
  EXPECT_FALSE(mapped->evaluateWithObject(Value(Dictionary{{"unread", false}, {"date", NSDate(2000.0)}})));

  // A mapper that changes nothing gives back the very same tree; nullptr keeps a node.
  EXPECT_EQ(stored->mapPredicateTree([](const NSPredicatePtr& node) { return node; }), stored);
  EXPECT_EQ(stored->mapPredicateTree([](const NSPredicatePtr&) -> NSPredicatePtr { return nullptr; }), stored);
  // Children are mapped before their parent sees them.
  std::vector<std::string> order;
  parse("a == 1 AND NOT b == 2")->mapPredicateTree([&](const NSPredicatePtr& node) -> NSPredicatePtr {
    order.push_back(node->predicateFormat());
    return node;
  });
  EXPECT_EQ(order, (std::vector<std::string>{"a == 1", "b == 2", "NOT b == 2", "a == 1 AND (NOT b == 2)"}));
  // A leaf-only tree maps through the mapper too.
  auto leaf = parse("relative_date < $3__days");
  auto replaced = leaf->mapPredicateTree([](const NSPredicatePtr&) { return NSPredicate::predicateWithValue(false); });
  EXPECT_EQ(replaced->predicateFormat(), "FALSEPREDICATE");
}

TEST(PredicateTree, ValueForExpressionTypeReadsEitherSide) {
  auto c = std::dynamic_pointer_cast<NSComparisonPredicate>(parse("$7__days > relative_date"));
  ASSERT_TRUE(c);
  EXPECT_EQ(c->valueForExpressionType(NSExpressionType::KeyPath), Value("relative_date"));
  EXPECT_EQ(c->valueForExpressionType(NSExpressionType::Variable), Value("7__days"));
  EXPECT_TRUE(c->valueForExpressionType(NSExpressionType::ConstantValue).isAbsent());
  auto k = std::dynamic_pointer_cast<NSComparisonPredicate>(parse("%K == %@", {"title", "x"}));
  EXPECT_EQ(k->valueForExpressionType(NSExpressionType::ConstantValue), Value("x"));
  EXPECT_EQ(k->valueForExpressionType(NSExpressionType::KeyPath), Value("title"));
  EXPECT_EQ(k->expressionForExpressionType(NSExpressionType::KeyPath), k->leftExpression());
  EXPECT_FALSE(k->expressionForExpressionType(NSExpressionType::Subquery));
  auto f = std::dynamic_pointer_cast<NSComparisonPredicate>(parse("now() > date"));
  EXPECT_EQ(f->valueForExpressionType(NSExpressionType::Function), Value("now"));
}

TEST(PredicateTree, HandBuiltTreesEqualParsedOnes) {
  auto left = NSExpression::expressionForKeyPath("title");
  auto right = NSExpression::expressionForConstantValue("Swift");
  auto built = NSCompoundPredicate::andPredicateWithSubpredicates(
      {NSComparisonPredicate::create(left, right, NSComparisonPredicateModifier::Direct,
                                     NSPredicateOperatorType::Contains,
                                     NSCaseInsensitivePredicateOption | NSDiacriticInsensitivePredicateOption),
       NSCompoundPredicate::notPredicateWithSubpredicate(NSComparisonPredicate::create(
           NSExpression::expressionForKeyPath("tags.title"), NSExpression::expressionForConstantValue("x"),
           NSComparisonPredicateModifier::Any, NSPredicateOperatorType::EqualTo))});
  auto parsed = parse("title CONTAINS[dc] 'Swift' AND NONE tags.title == 'x'");
  EXPECT_TRUE(built->isEqual(*parsed));
  EXPECT_EQ(built->hash(), parsed->hash());
  EXPECT_EQ(built->predicateFormat(), "title CONTAINS[cd] \"Swift\" AND (NOT ANY tags.title == \"x\")");

  // Anything that differs makes them unequal.
  const char* different[] = {
      "title CONTAINS[c] 'Swift' AND NONE tags.title == 'x'",
      "title CONTAINS[dc] 'swift' AND NONE tags.title == 'x'",
      "title BEGINSWITH[dc] 'Swift' AND NONE tags.title == 'x'",
      "title CONTAINS[dc] 'Swift' AND NOT ALL tags.title == 'x'",
      "title CONTAINS[dc] 'Swift' AND NOT tags.title == 'x'",
      "title CONTAINS[dc] 'Swift' OR NONE tags.title == 'x'",
      "name CONTAINS[dc] 'Swift' AND NONE tags.title == 'x'",
      "title CONTAINS[dc] $s AND NONE tags.title == 'x'",
      "NONE tags.title == 'x' AND title CONTAINS[dc] 'Swift'",
  };
  for (const char* format : different) EXPECT_FALSE(built->isEqual(*parse(format))) << format;
  // Numbers compare by value, as constants do.
  EXPECT_TRUE(parse("a == 1")->isEqual(*parse("a == 1.0")));
  EXPECT_TRUE(parse("a == YES")->isEqual(*parse("a == 1")));
  EXPECT_FALSE(parse("a == 1")->isEqual(*parse("a == '1'")));
  // FUNCTION's receiver is part of the tree: it is not the built-in of the same name.
  EXPECT_FALSE(parse("FUNCTION(a, 'length') == 1")->isEqual(*parse("FUNCTION(b, 'length') == 1")));
  EXPECT_FALSE(parse("FUNCTION(SELF, 'abs:', x) == 1")->isEqual(*parse("abs:(x) == 1")));
  EXPECT_TRUE(NSPredicate::predicateWithValue(true)->isEqual(*parse("TRUEPREDICATE")));
  EXPECT_FALSE(NSPredicate::predicateWithValue(true)->isEqual(*parse("FALSEPREDICATE")));

  // Null inputs to the factories do not make broken trees.
  auto nulls = NSComparisonPredicate::create(nullptr, nullptr, NSComparisonPredicateModifier::Direct,
                                             NSPredicateOperatorType::EqualTo);
  EXPECT_EQ(nulls->predicateFormat(), "nil == nil");
  EXPECT_TRUE(nulls->evaluateWithObject(Value()));
  EXPECT_EQ(NSCompoundPredicate::andPredicateWithSubpredicates({nullptr, parse("a == 1")})->subpredicates().size(), 1u);
  // A predicate is a value that can sit in a dictionary and compare there.
  Value stored = Dictionary{{"predicate", Value(parsed)}};
  EXPECT_EQ(stored, Value(Dictionary{{"predicate", Value(parse("title CONTAINS[cd] 'Swift' AND NONE tags.title == 'x'"))}}));
}
