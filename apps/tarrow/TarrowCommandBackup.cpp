// tarrow backup FILE: writes the user's own collections and saved searches
// into a backup document.

#include "TarrowCommands.h"
#include "TarrowFiles.h"
#include "TarrowText.h"
#include "store/ZBTarrowDataStoreBackupGenerator.h"

namespace {

class TarrowCommandBackup final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("backup", "Write your collections and saved searches to a backup file");
    command->add_option("file", _file, "The backup file to write")->required();
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    NSErrorPtr error;
    auto document = ZBTarrowDataStoreBackupGenerator().createBackupFromContext(session.context(), &error);
    if (!document) return error;
    if (!TarrowWriteFileAtomically(_file, *document, &error)) return error;
    session.out() << TarrowLocalized("Backup written to %@.", {_file}) << "\n";
    return nullptr;
  }

private:
  std::string _file;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeBackupCommand() { return std::make_unique<TarrowCommandBackup>(); }
