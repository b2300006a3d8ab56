// Cost of the predicate layer, each against a baseline measured in the same
// iteration so that machine load weighs on both sides of the ratio:
//
//  - BM_ParseAndPrint: parse and print 10 000 distinct three-clause formats;
//    baseline: build the same trees through the factory functions and print
//    them (so the ratio is the price of reading the text).
//  - BM_Evaluate: evaluate "deleting == NO AND unread == YES AND title
//    CONTAINS[c] 'swift'" over 100 000 post dictionaries; baseline: a
//    hand-written lambda doing the same three tests. Target: ratio under 10.
//  - BM_EvaluateFolded: the same with [cd] on titles that are partly
//    non-ASCII, against a lambda that folds with the same helper.
//
// Counters: ratio_vs_baseline, and ns_per_item for the measured side.
//
//   build/<preset>/bench/predicates

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "platform/predicate/NSComparisonPredicate.h"
#include "platform/predicate/NSCompoundPredicate.h"
#include "platform/predicate/NSPredicate.h"
#include "platform/predicate/ZBStringFolding.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kFormats = 10000;
constexpr int kPosts = 100000;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

struct FormatCase {
  std::string format;
  std::string word;
  std::int64_t count;
  double date;
};

std::vector<FormatCase> makeFormats() {
  std::vector<FormatCase> cases;
  cases.reserve(kFormats);
  for (int i = 0; i < kFormats; ++i) {
    FormatCase c{{}, "word" + std::to_string(i), i % 17, 725760000.0 + i};
    c.format = "title CONTAINS[cd] '" + c.word + "' AND tags.@count > " + std::to_string(c.count) +
               " AND date >= CAST(" + std::to_string(static_cast<std::int64_t>(c.date)) + ", 'NSDate')";
    cases.push_back(std::move(c));
  }
  return cases;
}

NSPredicatePtr buildByHand(const FormatCase& c) {
  auto contains = NSComparisonPredicate::create(
      NSExpression::expressionForKeyPath("title"), NSExpression::expressionForConstantValue(c.word),
      NSComparisonPredicateModifier::Direct, NSPredicateOperatorType::Contains,
      NSCaseInsensitivePredicateOption | NSDiacriticInsensitivePredicateOption);
  auto count = NSComparisonPredicate::create(
      NSExpression::expressionForKeyPath("tags.@count"), NSExpression::expressionForConstantValue(c.count),
      NSComparisonPredicateModifier::Direct, NSPredicateOperatorType::GreaterThan);
  auto date = NSComparisonPredicate::create(
      NSExpression::expressionForKeyPath("date"), NSExpression::expressionForConstantValue(NSDate(c.date)),
      NSComparisonPredicateModifier::Direct, NSPredicateOperatorType::GreaterThanOrEqualTo);
  return NSCompoundPredicate::andPredicateWithSubpredicates(
      {NSCompoundPredicate::andPredicateWithSubpredicates({contains, count}), date});
}

void BM_ParseAndPrint(benchmark::State& state) {
  const auto cases = makeFormats();
  double measured = 0, baseline = 0;
  std::size_t bytes = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    for (const FormatCase& c : cases) {
      std::string text = buildByHand(c)->predicateFormat();
      bytes += text.size();
    }
    baseline += secondsSince(start);

    start = Clock::now();
    for (const FormatCase& c : cases) {
      auto p = NSPredicate::predicateWithFormat(c.format);
      if (!p) state.SkipWithError("a benchmark format failed to parse");
      std::string text = p->predicateFormat();
      bytes += text.size();
    }
    measured += secondsSince(start);
  }
  benchmark::DoNotOptimize(bytes);
  state.counters["ratio_vs_baseline"] = measured / baseline;
  state.counters["ns_per_item"] = measured * 1e9 / kFormats / static_cast<double>(state.iterations());
}

// Post dictionaries shaped like the client's: a dozen keys, a tag set.
std::vector<Value> makePosts(bool accented) {
  std::mt19937 random(7);
  const char* words[] = {"Swift", "Rust", "Notes", "Café", "Tips", "Über", "swiftly", "Guide", "Ñandú", "Linux"};
  std::vector<Value> posts;
  posts.reserve(kPosts);
  for (int i = 0; i < kPosts; ++i) {
    std::string title;
    for (int w = 0; w < 4; ++w) {
      if (w) title += ' ';
      const char* word = words[random() % std::size(words)];
      title += accented ? word : (std::strcmp(word, "Café") == 0 ? "Cafe" : word);
    }
    if (!accented) {
      for (std::size_t k = 0; k < title.size(); ++k)
        if (static_cast<unsigned char>(title[k]) >= 0x80) title[k] = 'x';
    }
    posts.push_back(Value(Dictionary{
        {"identifier", "id" + std::to_string(i)},
        {"meta", "m" + std::to_string(random())},
        {"url", "https://example.com/" + std::to_string(i)},
        {"title", title},
        {"desc", "A description long enough to be realistic for a bookmark."},
        {"date", NSDate(700000000.0 + i)},
        {"shared", random() % 2 == 0},
        {"unread", random() % 3 == 0},
        {"starred", false},
        {"dead", false},
        {"deleting", random() % 50 == 0},
        {"dirty", false},
        {"tags", Set{"a", "b"}},
    }));
  }
  return posts;
}

bool asciiContainsIgnoringCase(std::string_view haystack, std::string_view needle) {
  if (needle.empty() || needle.size() > haystack.size()) return false;
  for (std::size_t i = 0; i + needle.size() <= haystack.size(); ++i) {
    std::size_t k = 0;
    while (k < needle.size() && std::tolower(static_cast<unsigned char>(haystack[i + k])) == needle[k]) ++k;
    if (k == needle.size()) return true;
  }
  return false;
}

template <class Baseline>
void runEvaluation(benchmark::State& state, const char* format, bool accented, Baseline&& baselineTest) {
  const auto posts = makePosts(accented);
  auto predicate = NSPredicate::predicateWithFormat(format);
  if (!predicate) {
    state.SkipWithError("format failed to parse");
    return;
  }
  double measured = 0, baseline = 0;
  std::size_t matches = 0, expected = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    for (const Value& post : posts) expected += baselineTest(post);
    baseline += secondsSince(start);

    start = Clock::now();
    for (const Value& post : posts) matches += predicate->evaluateWithObject(post);
    measured += secondsSince(start);
  }
  if (matches != expected) state.SkipWithError("predicate and baseline disagree");
  state.counters["ratio_vs_baseline"] = measured / baseline;
  state.counters["ns_per_item"] = measured * 1e9 / kPosts / static_cast<double>(state.iterations());
  state.counters["matches"] = static_cast<double>(matches) / static_cast<double>(state.iterations());
}

void BM_Evaluate(benchmark::State& state) {
  runEvaluation(state, "deleting == NO AND unread == YES AND title CONTAINS[c] 'swift'", false, [](const Value& post) {
    const Dictionary& d = post.asDictionary();
    return !d["deleting"].boolValue() && d["unread"].boolValue() &&
           asciiContainsIgnoringCase(d["title"].asString(), "swift");
  });
}

void BM_EvaluateFolded(benchmark::State& state) {
  runEvaluation(state, "deleting == NO AND unread == YES AND title CONTAINS[cd] 'cafe'", true, [](const Value& post) {
    const Dictionary& d = post.asDictionary();
    if (d["deleting"].boolValue() || !d["unread"].boolValue()) return false;
    thread_local std::string folded;
    ZBFoldStringInto(d["title"].asString(), true, true, folded);
    return folded.find("cafe") != std::string::npos;
  });
}

}  // namespace

BENCHMARK(BM_ParseAndPrint)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Evaluate)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EvaluateFolded)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
