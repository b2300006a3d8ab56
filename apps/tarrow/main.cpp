// tarrow: the command-line face of the bookmark data layer.

#include <CLI/CLI.hpp>

#include <iostream>

#include "TarrowSelfCheck.h"

int main(int argc, char** argv) {
  CLI::App app{"tarrow: your Pinboard bookmarks, kept locally and in step with the service"};
  app.require_subcommand(1);

  auto* selfcheck = app.add_subcommand("selfcheck", "Exercise the platform layer on this machine");
  int status = 0;
  selfcheck->callback([&] { status = TarrowSelfCheck(std::cout); });

  CLI11_PARSE(app, argc, argv);
  return status;
}
