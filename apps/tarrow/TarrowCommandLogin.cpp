// tarrow login [USER] [--token TOKEN]: signs in with an API token (also from
// TARROW_TOKEN), or with the password, asked without echo.

#include "TarrowCommands.h"
#include "TarrowErrors.h"
#include "TarrowPrompt.h"
#include "TarrowText.h"

namespace {

class TarrowCommandLogin final : public TarrowCommand {
public:
  CLI::App* install(CLI::App& app) override {
    auto* command = app.add_subcommand("login", "Sign in to Pinboard with an API token or a password");
    command->add_option("user", _user, "Pinboard user name (may be left out with a whole token, NAME:SECRET)");
    command->add_option("--token", _token, "API token, NAME:SECRET or the secret alone")->envname("TARROW_TOKEN");
    return command;
  }

  NSErrorPtr run(TarrowSession& session) override {
    if (_user.empty() && _token.find(':') != std::string::npos) _user = _token.substr(0, _token.find(':'));
    if (_user.empty())
      return TarrowMakeError(TarrowInvalidInputError, TarrowLocalized("No user name given"),
                             TarrowLocalized("Name the user, or give the whole API token (NAME:SECRET)."));
    TarrowSession::Outcome outcome;
    if (!_token.empty()) {
      session.controller()->authenticateWithUsernameToken(_user, _token, outcome.handler());
    } else {
      auto password = TarrowPromptSecret(TarrowLocalized("Password for %@: ", {_user}), session.err(),
                                         session.interrupt());
      if (!password)
        return TarrowMakeError(TarrowInvalidInputError, TarrowLocalized("No password given"),
                               TarrowLocalized("Type the password, or give an API token with --token."));
      session.controller()->authenticateWithUsernamePassword(_user, *password, outcome.handler());
    }
    if (NSErrorPtr error = session.wait(outcome)) return error;
    session.out() << TarrowLocalized("Signed in as %@.", {session.controller()->username()}) << "\n";
    return nullptr;
  }

private:
  std::string _user;
  std::string _token;
};

}  // namespace

std::unique_ptr<TarrowCommand> TarrowMakeLoginCommand() { return std::make_unique<TarrowCommandLogin>(); }
