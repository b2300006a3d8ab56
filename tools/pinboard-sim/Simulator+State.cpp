// Seed documents and the state file: accounts, bookmarks and notes read from
// JSON and written back in the same form.
#include <fstream>
#include <nlohmann/json.hpp>

#include "pinboard-sim/Simulator.h"

namespace pinboard_sim {

using nlohmann::json;

namespace {

std::int64_t jsonTime(const json& v) {
  if (v.is_number()) return v.get<std::int64_t>();
  if (v.is_string()) return parseDateTime(v.get<std::string>(), true).value_or(0);
  return 0;
}

}  // namespace

bool Simulator::loadSeed(const json& seed, std::string* error) {
  auto now = [this] {
    ZBMutexLock hold(_mutex);
    return static_cast<std::int64_t>(_now());
  };
  // The steps after addAccount() find the account it made; none removes one.
  auto check = [](bool done) {
    if (!done) throw std::runtime_error("the account is gone");
  };
  try {
    if (!seed.is_object()) throw std::runtime_error("the seed must be a JSON object");
    for (const json& acc : seed.value("accounts", json::array())) {
      AccountSeed s;
      s.username = acc.at("username").get<std::string>();
      if (s.username.empty() || s.username.find(':') != std::string::npos)
        throw std::runtime_error("bad user name '" + s.username + "'");
      s.token = acc.value("token", "");
      s.password = acc.value("password", "");
      s.rssKey = acc.value("rssKey", "");
      s.saveAllPrivate = acc.value("saveAllPrivate", false);
      addAccount(s);
      if (acc.contains("network")) check(setNetwork(s.username, acc["network"].get<std::vector<std::string>>()));
      for (const json& jb : acc.value("bookmarks", json::array())) {
        Bookmark b;
        b.url = jb.at("url").get<std::string>();
        b.title = jb.value("title", "");
        b.extended = jb.value("extended", "");
        if (jb.contains("tags")) {
          if (jb["tags"].is_string()) b.tags = splitTags(jb["tags"].get<std::string>());
          else b.tags = jb["tags"].get<std::vector<std::string>>();
        }
        b.time = jb.contains("time") ? jsonTime(jb["time"]) : now();
        b.shared = jb.value("shared", true);
        b.toread = jb.value("toread", false);
        b.starred = jb.value("starred", false);
        b.source = jb.value("source", "");
        if (jb.contains("others") && jb["others"].is_number()) b.others = jb["others"].get<std::int64_t>();
        check(addBookmark(s.username, std::move(b)));
      }
      for (const json& jn : acc.value("notes", json::array())) {
        check(addNote(s.username, jn.value("title", ""), jn.value("text", ""), jsonTime(jn.value("created", json(0))),
                      jsonTime(jn.value("updated", jn.value("created", json(0))))));
      }
      if (acc.contains("generate")) {
        GeneratorOptions o;
        o.seed = acc["generate"].value("seed", std::uint64_t(1));
        check(generateBookmarks(s.username, acc["generate"].value("count", std::size_t(0)), o));
      }
      if (acc.contains("updateTime")) {
        ZBMutexLock hold(_mutex);
        _account(s.username)->updateTime = jsonTime(acc["updateTime"]);
      }
    }
    // A named copy: items() of a temporary would outlive the temporary.
    const json popular = seed.value("popularTags", json::object());
    for (const auto& [url, tags] : popular.items()) setPopularTags(url, tags.get<std::vector<std::string>>());
    return true;
  } catch (const std::exception& e) {
    if (error) *error = std::string("bad seed: ") + e.what();
    return false;
  }
}

bool Simulator::loadSeedFile(const std::string& path, std::string* error) {
  std::ifstream in(path);
  if (!in) {
    if (error) *error = "cannot read " + path;
    return false;
  }
  json seed = json::parse(in, nullptr, false);
  if (seed.is_discarded()) {
    if (error) *error = path + " is not JSON";
    return false;
  }
  return loadSeed(seed, error);
}

json Simulator::exportState() const {
  ZBMutexLock hold(_mutex);
  json accounts = json::array();
  for (const auto& [name, a] : _accounts) {
    json bookmarks = json::array();
    for (const Bookmark* b : a.sorted()) {
      json jb = {{"url", b->url},          {"title", b->title},     {"extended", b->extended},
                 {"tags", b->tags},        {"time", formatDateTime(b->time)},
                 {"shared", b->shared},    {"toread", b->toread},   {"starred", b->starred},
                 {"source", b->source}};
      if (b->others) jb["others"] = *b->others;
      bookmarks.push_back(std::move(jb));
    }
    json notes = json::array();
    for (const Note& n : a.notes)
      notes.push_back({{"title", n.title}, {"text", n.text}, {"created", formatDateTime(n.created)},
                       {"updated", formatDateTime(n.updated)}});
    accounts.push_back({{"username", a.username},
                        {"token", a.token},
                        {"password", a.password},
                        {"rssKey", a.rssKey},
                        {"saveAllPrivate", a.saveAllPrivate},
                        {"network", a.network},
                        {"updateTime", formatDateTime(a.updateTime)},
                        {"bookmarks", std::move(bookmarks)},
                        {"notes", std::move(notes)}});
  }
  return json{{"accounts", std::move(accounts)}, {"popularTags", _popularTags}};
}

bool Simulator::saveState(const std::string& path, std::string* error) const {
  std::string text = exportState().dump(1, ' ', false, json::error_handler_t::replace);
  std::string temporary = path + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << text << '\n';
    if (!out) {
      if (error) *error = "cannot write " + temporary;
      return false;
    }
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    if (error) *error = "cannot replace " + path;
    return false;
  }
  return true;
}

}  // namespace pinboard_sim
