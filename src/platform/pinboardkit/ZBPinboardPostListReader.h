#pragma once
// ZBPinboardPostListReader: reads a posts/all answer piece by piece as it
// arrives: the appending side cuts a bare list into runs of complete posts and
// parses each run as soon as it is whole; the reading side turns the runs into
// post dictionaries (so they are allocated on its thread). Only a few runs are
// held at a time. The outcome is the one ZBPinboardResponseParser::posts gives
// for the whole answer: the same Array, or absent and a malformed-response
// error (whose reason may name a different fault when there are several). An
// answer other than a bare list is kept whole and read by posts() at the end.
//
// Threads: the two sides may be two threads, each used by one thread at a
// time: one appends and then closes, the other calls finish(). While finish()
// runs, append() waits whenever it is a few runs ahead of it. From a single
// thread, append everything and close() before finish(). Never throws on
// hostile bytes. Owned by its user; not copyable.

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "platform/foundation/NSError.h"
#include "platform/foundation/Value.h"

class ZBPinboardPostListReader {
public:
  // A run of posts this long fits in the cache together with its parsed form.
  static constexpr std::size_t kDefaultRunBytes = 256 * 1024;

  // username becomes every post's "username"; method names the request in
  // errors; runBytes is about how much of the list is cut off and parsed at
  // once (small values exercise the cutting in tests).
  ZBPinboardPostListReader(std::string username, std::string method, std::size_t runBytes = kDefaultRunBytes);
  ~ZBPinboardPostListReader();
  ZBPinboardPostListReader(const ZBPinboardPostListReader&) = delete;
  ZBPinboardPostListReader& operator=(const ZBPinboardPostListReader&) = delete;

  // The answer's next bytes.
  void append(std::string_view bytes);
  // After the last bytes (once).
  void close();
  // Reads the runs as they come until close(); then, once: the Array of post
  // dictionaries, or absent and the error.
  Value finish(NSErrorPtr* error = nullptr);

private:
  struct State;
  std::unique_ptr<State> _state;
};
