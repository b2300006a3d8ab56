#pragma once
// The subcommands of tarrow, one class each (TarrowCommand<Name>.cpp), made
// by these factories. TarrowMakeCommands lists them in the order --help
// shows.

#include <memory>
#include <vector>

#include "TarrowCommand.h"

std::unique_ptr<TarrowCommand> TarrowMakeLoginCommand();
std::unique_ptr<TarrowCommand> TarrowMakeLogoutCommand();
std::unique_ptr<TarrowCommand> TarrowMakeStatusCommand();
std::unique_ptr<TarrowCommand> TarrowMakeSyncCommand();
std::unique_ptr<TarrowCommand> TarrowMakePostsCommand();
std::unique_ptr<TarrowCommand> TarrowMakeCollectionsCommand();
std::unique_ptr<TarrowCommand> TarrowMakeSearchesCommand();
std::unique_ptr<TarrowCommand> TarrowMakeTagsCommand();
std::unique_ptr<TarrowCommand> TarrowMakeAddCommand();
std::unique_ptr<TarrowCommand> TarrowMakeEditCommand();
std::unique_ptr<TarrowCommand> TarrowMakeDeleteCommand();
std::unique_ptr<TarrowCommand> TarrowMakeTagCommand();
std::unique_ptr<TarrowCommand> TarrowMakeCollectionCommand();
std::unique_ptr<TarrowCommand> TarrowMakeFeedCommand();
std::unique_ptr<TarrowCommand> TarrowMakeSuggestCommand();
std::unique_ptr<TarrowCommand> TarrowMakeBackupCommand();
std::unique_ptr<TarrowCommand> TarrowMakeRestoreCommand();
std::unique_ptr<TarrowCommand> TarrowMakeCheckLinksCommand();
std::unique_ptr<TarrowCommand> TarrowMakeImportCommand();
std::unique_ptr<TarrowCommand> TarrowMakeConfigCommand();

std::vector<std::unique_ptr<TarrowCommand>> TarrowMakeCommands();
