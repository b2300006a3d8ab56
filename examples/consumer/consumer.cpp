// Opens the library's stores in a throw-away data home and lists the built-in
// smart collections, in German when the catalogue is installed: enough to
// show that headers, library and catalogues work from an installed copy.

#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "model/ZBTarrowCollection.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/foundation/ZBLocalizedString.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "store/ZBTarrowDataStoreCoordinator.h"

int main() {
  std::string home = (std::filesystem::temp_directory_path() / "zbtarrowdata-consumer-XXXXXX").string();
  if (!mkdtemp(home.data())) return 1;
  setenv("XDG_DATA_HOME", home.c_str(), 1);
  NSUserDefaults::setStandardUserDefaultsPath(std::filesystem::path(home) / "defaults.plist");
  ZBSetLocalizationLanguage("de");

  int status = 0;
  {
    auto coordinator = ZBTarrowDataStoreCoordinator::create();
    NSErrorPtr error;
    if (!coordinator->setup(&error)) {
      std::cerr << "consumer: " << (error ? error->localizedDescription() : "the stores did not open") << "\n";
      status = 1;
    } else {
      auto context = coordinator->rootManagedObjectContext();
      context->performBlockAndWait([&] {
        auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowCollectionEntityName);
        request->setSortDescriptors({NSSortDescriptor::sortDescriptorWithKey(ZBTarrowCollectionOrderKey, true)});
        auto collections = context->executeFetchRequest(request, &error);
        if (!collections || collections->empty()) {
          status = 1;
          return;
        }
        for (const Value& value : *collections) std::cout << value.as<ZBTarrowCollection>()->title().value_or("?") << "\n";
      });
    }
    std::cout << "catalogues: " << ZBLocalizationDirectory() << "\n";
  }
  std::filesystem::remove_all(home);
  return status;
}
