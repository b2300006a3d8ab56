#include "TarrowApplication.h"

#include <cstdlib>
#include <iostream>

#include "TarrowCommands.h"
#include "TarrowErrors.h"

TarrowApplication::TarrowApplication()
    : _app("tarrow: your Pinboard bookmarks, kept locally and in step with the service") {
  _app.require_subcommand(1);
  _app.fallthrough();
  _settings.addOptions(_app);
  for (auto& command : TarrowMakeCommands()) addCommand(std::move(command));
}

void TarrowApplication::addCommand(std::unique_ptr<TarrowCommand> command) {
  CLI::App* subcommand = command->install(_app);
  _commands.emplace_back(subcommand, std::move(command));
}

int TarrowApplication::run(int argc, char** argv) {
  try {
    _app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    // --help and --version exit 0; every other parse error is a usage error.
    int status = _app.exit(error);
    return status == 0 ? 0 : 2;
  }
  _settings.apply();
  for (auto& [subcommand, command] : _commands) {
    if (!subcommand->parsed()) continue;
    NSErrorPtr error;
    {
      TarrowSession session(_interrupt, std::cout, std::cerr);
      // Work that does not wait on a job (a listing) runs to its end even
      // when interrupted meanwhile: it has nothing to cancel.
      error = command->run(session);
    }
    std::cout.flush();
    if (error) TarrowPrintError(std::cerr, *error);
    const int status = !error ? 0
                       : error->domain() == TarrowErrorDomain && error->code() == TarrowInterruptedError ? 130
                                                                                                          : 1;
    if (_interrupt.interrupted()) {
      // A cancelled request may still be winding down on another thread; it
      // writes nothing, and the process ends without waiting for it.
      std::cerr.flush();
      std::_Exit(status);
    }
    return status;
  }
  return 2;
}
