#pragma once
// A small bookmark-like model and a temporary store for the object store's
// tests.

#include <filesystem>
#include <memory>
#include <string>

#include "platform/foundation/NSURL.h"
#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/objectstore/NSManagedObjectModel.h"
#include "platform/objectstore/NSPersistentStoreCoordinator.h"
#include "support/TemporaryDirectory.h"

struct TestModelOptions {
  bool extraAttribute = false;       // Post.note, added by a later model version
  bool extraEntity = false;          // Archive, added by a later model version
  bool noteRequired = false;         // the extra attribute is required, without default
  bool retypedSource = false;        // Post.source becomes a string
  bool configurations = false;       // "Pinboard": Post, Tag, Folder; "Tarrow": Collection
};

// Post: identifier, url (required), title, date, unread, shared, deleting,
// source, rating, payload; tags ↔ Tag.posts (many-to-many), folder ↔
// Folder.items (to-one / to-many). Tag: title (required). Folder: name.
// Collection: title, order, hidden, predicate (archived).
std::shared_ptr<NSManagedObjectModel> makeTestModel(const TestModelOptions& options = {});

class TestStore {
public:
  explicit TestStore(const TestModelOptions& options = {});
  explicit TestStore(std::shared_ptr<NSManagedObjectModel> model, std::filesystem::path file = {});

  // A new coordinator over the same file (as a second process would open it).
  std::shared_ptr<NSPersistentStoreCoordinator> reopen(std::shared_ptr<NSManagedObjectModel> model = nullptr,
                                                       NSErrorPtr* error = nullptr) const;
  std::shared_ptr<NSManagedObjectContext> newContext(
      NSManagedObjectContextConcurrencyType type = NSConfinementConcurrencyType) const;

  TemporaryDirectory directory;
  std::filesystem::path file;
  std::shared_ptr<NSManagedObjectModel> model;
  std::shared_ptr<NSPersistentStoreCoordinator> coordinator;
  std::shared_ptr<NSPersistentStore> store;
};

Dictionary migrationOptions();

// Inserts a post with the given identifier, url, title and tags (by title,
// created in the context when missing).
std::shared_ptr<NSManagedObject> insertPost(NSManagedObjectContext& context, const std::string& identifier,
                                            const std::string& title = "", std::vector<std::string> tags = {});
std::shared_ptr<NSManagedObject> tagNamed(NSManagedObjectContext& context, const std::string& title);

// Runs a fetch that must succeed.
Array fetchAll(NSManagedObjectContext& context, const std::string& entity, const std::string& format = "",
               std::vector<Value> arguments = {}, std::vector<NSSortDescriptor> sort = {});
// Sorted values of key of the objects.
std::vector<std::string> stringsOf(const Array& objects, const std::string& key);
