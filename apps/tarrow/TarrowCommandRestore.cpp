// tarrow restore FILE: merges a backup document's collections and saved
// searches into the sidebar (same identifier: replaced; new: added; others
// kept).

#include "TarrowCommands.h"
#include "TarrowFiles.h"
#include "TarrowText.h"
#include "store/ZBTarrowDataStoreBackupGenerator.h"

namespace {

class TarrowCommandRestore final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("restore", "Restore collections and saved searches from a backup file");
    command->add_option("file", _file, "The backup file to read")->required();
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    NSErrorPtr error;
    auto document = TarrowReadFile(_file, &error);
    if (!document) return error;
    if (!ZBTarrowDataStoreBackupGenerator().restoreBackup(*document, session.context(), &error)) return error;
    session.out() << TarrowLocalized("Restored from %@.", {_file}) << "\n";
    return nullptr;
  }

private:
  std::string _file;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeRestoreCommand() { return std::make_unique<TarrowCommandRestore>(); }
