// Counts a context asks for again and again are remembered by the store and
// adjusted by its own saves. Whatever a save does — through relationships,
// deletes with clean-up, rows of other entities, saves that fail, writes by
// another connection — the remembered count must equal a fresh count.

#include <gtest/gtest.h>

#include <random>

#include "ObjectStoreTestSupport.h"

namespace {

struct Counted {
  const char* entity;
  const char* format;
};

const std::vector<Counted>& countedQueries() {
  static const std::vector<Counted> queries = {
      {"Post", ""},
      {"Post", "unread == YES"},
      {"Post", "deleting == NO AND shared == YES"},
      {"Post", "tags.@count == 0"},
      {"Post", "tags.@count > 0 AND unread == NO"},
      {"Post", "ANY tags.title == 'a'"},
      {"Post", "ALL tags.title BEGINSWITH 'b'"},
      {"Post", "'c' IN tags.title"},
      {"Post", "folder.name == 'Inbox'"},
      {"Post", "folder == nil"},
      {"Post", "title CONTAINS[cd] 'X'"},
      {"Tag", "posts.@count == 0"},
      {"Tag", "ANY posts.unread == YES"},
      {"Folder", "ANY items.shared == YES"},
      {"Folder", "items.@count == 0"},
  };
  return queries;
}

std::int64_t countOf(NSManagedObjectContext& context, const Counted& query) {
  auto request = NSFetchRequest::fetchRequestWithEntityName(query.entity);
  if (*query.format) request->setPredicate(NSPredicate::predicateWithFormat(query.format));
  return context.countForFetchRequest(request);
}

// The oracle: the matching objects themselves, fetched in a new context.
std::int64_t fetchedCountOf(const TestStore& stack, const Counted& query) {
  auto context = stack.newContext();
  return static_cast<std::int64_t>(fetchAll(*context, query.entity, query.format).size());
}

class Mutator {
public:
  Mutator(const TestStore& stack, std::uint32_t seed) : _stack(stack), _random(seed) {}

  std::string step(NSManagedObjectContext& context) {
    auto posts = fetchAll(context, "Post");
    auto tags = fetchAll(context, "Tag");
    auto folders = fetchAll(context, "Folder");
    auto pick = [&](const Array& objects) {
      return objects.empty() ? nullptr
                             : objects[below(objects.size())].as<NSManagedObject>();
    };
    const int action = static_cast<int>(below(14));
    switch (action) {
      case 0:
      case 1: {
        auto post = insertPost(context, "p" + std::to_string(_serial++), below(3) ? "title" : "a title with X");
        post->setValueForKey(Value(below(2) == 0), "unread");
        if (auto tag = pick(tags); tag && below(2)) {
          post->setValueForKey(Value(Set{Value(tag)}), "tags");
        }
        if (auto folder = pick(folders); folder && below(2)) post->setValueForKey(Value(folder), "folder");
        return "insert a post";
      }
      case 2:
      case 3: {
        auto post = pick(posts);
        if (!post) return "nothing";
        post->setValueForKey(Value(below(2) == 0), below(2) ? "unread" : "shared");
        if (below(3) == 0) post->setValueForKey(Value(below(2) == 0), "deleting");
        if (below(4) == 0) post->setValueForKey(Value("new title x"), "title");
        return "edit a post";
      }
      case 4: {
        auto post = pick(posts);
        auto tag = pick(tags);
        if (!post || !tag) return "nothing";
        auto current = post->valueForKey("tags").asSet();
        if (current.contains(Value(tag))) {
          current.erase(Value(tag));
        } else {
          current.insert(Value(tag));
        }
        post->setValueForKey(Value(std::move(current)), "tags");
        return "tag or untag a post";
      }
      case 5: {
        auto post = pick(posts);
        if (!post) return "nothing";
        context.deleteObject(post);
        return "delete a post";
      }
      case 6: {
        auto tag = pick(tags);
        if (!tag) return "nothing";
        static const char* titles[] = {"a", "b", "bb", "c", "d"};
        tag->setValueForKey(Value(titles[below(5)]), "title");
        return "rename a tag";
      }
      case 7: {
        if (auto tag = pick(tags); tag && below(2)) {
          context.deleteObject(tag);
          return "delete a tag";
        }
        auto tag = context.insertNewObjectForEntityForName("Tag");
        tag->setValueForKey(Value(below(2) ? "a" : "b"), "title");
        if (auto post = pick(posts)) {
          auto current = post->valueForKey("tags").asSet();
          current.insert(Value(tag));
          post->setValueForKey(Value(std::move(current)), "tags");
        }
        return "insert a tag";
      }
      case 8: {
        auto folder = context.insertNewObjectForEntityForName("Folder");
        folder->setValueForKey(Value(below(2) ? "Inbox" : "Later"), "name");
        if (auto post = pick(posts)) post->setValueForKey(Value(folder), "folder");
        return "insert a folder";
      }
      case 9: {
        auto post = pick(posts);
        if (!post) return "nothing";
        auto folder = pick(folders);
        post->setValueForKey(folder ? Value(folder) : Value(), "folder");
        return "move a post";
      }
      case 10: {
        auto folder = pick(folders);
        if (!folder) return "nothing";
        if (below(2)) {
          context.deleteObject(folder);
          return "delete a folder";
        }
        folder->setValueForKey(Value(below(2) ? "Inbox" : "Later"), "name");
        return "rename a folder";
      }
      case 11: {
        // More rows than are worth recounting.
        if (posts.size() > 1000) return "nothing";
        for (std::size_t i = 0; i < 520; ++i) {
          insertPost(context, "bulk" + std::to_string(_serial++))->setValueForKey(Value(i % 2 == 0), "unread");
        }
        return "insert many posts";
      }
      case 12: {
        // Another connection writes the file.
        auto other = NSManagedObjectContext::create(NSConfinementConcurrencyType);
        other->setPersistentStoreCoordinator(_stack.reopen());
        auto theirs = fetchAll(*other, "Post");
        if (theirs.empty()) return "nothing";
        auto post = theirs[below(theirs.size())].as<NSManagedObject>();
        if (below(2)) {
          other->deleteObject(post);
        } else {
          post->setValueForKey(Value(!post->valueForKey("unread").boolValue()), "unread");
        }
        EXPECT_TRUE(other->save());
        return "another connection writes";
      }
      default: {
        // A save that fails on a conflict after some of its rows are
        // written: the transaction rolls back and so must the counts.
        auto post = pick(posts);
        if (!post) return "nothing";
        insertPost(context, "doomed" + std::to_string(_serial++))->setValueForKey(Value(true), "unread");
        post->setValueForKey(Value(!post->valueForKey("unread").boolValue()), "unread");
        auto rival = _stack.newContext();
        auto theirs = rival->existingObjectWithID(post->objectID());
        theirs->setValueForKey(Value("rival"), "title");
        EXPECT_TRUE(rival->save());
        _expectFailure = true;
        return "a save that conflicts";
      }
    }
  }

  bool takeExpectedFailure() { return std::exchange(_expectFailure, false); }

private:
  std::size_t below(std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(_random); }

  const TestStore& _stack;
  std::mt19937 _random;
  int _serial = 0;
  bool _expectFailure = false;
};

TEST(CountMemo, RememberedCountsMatchFreshCountsThroughEveryKindOfSave) {
  for (std::uint32_t seed : {1u, 2u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TestStore stack;
    {
      auto seeding = stack.newContext();
      for (const char* title : {"a", "b", "c"}) tagNamed(*seeding, title);
      auto folder = seeding->insertNewObjectForEntityForName("Folder");
      folder->setValueForKey(Value("Inbox"), "name");
      for (int i = 0; i < 20; ++i) insertPost(*seeding, "seed" + std::to_string(i), "", {i % 2 ? "a" : "b"});
      ASSERT_TRUE(seeding->save());
    }
    // The counting context never changes anything, so its counts are the
    // store's; it asks before and after every save.
    auto counter = stack.newContext();
    Mutator mutator(stack, seed);
    for (int round = 0; round < 80; ++round) {
      for (auto& query : countedQueries()) countOf(*counter, query);
      auto writer = stack.newContext();
      std::string action = mutator.step(*writer);
      NSErrorPtr error;
      const bool saved = writer->save(&error);
      const bool expectFailure = mutator.takeExpectedFailure();
      ASSERT_EQ(saved, !expectFailure) << action << (error ? ": " + error->description() : "");
      for (auto& query : countedQueries()) {
        ASSERT_EQ(countOf(*counter, query), fetchedCountOf(stack, query))
            << "round " << round << ", after: " << action << ", counting " << query.entity << " where "
            << query.format;
      }
    }
  }
}

}  // namespace
