#include "apps/TarrowProcess.h"

#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace {

std::vector<std::string> childEnvironment(const std::map<std::string, std::string>& overrides) {
  std::map<std::string, std::string> variables;
  for (char** entry = environ; *entry; ++entry) {
    std::string text(*entry);
    std::size_t eq = text.find('=');
    if (eq != std::string::npos) variables[text.substr(0, eq)] = text.substr(eq + 1);
  }
  for (const auto& [name, value] : overrides) {
    if (value.empty()) {
      variables.erase(name);
    } else {
      variables[name] = value;
    }
  }
  std::vector<std::string> entries;
  for (const auto& [name, value] : variables) entries.push_back(name + "=" + value);
  return entries;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (auto& s : strings) result.push_back(s.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

TarrowProcess::TarrowProcess(const std::vector<std::string>& args, const std::map<std::string, std::string>& env,
                             const std::string& input) {
  int in[2], out[2], err[2];
  if (pipe(in) != 0 || pipe(out) != 0 || pipe(err) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) posix_spawn_file_actions_addclose(&actions, fd);
  // The child starts with SIGINT and SIGTERM unblocked and at their defaults,
  // whatever this test process did with them.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGTERM);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  std::vector<std::string> argv{ZB_TARROW_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<std::string> envp = childEnvironment(env);
  auto argvPointers = pointers(argv);
  auto envPointers = pointers(envp);
  int failed = posix_spawn(&_pid, ZB_TARROW_PATH, &actions, &attributes, argvPointers.data(), envPointers.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  close(in[0]);
  close(out[1]);
  close(err[1]);
  if (failed != 0) throw std::runtime_error(std::string("posix_spawn: ") + std::strerror(failed));
  // Small inputs only (a password line): the pipe's buffer holds them.
  if (!input.empty() && write(in[1], input.data(), input.size()) < 0) throw std::runtime_error("write failed");
  close(in[1]);
  _out = out[0];
  _err = err[0];
}

TarrowProcess::~TarrowProcess() {
  if (!_finished && _pid > 0) {
    kill(_pid, SIGKILL);
    finish();
  }
}

void TarrowProcess::signal(int number) const { kill(_pid, number); }

TarrowResult TarrowProcess::finish() {
  TarrowResult result;
  pollfd fds[2] = {{_out, POLLIN, 0}, {_err, POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  while (open > 0) {
    if (poll(fds, 2, -1) < 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char buffer[4096];
      ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<std::size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  int status = 0;
  waitpid(_pid, &status, 0);
  _finished = true;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}
