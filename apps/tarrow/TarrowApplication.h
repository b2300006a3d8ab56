#pragma once
// TarrowApplication: the whole command line — global settings, the
// subcommands, and the exit status: 0 on success, 1 for a failure (reported
// on stderr with its recovery suggestion), 2 for a usage error, 130 when
// interrupted.

#include <memory>
#include <vector>

#include "TarrowCommand.h"
#include "TarrowInterrupt.h"
#include "TarrowSettings.h"

class TarrowApplication {
public:
  TarrowApplication();
  int run(int argc, char** argv);

  // Adds a subcommand; the lead's later ones (link checks, import) come in
  // the same way.
  void addCommand(std::unique_ptr<TarrowCommand> command);

private:
  TarrowInterrupt _interrupt;  // first: signals are blocked before any thread starts
  CLI::App _app;
  TarrowSettings _settings;
  std::vector<std::pair<CLI::App*, std::unique_ptr<TarrowCommand>>> _commands;
};
