#pragma once
// Runs the tarrow binary as a child process, as a user would: its own
// environment, stdin fed from a string, stdout and stderr captured. A run may
// be started and finished separately, so that a test can signal it meanwhile.

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

struct TarrowResult {
  int status = -1;  // exit status; 128 + signal when killed by one
  std::string out;
  std::string err;
};

class TarrowProcess {
public:
  // Starts tarrow with args. env entries replace or add variables (an empty
  // value removes one).
  TarrowProcess(const std::vector<std::string>& args, const std::map<std::string, std::string>& env,
                const std::string& input = {});
  ~TarrowProcess();
  TarrowProcess(const TarrowProcess&) = delete;
  TarrowProcess& operator=(const TarrowProcess&) = delete;

  void signal(int number) const;
  // Reads the output until the child ends and reaps it.
  TarrowResult finish();

private:
  pid_t _pid = -1;
  int _out = -1;
  int _err = -1;
  bool _finished = false;
};
