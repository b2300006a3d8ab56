#pragma once
// When each of a user's request lines ("general", "posts/all", "feeds", …)
// was last used, kept in a small file beside the user defaults so that every
// process of one data directory keeps to the service's spacing together: a
// short-lived `tarrow sync` run a minute after another waits as if it had
// made the other's calls itself.
//
// A file under an advisory lock (flock) rather than a row in the store: the
// client sits below the store, must not wait for a long store transaction to
// take its turn, and a lost or garbled file costs at most one early call,
// which the service answers with 429 and the back-off absorbs. Each claim
// reads, checks and writes under one exclusive lock, so two processes never
// take the same turn. Times are wall-clock seconds since the reference date;
// an entry far in the future (the clock was set back) is ignored.
//
// Failures to open, lock or write the file are not errors of the request:
// the memory then simply remembers nothing. Thread-safe.

#include <filesystem>
#include <map>
#include <string>
#include <vector>

class ZBPinboardRateMemory {
public:
  explicit ZBPinboardRateMemory(std::filesystem::path file);

  struct Line {
    std::string name;  // "general" or a request class
    double interval;   // seconds to keep after its last use
  };
  // When every line has been free long enough at now, records now as their
  // last use and returns true (what they held before goes to *before, for
  // release()). Otherwise returns false and sets *readyAt to when they all
  // will be.
  bool claim(const std::string& user, const std::vector<Line>& lines, double now, double* readyAt,
             std::map<std::string, double>* before);
  // Records a use at `at` (the later of it and the stored time stays).
  void record(const std::string& user, const std::vector<Line>& lines, double at);
  // Takes back a claim of lines made at claimedAt that was not used, where
  // the file still holds it.
  void release(const std::string& user, const std::vector<Line>& lines, const std::map<std::string, double>& before,
               double claimedAt);

  const std::filesystem::path& file() const { return _file; }

private:
  using Entries = std::map<std::pair<std::string, std::string>, double>;  // (user, line) → last use
  // Runs change on the file's entries under an exclusive lock, writing them
  // back when it returns true.
  template <class Change>
  void _locked(Change&& change);

  const std::filesystem::path _file;
};
