#pragma once
// TarrowCommand: one subcommand of tarrow. It declares itself (name, help,
// options) on the command line, and runs with the session once its
// subcommand was chosen. run returns null on success, else the failure to
// report (exit status 1); what it prints goes to the session's streams.

#include <CLI/CLI.hpp>

#include "TarrowSession.h"

class TarrowCommand {
public:
  virtual ~TarrowCommand() = default;
  // Adds the subcommand to app and returns it.
  virtual CLI::App* install(CLI::App& app) = 0;
  virtual NSErrorPtr run(TarrowSession& session) = 0;
};
