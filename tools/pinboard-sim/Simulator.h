#pragma once
// Simulator: a local stand-in for the Pinboard service, speaking real HTTP on
// loopback. It serves the v1 API under /v1/ and the JSON feeds under /json/,
// with per-user data, both ways of authenticating, the service's result texts
// and wire quirks, rate limits, and faults injected on demand.
//
// Ownership: the owner holds it by value or unique_ptr; destruction stops the
// server and waits for requests in flight. Thread-safe: every method may be
// called from any thread, also while requests are being served.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "pinboard-sim/Bookmark.h"
#include "pinboard-sim/Fault.h"
#include "pinboard-sim/Generator.h"
#include "pinboard-sim/Wire.h"
#include "platform/foundation/ZBMutex.h"

namespace httplib {
struct Request;
struct Response;
}  // namespace httplib

namespace pinboard_sim {

// Feeds are windows onto the newest items, not complete lists, and they
// trail the API.
struct FeedWindow {
  int defaultCount = 50;  // items without ?count=
  int maxCount = 400;     // items at most, whatever ?count= asks
  double lag = 0;         // seconds (simulator clock) before an API write shows in feeds
};

struct SimulatorOptions {
  std::string host = "127.0.0.1";
  int port = 0;           // 0: an ephemeral port
  int threads = 24;       // connections served at once
  FeedWindow feeds;
  Quirks quirks;
  RateLimits rateLimits;  // all off by default
};

// One request as the simulator saw it.
struct RequestRecord {
  std::string path;
  std::map<std::string, std::string> params;  // query parameters, decoded
  std::string user;      // the authenticated user, empty when none
  int status = 0;        // HTTP status answered (0 for a dropped connection)
  bool faulted = false;  // an injected fault shaped the answer
  bool basicAuth = false;
};

struct AccountSeed {
  std::string username;
  std::string token;     // secret part; generated from the name when empty
  std::string password;  // basic authentication is refused when empty
  std::string rssKey;    // generated from the name when empty
  bool saveAllPrivate = false;
};

class Simulator {
public:
  explicit Simulator(SimulatorOptions options = {});
  ~Simulator();
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  // Binds and serves on a background thread. Returns false with a message when
  // the address cannot be bound. Calling it twice is a no-op.
  [[nodiscard]] bool start(std::string* error = nullptr);
  // Stops serving and waits for the requests in flight (injected delays are cut
  // short). Idempotent.
  void stop();
  int port() const { return _port; }
  std::string baseURL() const;   // "http://127.0.0.1:PORT"
  std::string apiURL() const;    // baseURL() + "/v1/"
  std::string feedsURL() const;  // baseURL() + "/json/"

  // ---- Seeding ----
  // Adds an account, or replaces the credentials of an existing one. Returns the
  // full API token ("name:SECRET").
  std::string addAccount(const AccountSeed& seed);
  // Stores a bookmark as given (hash and meta are computed) and, like an API
  // write, sets the account's update time to now. False when there is no such
  // account.
  [[nodiscard]] bool addBookmark(const std::string& user, Bookmark bookmark);
  // Adds count generated bookmarks (see Generator.h); the update time becomes
  // now. False without the account.
  [[nodiscard]] bool generateBookmarks(const std::string& user, std::size_t count,
                                       const GeneratorOptions& options = {});
  // These four: false without the account (or, for a mark, the bookmark). A
  // mark (star, source) moves the update time as an API write would.
  [[nodiscard]] bool addNote(const std::string& user, const std::string& title, const std::string& text,
                             std::int64_t created, std::int64_t updated);
  [[nodiscard]] bool setNetwork(const std::string& user, std::vector<std::string> others);
  [[nodiscard]] bool setStarred(const std::string& user, const std::string& url, bool starred);
  [[nodiscard]] bool setSource(const std::string& user, const std::string& url, const std::string& source);
  // Site-wide "popular" tags that posts/suggest reports for a URL.
  void setPopularTags(const std::string& url, std::vector<std::string> tags);

  // Seed documents (the format exportState writes): {"accounts":[{"username",
  // "token", "password", "rssKey", "saveAllPrivate", "network", "updateTime",
  // "bookmarks":[{"url","title","extended","tags","time","shared","toread",
  // "starred","source","others"}], "notes":[…], "generate":{"count","seed"}}],
  // "popularTags":{url:[…]}}. Times are ISO 8601 strings or seconds. False
  // with a message for a document of another shape (what came before the
  // fault stays loaded). (Simulator+State.cpp)
  [[nodiscard]] bool loadSeed(const nlohmann::json& seed, std::string* error = nullptr);
  [[nodiscard]] bool loadSeedFile(const std::string& path, std::string* error = nullptr);
  nlohmann::json exportState() const;
  // Writes exportState() to path atomically; false with a message.
  [[nodiscard]] bool saveState(const std::string& path, std::string* error = nullptr) const;
  // Increases with every change of any account (for savers that poll).
  std::uint64_t stateVersion() const;

  // ---- Inspection ----
  std::optional<Bookmark> bookmark(const std::string& user, const std::string& url) const;
  std::vector<Bookmark> bookmarks(const std::string& user) const;  // newest first
  std::size_t bookmarkCount(const std::string& user) const;
  std::int64_t updateTime(const std::string& user) const;  // 0 without the account
  std::map<std::string, int> tagCounts(const std::string& user) const;
  std::string token(const std::string& user) const;   // "name:SECRET", empty without the account
  std::string rssKey(const std::string& user) const;

  std::vector<RequestRecord> requestLog() const;
  void clearRequestLog();
  // Requests whose path matches (exact, or a prefix ending in '*').
  std::size_t requestCount(const std::string& path) const;
  // Calls answered 429 because they came sooner than the rate limits allow:
  // of one user, and of all users together.
  std::size_t rateLimitViolations(const std::string& user) const;
  std::size_t rateLimitViolations() const;

  // ---- Behaviour ----
  void addFault(Fault fault);
  void clearFaults();
  // How many requests a fault has met so far: a test can wait for a request
  // to be inside a delay before acting.
  std::size_t faultsTaken() const;
  void setRateLimits(RateLimits limits);
  void setQuirks(Quirks quirks);
  Quirks quirks() const;
  void setFeedWindow(FeedWindow window);
  // Seconds since 1970 used for "now" (dates of new bookmarks, update times,
  // rate limits). Defaults to the system clock; nullptr restores it. Called
  // under the simulator's lock: it must not call the simulator.
  void setClock(std::function<double()> clock);

private:
  struct Reply {
    int status = 200;
    std::string body;
    std::string contentType;  // empty: the quirk's JSON type
    std::shared_ptr<const std::string> shared;  // a cached body, used instead of body
  };
  class Server;

  // Serving (Simulator+Server.cpp): every request passes through _handle.
  void _handle(const httplib::Request& req, httplib::Response& res) ZB_EXCLUDES(_mutex);
  [[nodiscard]] bool _sleep(double seconds);  // false when stopped meanwhile
  std::optional<Fault> _takeFault(const std::string& path) ZB_EXCLUDES(_mutex);
  std::string _authenticate(const httplib::Request& req, bool& basic, bool& malformed) const ZB_REQUIRES(_mutex);
  bool _rateLimited(const std::string& user, const std::string& path) ZB_REQUIRES(_mutex);
  void _log(RequestRecord record) ZB_EXCLUDES(_mutex);

  // The accounts (Simulator.cpp).
  double _now() const ZB_REQUIRES(_mutex);
  Account* _account(const std::string& user) ZB_REQUIRES(_mutex);
  const Account* _account(const std::string& user) const ZB_REQUIRES(_mutex);
  Account& _insertAccount(const AccountSeed& seed) ZB_REQUIRES(_mutex);
  // A change of a's bookmarks: moves its update time and the state version.
  void _changed(Account& a) ZB_REQUIRES(_mutex);
  // Applies change to user's bookmark of url; false when there is none.
  bool _changeBookmark(const std::string& user, const std::string& url, const std::function<void(Bookmark&)>& change)
      ZB_EXCLUDES(_mutex);

  // Routes (Simulator+Routes.cpp).
  Reply _api(const std::string& method, const httplib::Request& req, Account& account) ZB_REQUIRES(_mutex);
  Reply _postsUpdate(const Account& a) ZB_REQUIRES(_mutex);
  Reply _postsAdd(const httplib::Request& req, Account& a) ZB_REQUIRES(_mutex);
  Reply _postsDelete(const httplib::Request& req, Account& a) ZB_REQUIRES(_mutex);
  Reply _postsGet(const httplib::Request& req, const Account& a) ZB_REQUIRES(_mutex);
  Reply _postsRecent(const httplib::Request& req, const Account& a) ZB_REQUIRES(_mutex);
  Reply _postsDates(const httplib::Request& req, const Account& a) ZB_REQUIRES(_mutex);
  Reply _postsAll(const httplib::Request& req, Account& a) ZB_REQUIRES(_mutex);
  Reply _postsSuggest(const httplib::Request& req, const Account& a) ZB_REQUIRES(_mutex);
  Reply _tagsGet(const Account& a) ZB_REQUIRES(_mutex);
  Reply _tagsDelete(const httplib::Request& req, Account& a) ZB_REQUIRES(_mutex);
  Reply _tagsRename(const httplib::Request& req, Account& a) ZB_REQUIRES(_mutex);
  Reply _notesList(const Account& a) ZB_REQUIRES(_mutex);
  Reply _note(const std::string& id, const Account& a) ZB_REQUIRES(_mutex);
  Reply _json(const nlohmann::ordered_json& value) const ZB_REQUIRES(_mutex);
  // An application error ("something went wrong", HTTP 200) in the form of
  // the endpoint: XML or JSON.
  Reply _failure(const httplib::Request& req) const ZB_REQUIRES(_mutex);
  Reply _resultCode(const std::string& text, const char* key = "result_code") const ZB_REQUIRES(_mutex);
  // A bookmark as an API write leaves it: feeds see it only after the lag,
  // and the old version until then.
  void _written(Bookmark& b, const Bookmark* before) ZB_REQUIRES(_mutex);
  // Feeds (Simulator+Feeds.cpp).
  Reply _feed(const std::string& path, const httplib::Request& req) ZB_REQUIRES(_mutex);

  // Fixed at construction: where to listen, how wide. The quirks, rate
  // limits and feed window in it are only the first values of _quirks,
  // _rateLimits and _feedWindow.
  const SimulatorOptions _options;
  std::unique_ptr<Server> _server;
  std::thread _thread;
  std::atomic<int> _port{0};
  ZBMutex _sleepMutex;
  std::condition_variable _sleepCondition;
  bool _stopping ZB_GUARDED_BY(_sleepMutex) = false;  // ends injected delays

  mutable ZBMutex _mutex;
  Quirks _quirks ZB_GUARDED_BY(_mutex);
  RateLimits _rateLimits ZB_GUARDED_BY(_mutex);
  FeedWindow _feedWindow ZB_GUARDED_BY(_mutex);
  std::map<std::string, Account> _accounts ZB_GUARDED_BY(_mutex);
  std::map<std::string, std::vector<std::string>> _popularTags ZB_GUARDED_BY(_mutex);
  std::vector<Fault> _faults ZB_GUARDED_BY(_mutex);
  std::size_t _faultsTaken ZB_GUARDED_BY(_mutex) = 0;
  std::vector<RequestRecord> _requests ZB_GUARDED_BY(_mutex);
  // "user\x1fclass" -> time of the last accepted call
  std::map<std::string, double> _lastCall ZB_GUARDED_BY(_mutex);
  std::map<std::string, std::size_t> _violations ZB_GUARDED_BY(_mutex);  // per user
  std::function<double()> _clock ZB_GUARDED_BY(_mutex);
  std::uint64_t _stateVersion ZB_GUARDED_BY(_mutex) = 0;
  // posts/all without filters, cached per account version: the big answer.
  std::map<std::string, std::pair<std::uint64_t, std::shared_ptr<const std::string>>> _fullListCache
      ZB_GUARDED_BY(_mutex);
};

}  // namespace pinboard_sim
