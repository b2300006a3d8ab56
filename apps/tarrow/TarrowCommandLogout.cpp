// tarrow logout: signs out and forgets the service's bookmarks (collections
// and saved searches stay).

#include "TarrowCommands.h"
#include "TarrowText.h"

namespace {

class TarrowCommandLogout final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    return app.add_subcommand("logout", "Sign out and forget the local copy of the bookmarks");
  }

  NSErrorPtr run(TarrowSession& session) override {
    TarrowSession::Outcome outcome;
    session.controller()->logout(outcome.handler());
    if (NSErrorPtr error = session.wait(outcome)) return error;
    session.out() << TarrowLocalized("Signed out.") << "\n";
    return nullptr;
  }
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeLogoutCommand() { return std::make_unique<TarrowCommandLogout>(); }
