// A process that may start no thread: it drops to an unprivileged user when
// run as root, caps its threads at those it has, then asks the simulator for
// the update date and prints what the request ended with:
//   <domain> <code> <underlying domain>      or   ok
//   threadless_peer API_URL TOKEN
// Kept out of the test program's sources (.cc) so that it has its own main.

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

#include "platform/pinboardkit/ZBPinboardClient.h"

namespace {

rlim_t threadsNow() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("Threads:", 0) == 0) return std::stoul(line.substr(8));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  std::string token = argv[2];
  auto defaults = NSUserDefaults::create("/nonexistent/threadless-defaults.plist");  // never written
  defaults->setObject(Value(argv[1]), ZBPinboardAPIBaseURLDefaultKey);
  defaults->setObject(Value(0.0), ZBPinboardRequestIntervalDefaultKey);
  defaults->setObject(Value("/nonexistent/credentials.plist"), ZBPinboardCredentialsPathDefaultKey);
  auto client = ZBPinboardClient::create(defaults);
  client->setCredentials(ZBPinboardCredentials::create(token.substr(0, token.find(':')), token.substr(token.find(':') + 1)));
  auto request = client->retrieveLastPostUpdateDate();

  // Root is not held to the limit: become nobody first.
  if (getuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return 3;
  rlim_t threads = threadsNow();
  rlimit limit{threads, threads};
  if (setrlimit(RLIMIT_NPROC, &limit) != 0) return 4;
  // From here on, leave with _exit: a leak checker at exit would want a
  // thread of its own.
  try {
    std::thread([] {}).join();
    _exit(5);  // the cap does not hold here: nothing to show
  } catch (const std::system_error&) {
  }

  request->start();
  for (int i = 0; i < 3000 && !request->isFinished(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  if (!request->isFinished()) _exit(6);
  NSErrorPtr error;
  if (request->completionProvider()(&error)) {
    std::cout << "ok" << std::endl;
    _exit(0);
  }
  auto underlying = error->userInfo().objectForKey(NSUnderlyingErrorKey);
  std::cout << error->domain() << ' ' << error->code() << ' '
            << (underlying.isObject() ? underlying.as<NSError>()->domain() : "-") << std::endl;
  _exit(0);
}
