#include <gtest/gtest.h>

#include <set>

#include "ObjectStoreTestSupport.h"
#include "platform/objectstore/impl/ZBFetchPlanner.h"

namespace {

struct Seeded {
  TestStore stack;
  std::shared_ptr<NSManagedObject> firstPost;
  std::shared_ptr<NSManagedObject> secondPost;
};

void seed(Seeded& seeded) {
  auto context = seeded.stack.newContext();
  const std::vector<Value> titles{Value("Swift tips"), Value("swift"), Value("Café"), Value("CAFÉ"), Value("cafe"),
                                  Value("naïve approach"), Value("O'Brien\"; DROP TABLE Post; --"), Value("100%_*"),
                                  Value(""), Value(), Value("Zebra 42"), Value("m"), Value("ß-Straße"),
                                  Value("Tea \U0001F375")};
  const std::vector<std::vector<std::string>> tagSets{{}, {"swift"}, {"swift", "ios"}, {"SWIFT"}, {"cooking", "café"},
                                                      {"sa", "sb"}};
  auto inbox = context->insertNewObjectForEntityForName("Folder");
  inbox->setValueForKey(Value("Inbox"), "name");
  auto archive = context->insertNewObjectForEntityForName("Folder");
  for (int i = 0; i < 52; ++i) {
    auto& tags = tagSets[static_cast<std::size_t>(i) % tagSets.size()];
    auto post = insertPost(*context, "p" + std::to_string(i), "", tags);
    auto& title = titles[static_cast<std::size_t>(i) % titles.size()];
    if (title) post->setValueForKey(title, "title");
    post->setValueForKey(Value(i % 3 == 0), "unread");
    post->setValueForKey(Value(i % 4 != 1), "shared");
    if (i % 5 != 4) post->setValueForKey(Value(i % 6), "source");
    post->setValueForKey(Value(0.5 * (i % 7)), "rating");
    post->setValueForKey(Value(NSDate(1000.0 * i)), "date");
    if (i % 3 == 1) post->setValueForKey(Value(inbox), "folder");
    if (i % 3 == 2) post->setValueForKey(Value(archive), "folder");
    if (i == 7) post->setValueForKey(Value("https://example.com/p7"), "identifier");  // equals its url
    if (i == 0) seeded.firstPost = post;
    if (i == 1) seeded.secondPost = post;
  }
  ASSERT_TRUE(context->save());
}

struct Case {
  std::string format;
  std::vector<Value> arguments;
  bool translatable = true;
};

// Objects in predicates are compared by identity, so they are taken from
// the context that evaluates.
std::vector<Case> cases(const Seeded& seeded, NSManagedObjectContext& context) {
  auto first = context.objectWithID(seeded.firstPost->objectID());
  auto second = context.objectWithID(seeded.secondPost->objectID());
  auto folder = second->valueForKey("folder");
  return {
      {"unread == YES"}, {"unread == NO"}, {"unread != YES"}, {"shared == 1"}, {"shared == 2"}, {"source == 3"},
      {"source != 3"}, {"source > 2"}, {"source <= 2"}, {"source == nil"}, {"source != nil"}, {"source >= nil"},
      {"source < nil"}, {"source == 'x'"}, {"source != 'x'"}, {"source == 1.5"}, {"source < 1.5"}, {"title == nil"},
      {"title != 'Café'"}, {"title ==[c] 'café'"}, {"title ==[cd] 'cafe'"}, {"title ==[d] 'Cafe'"},
      {"title !=[cd] 'cafe'"}, {"title <[c] 'm'"}, {"title >= 'm'"}, {"title ==[c] 'SS-STRASSE'"},
      {"title BEGINSWITH 'Sw'"}, {"title BEGINSWITH 'Caf'"}, {"title BEGINSWITH 'Café'"},
      {"title BEGINSWITH 'ß'"}, {"title BEGINSWITH ''"}, {"NOT (title BEGINSWITH 'Caf')"}, {"title BEGINSWITH 'Zebra 42'"},
      {"folder.name BEGINSWITH 'In'"}, {"title BEGINSWITH[c] 'sw'"}, {"title ENDSWITH[cd] 'E'"}, {"title CONTAINS 'a'"},
      {"title CONTAINS[cd] 'É'"}, {"title CONTAINS ''"}, {"title LIKE '*ip*'"}, {"title LIKE[c] 's?ift*'"},
      {"title LIKE '%'"}, {"title LIKE %@", {Value("100\\%_\\*")}}, {"title MATCHES '.*[0-9]+'"},
      {"title MATCHES[c] 'swift.*'"}, {"title MATCHES '('"}, {"title IN {'Swift tips', 'Café'}"},
      {"title IN[c] {'swift'}"}, {"source IN {1, 2, 3}"}, {"source IN {}"}, {"source IN {'1', 2}"},
      {"title IN 'Swift tips and tricks'"}, {"'wif' IN title"}, {"rating BETWEEN {1.0, 2.5}"},
      {"date > %@", {Value(NSDate(20000))}}, {"date <= %@", {Value(NSDate(3000))}}, {"ANY tags.title == 'swift'"},
      {"ANY tags.title ==[cd] 'SWIFT'"}, {"ALL tags.title BEGINSWITH 's'"}, {"NONE tags.title == 'swift'"},
      {"ANY tags.title IN {'ios', 'café'}"}, {"tags.@count == 0"}, {"tags.@count > 1"}, {"tags.@count >= 2"},
      {"tags.@count != 0"}, {"tags.@count < 1"}, {"'swift' IN tags.title"}, {"tags.title CONTAINS 'swift'"},
      {"folder == nil"}, {"folder != nil"}, {"folder.name == 'Inbox'"}, {"folder.name == nil"},
      {"SELF == %@", {Value(first)}}, {"SELF != %@", {Value(first)}},
      {"SELF IN %@", {Value(Array{Value(first), Value(second)})}}, {"folder == %@", {folder}},
      {"folder != %@", {folder}},
      {"unread == YES AND (source > 1 OR title BEGINSWITH 'S')"}, {"NOT (unread == YES)"}, {"NOT (source == 3)"},
      {"NOT (title BEGINSWITH 'S')"}, {"NOT ANY tags.title == 'swift'"}, {"NOT (source < 3 OR title == nil)"},
      {"TRUEPREDICATE"}, {"FALSEPREDICATE"}, {"title == %@", {Value("O'Brien\"; DROP TABLE Post; --")}},
      {"identifier == url"}, {"identifier != url"},
      // A string answers length in UTF-16 code units (the cup counts 2).
      {"title.length == 4"}, {"title.length == 6"}, {"title.length >= 8"}, {"title.length == nil"},
      {"title.length != 0"}, {"folder.name.length == 5"}, {"ANY tags.title.length == 2"},
      {"title.length == source"}, {"source.length == nil", {}, false},
      {"source & 1 == 1", {}, false}, {"FUNCTION(title, 'length') == 4", {}, false},
      {"source + 1 == 4", {}, false}, {"SUBQUERY(tags, $t, $t.title BEGINSWITH 's').@count > 0", {}, false},
      {"unread == YES AND source * 2 > 4", {}, false}, {"ANY tags.posts.title == 'swift'", {}, false},
  };
}

std::set<std::string> identifiersOf(const Array& posts) {
  std::set<std::string> ids;
  for (auto& post : posts) ids.insert(valueForKey(post, "identifier").asString());
  return ids;
}

// Every case through the store (SQL, or memory where SQL cannot) against
// plain in-memory evaluation over all posts of the same context.
void expectAgreement(NSManagedObjectContext& context, const Seeded& seeded, const std::string& phase) {
  auto everything = fetchAll(context, "Post");
  for (auto& c : cases(seeded, context)) {
    NSErrorPtr error;
    auto predicate = NSPredicate::predicateWithFormat(c.format, c.arguments, &error);
    ASSERT_TRUE(predicate) << c.format << ": " << error->description();
    EXPECT_EQ(ZBCanTranslatePredicate(*seeded.stack.coordinator, *seeded.stack.model->entityNamed("Post"), *predicate),
              c.translatable)
        << c.format;
    std::set<std::string> expected;
    for (auto& post : everything) {
      if (predicate->evaluateWithObject(post)) expected.insert(valueForKey(post, "identifier").asString());
    }
    auto request = NSFetchRequest::fetchRequestWithEntityName("Post");
    request->setPredicate(predicate);
    auto fetched = context.executeFetchRequest(request, &error);
    ASSERT_TRUE(fetched) << c.format << ": " << error->description();
    EXPECT_EQ(identifiersOf(*fetched), expected) << phase << ": " << c.format;
    EXPECT_EQ(context.countForFetchRequest(request), static_cast<std::int64_t>(expected.size()))
        << phase << ": " << c.format;
  }
}

}  // namespace

TEST(PredicateTranslation, StoreAndMemoryAgreeOnEveryPredicate) {
  Seeded seeded;
  seed(seeded);
  auto context = seeded.stack.newContext();
  expectAgreement(*context, seeded, "saved");
  EXPECT_EQ(context->countForFetchRequest(NSFetchRequest::fetchRequestWithEntityName("Post")), 52)
      << "the hostile title was bound, not spliced";

  // The same with unsaved changes in the way: values changed, objects
  // deleted, inserted, relationships moved.
  auto posts = fetchAll(*context, "Post", "", {}, {NSSortDescriptor("identifier", true)});
  for (std::size_t i = 0; i < posts.size(); i += 4) {
    auto post = posts[i].as<NSManagedObject>();
    post->setValueForKey(Value(!post->valueForKey("unread").boolValue()), "unread");
    post->setValueForKey(Value("swift"), "title");
    post->setValueForKey(Value(Set{}), "tags");
  }
  for (std::size_t i = 1; i < posts.size(); i += 9) context->deleteObject(posts[i].as<NSManagedObject>());
  insertPost(*context, "fresh-1", "Swift tips", {"swift", "new"});
  insertPost(*context, "fresh-2", "", {});
  context->processPendingChanges();
  expectAgreement(*context, seeded, "pending");
}

TEST(PredicateTranslation, SortsAgreeBetweenStoreAndMemory) {
  Seeded seeded;
  seed(seeded);
  auto context = seeded.stack.newContext();
  for (auto comparison : {NSSortComparison::Compare, NSSortComparison::CaseInsensitiveCompare,
                          NSSortComparison::LocalizedCaseInsensitiveCompare, NSSortComparison::LocalizedStandardCompare}) {
    for (bool ascending : {true, false}) {
      std::vector<NSSortDescriptor> sort{NSSortDescriptor("title", ascending, comparison),
                                         NSSortDescriptor("identifier", true)};
      auto stored = fetchAll(*context, "Post", "", {}, sort);
      Array expected = stored;
      ZBSortValues(expected, sort);
      ASSERT_EQ(stored.size(), expected.size());
      for (std::size_t i = 0; i < stored.size(); ++i) {
        EXPECT_EQ(valueForKey(stored[i], "identifier"), valueForKey(expected[i], "identifier"))
            << "position " << i << " comparison " << static_cast<int>(comparison) << " ascending " << ascending;
      }
    }
  }
}
