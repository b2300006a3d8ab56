#include "ObjectStoreTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "platform/objectstore/NSPersistentStore.h"

std::shared_ptr<NSManagedObjectModel> makeTestModel(const TestModelOptions& options) {
  auto post = NSEntityDescription::create("Post");
  post->addAttribute("identifier", NSAttributeType::String, {.indexed = true});
  post->addAttribute("url", NSAttributeType::String, {.optional = false, .indexed = true});
  post->addAttribute("title", NSAttributeType::String);
  post->addAttribute("date", NSAttributeType::Date);
  post->addAttribute("unread", NSAttributeType::Boolean);
  post->addAttribute("shared", NSAttributeType::Boolean, {.defaultValue = Value(true)});
  post->addAttribute("deleting", NSAttributeType::Boolean, {.indexed = true});
  post->addAttribute("source", options.retypedSource ? NSAttributeType::String : NSAttributeType::Integer64);
  post->addAttribute("rating", NSAttributeType::Double);
  post->addAttribute("payload", NSAttributeType::Binary);
  if (options.extraAttribute) {
    post->addAttribute("note", NSAttributeType::String, {.optional = !options.noteRequired});
  }
  post->addRelationship("tags", "Tag", {.toMany = true, .inverseName = "posts"});
  post->addRelationship("folder", "Folder", {.inverseName = "items"});

  auto tag = NSEntityDescription::create("Tag");
  tag->addAttribute("title", NSAttributeType::String, {.optional = false, .indexed = true});
  tag->addRelationship("posts", "Post", {.toMany = true, .inverseName = "tags"});

  auto folder = NSEntityDescription::create("Folder");
  folder->addAttribute("name", NSAttributeType::String);
  folder->addRelationship("items", "Post", {.toMany = true, .inverseName = "folder"});

  auto collection = NSEntityDescription::create("Collection");
  collection->addAttribute("title", NSAttributeType::String);
  collection->addAttribute("order", NSAttributeType::Integer64, {.defaultValue = Value(7)});
  collection->addAttribute("hidden", NSAttributeType::Boolean);
  collection->addAttribute("predicate", NSAttributeType::Transformable);

  std::vector<std::shared_ptr<NSEntityDescription>> entities{post, tag, folder, collection};
  if (options.extraEntity) {
    auto archive = NSEntityDescription::create("Archive");
    archive->addAttribute("label", NSAttributeType::String);
    entities.push_back(archive);
  }
  auto model = NSManagedObjectModel::create(entities);
  if (options.configurations) {
    model->setEntitiesForConfiguration({"Post", "Tag", "Folder"}, "Pinboard");
    model->setEntitiesForConfiguration({"Collection"}, "Tarrow");
  }
  return model;
}

Dictionary migrationOptions() {
  return Dictionary{{NSMigratePersistentStoresAutomaticallyOption, Value(true)},
                    {NSInferMappingModelAutomaticallyOption, Value(true)},
                    {NSPersistentStoreTimeoutOption, Value(5)}};
}

TestStore::TestStore(const TestModelOptions& options) : TestStore(makeTestModel(options)) {}

TestStore::TestStore(std::shared_ptr<NSManagedObjectModel> m, std::filesystem::path f)
    : file(f.empty() ? directory / "Store.sqlite" : f), model(std::move(m)) {
  coordinator = NSPersistentStoreCoordinator::create(model);
  NSErrorPtr error;
  store = coordinator->addPersistentStoreWithType(NSSQLiteStoreType, "", NSURL::fileURLWithPath(file.string()),
                                                  migrationOptions(), &error);
  if (!store) ADD_FAILURE() << "cannot open the test store: " << (error ? error->description() : "?");
}

std::shared_ptr<NSPersistentStoreCoordinator> TestStore::reopen(std::shared_ptr<NSManagedObjectModel> m,
                                                                NSErrorPtr* error) const {
  auto other = NSPersistentStoreCoordinator::create(m ? m : model);
  if (!other->addPersistentStoreWithType(NSSQLiteStoreType, "", NSURL::fileURLWithPath(file.string()),
                                         migrationOptions(), error)) {
    return nullptr;
  }
  return other;
}

std::shared_ptr<NSManagedObjectContext> TestStore::newContext(NSManagedObjectContextConcurrencyType type) const {
  auto context = NSManagedObjectContext::create(type);
  context->performBlockAndWait([&] { context->setPersistentStoreCoordinator(coordinator); });
  return context;
}

std::shared_ptr<NSManagedObject> tagNamed(NSManagedObjectContext& context, const std::string& title) {
  auto found = fetchAll(context, "Tag", "title == %@", {Value(title)});
  if (!found.empty()) return found.front().as<NSManagedObject>();
  auto tag = context.insertNewObjectForEntityForName("Tag");
  tag->setValueForKey(Value(title), "title");
  return tag;
}

std::shared_ptr<NSManagedObject> insertPost(NSManagedObjectContext& context, const std::string& identifier,
                                            const std::string& title, std::vector<std::string> tags) {
  auto post = context.insertNewObjectForEntityForName("Post");
  post->setValueForKey(Value(identifier), "identifier");
  post->setValueForKey(Value("https://example.com/" + identifier), "url");
  if (!title.empty()) post->setValueForKey(Value(title), "title");
  if (!tags.empty()) {
    Set set;
    for (auto& t : tags) set.insert(Value(tagNamed(context, t)));
    post->setValueForKey(Value(std::move(set)), "tags");
  }
  return post;
}

Array fetchAll(NSManagedObjectContext& context, const std::string& entity, const std::string& format,
               std::vector<Value> arguments, std::vector<NSSortDescriptor> sort) {
  auto request = NSFetchRequest::fetchRequestWithEntityName(entity);
  if (!format.empty()) {
    NSErrorPtr error;
    auto predicate = NSPredicate::predicateWithFormat(format, std::move(arguments), &error);
    EXPECT_TRUE(predicate) << format << ": " << (error ? error->description() : "");
    request->setPredicate(predicate);
  }
  request->setSortDescriptors(std::move(sort));
  NSErrorPtr error;
  auto result = context.executeFetchRequest(request, &error);
  EXPECT_TRUE(result.has_value()) << (error ? error->description() : "");
  return result.value_or(Array());
}

std::vector<std::string> stringsOf(const Array& objects, const std::string& key) {
  std::vector<std::string> values;
  for (auto& object : objects) values.push_back(valueForKey(object, key).asString());
  std::sort(values.begin(), values.end());
  return values;
}
