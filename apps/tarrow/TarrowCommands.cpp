#include "TarrowCommands.h"

std::vector<std::unique_ptr<TarrowCommand>> TarrowMakeCommands() {
  std::vector<std::unique_ptr<TarrowCommand>> commands;
  for (auto* make : {&TarrowMakeLoginCommand, &TarrowMakeLogoutCommand, &TarrowMakeStatusCommand,
                     &TarrowMakeSyncCommand, &TarrowMakePostsCommand, &TarrowMakeCollectionsCommand,
                     &TarrowMakeSearchesCommand, &TarrowMakeTagsCommand, &TarrowMakeAddCommand,
                     &TarrowMakeEditCommand, &TarrowMakeDeleteCommand, &TarrowMakeTagCommand,
                     &TarrowMakeCollectionCommand, &TarrowMakeFeedCommand, &TarrowMakeSuggestCommand,
                     &TarrowMakeCheckLinksCommand, &TarrowMakeImportCommand, &TarrowMakeBackupCommand,
                     &TarrowMakeRestoreCommand, &TarrowMakeConfigCommand})
    commands.push_back(make());
  return commands;
}
