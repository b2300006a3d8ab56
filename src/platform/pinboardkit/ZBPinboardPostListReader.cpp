// The appending side cuts a bare list into runs, parses each into a document
// and reads its posts' fields; the reading side turns the fields into
// dictionaries, so that they are allocated on the thread that asked for them.
// Runs go back to the appending side once read: fresh memory costs more than
// parsing. Should a cut turn out to be inside a string (the run does not
// parse), the rest of the list goes to the reading side whole.
#include "platform/pinboardkit/ZBPinboardPostListReader.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <vector>

#include "platform/foundation/ZBMutex.h"
#include "platform/pinboardkit/ZBPinboardResponseParser.h"
#include "platform/pinboardkit/impl/ZBPinboardPostList.h"

using namespace zb::pinboard;

namespace {

// A run of posts read on the appending side.
struct ParsedRun {
  simdjson::dom::document document;
  std::vector<PostFields> posts;  // views into document
  std::string reason;             // why the run holds something other than posts
};

struct Piece {
  enum class Kind { Run, Rest, Whole };
  Kind kind = Kind::Run;
  std::unique_ptr<ParsedRun> run;  // Run
  std::string text;                // Rest: the end of the list, text[slot] its slot; Whole: the whole answer
  std::size_t slot = 0;
};

}  // namespace

struct ZBPinboardPostListReader::State {
  State(std::string username, std::string method, std::size_t runBytes)
      : username(std::move(username)), method(std::move(method)), runBytes(runBytes), list(this->username, runBytes) {
    // Room for the usual run, made here rather than on the appending thread:
    // documents that grow run after run would take fresh memory each time,
    // and a short-lived thread would leave it in an allocator arena of its own.
    const std::size_t capacity = 2 * runBytes + 4096;
    if (parser.allocate(capacity)) return;  // out of memory: the parser grows when it must
    text.reserve(capacity + simdjson::SIMDJSON_PADDING);
    for (std::size_t i = 0; i < kRunsAhead + 2; ++i) {
      runs.push_back(std::make_unique<ParsedRun>());
      runs.back()->posts.reserve(capacity / 256);
      if (runs.back()->document.allocate(capacity)) break;
    }
  }

  void recycle(std::unique_ptr<ParsedRun> run) {
    ZBMutexLock hold(mutex);
    runs.push_back(std::move(run));
  }

  std::unique_ptr<ParsedRun> spareRun() {
    ZBMutexLock hold(mutex);
    if (runs.empty()) return std::make_unique<ParsedRun>();
    auto r = std::move(runs.back());
    runs.pop_back();
    return r;
  }

  void ship(Piece piece) {
    bool idle;
    {
      ZBMutexLock hold(mutex);
      // While the reading side is at work, stay a few runs ahead of it: the
      // answer waits on the wire instead of in memory. Before it starts (or
      // when both sides are one thread) there is nobody to wait for.
      if (piece.kind == Piece::Kind::Run) {
        hold.wait(room, [&] {
          mutex.assertHeld();
          return !reading || pieces.size() < kRunsAhead;
        });
      }
      idle = pieces.empty();  // the reading side waits only when there is nothing to take
      pieces.push_back(std::move(piece));
    }
    if (idle) arrived.notify_one();
  }

  Piece take() {
    Piece piece;
    {
      ZBMutexLock hold(mutex);
      hold.wait(arrived, [&] {
        mutex.assertHeld();
        return !pieces.empty();
      });
      piece = std::move(pieces.front());
      pieces.pop_front();
    }
    room.notify_one();
    return piece;
  }

  static constexpr std::size_t kRunsAhead = 8;

  const std::string username, method;
  const std::size_t runBytes;

  // Appending side.
  std::string text;  // bytes not cut off yet
  Shape shape = Shape::Undecided;
  std::size_t slot = 0;      // List: the slot of the first post in text
  std::size_t searched = 0;  // bytes after the slot known to hold no cut
  bool whole = false;        // a cut did not parse: the rest goes in one piece
  bool failed = false;       // a run held something other than posts
  simdjson::dom::parser parser;

  // Between the sides.
  ZBMutex mutex;
  std::condition_variable arrived, room;
  std::deque<Piece> pieces ZB_GUARDED_BY(mutex);
  bool reading ZB_GUARDED_BY(mutex) = false;  // finish() has begun
  std::vector<std::unique_ptr<ParsedRun>> runs ZB_GUARDED_BY(mutex);  // read, to use again

  // Reading side.
  PostList list;
};

ZBPinboardPostListReader::ZBPinboardPostListReader(std::string username, std::string method, std::size_t runBytes)
    : _state(std::make_unique<State>(std::move(username), std::move(method), std::max<std::size_t>(runBytes, 1))) {}

ZBPinboardPostListReader::~ZBPinboardPostListReader() = default;

void ZBPinboardPostListReader::append(std::string_view bytes) {
  State& s = *_state;
  if (s.failed) return;
  s.text.append(bytes);
  if (s.shape == Shape::Undecided) s.shape = shapeOf(s.text, s.slot);
  if (s.shape != Shape::List || s.whole) return;
  while (s.text.size() - s.slot > s.runBytes) {
    std::size_t cut, next, resume;
    if (!boundary(s.text.data(), std::max(s.slot + 1 + s.runBytes, s.slot + s.searched), s.text.size(), cut, next,
                  resume)) {
      s.searched = resume - s.slot;
      break;
    }
    if (s.text.capacity() < cut + 1 + simdjson::SIMDJSON_PADDING) s.text.reserve(cut + 1 + simdjson::SIMDJSON_PADDING);
    auto run = s.spareRun();
    if (parseRun(s.parser, run->document, s.text.data(), s.slot, cut, false)) {
      s.whole = true;
      s.recycle(std::move(run));
      break;
    }
    run->posts.clear();
    run->reason.clear();
    const bool posts = listFields(run->document.root(), run->posts, run->reason);
    s.ship(Piece{Piece::Kind::Run, std::move(run), {}, 0});
    if (!posts) {  // the verdict is in: the rest changes nothing
      s.failed = true;
      s.text = std::string();
      return;
    }
    s.slot = next - 1;
    s.searched = 0;
  }
  if (!s.whole && s.slot >= s.runBytes) {
    s.text.erase(0, s.slot);  // what is left is shorter than what was cut off
    s.slot = 0;
  }
}

void ZBPinboardPostListReader::close() {
  State& s = *_state;
  Piece last{s.shape == Shape::List ? Piece::Kind::Rest : Piece::Kind::Whole, nullptr, std::move(s.text), s.slot};
  s.text = std::string();
  s.ship(std::move(last));
}

Value ZBPinboardPostListReader::finish(NSErrorPtr* error) {
  State& s = *_state;
  {
    ZBMutexLock hold(s.mutex);
    s.reading = true;
  }
  for (;;) {
    Piece piece = s.take();
    switch (piece.kind) {
      case Piece::Kind::Run: {
        s.list.add(piece.run->posts, piece.run->reason);
        s.recycle(std::move(piece.run));
        continue;
      }
      case Piece::Kind::Rest:
        piece.text.reserve(piece.text.size() + simdjson::SIMDJSON_PADDING);
        s.list.read(piece.text.data(), piece.slot, piece.text.size(), true);
        return s.list.result(s.method, error);
      case Piece::Kind::Whole: return ZBPinboardResponseParser::posts(piece.text, s.username, s.method, error);
    }
  }
}
