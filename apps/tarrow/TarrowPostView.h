#pragma once
// TarrowPostView: a bookmark as tarrow shows it, whether it comes from the
// store (a post object) or from a feed (a post dictionary): one readable
// block of text, or a JSON object with every field ("desc" and "date" are
// null when absent).

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "model/ZBTarrowPinboardPost.h"

struct TarrowPostView {
  std::string url;
  std::string title;
  std::optional<std::string> desc;
  std::vector<std::string> tags;  // sorted as the interface sorts them
  std::optional<NSDate> date;
  std::optional<std::string> username;  // the author, for feed posts
  bool shared = false;
  bool unread = false;
  bool starred = false;
  bool dead = false;
  bool dirty = false;  // local changes not sent yet

  static TarrowPostView fromPost(const ZBTarrowPinboardPost& post);
  static TarrowPostView fromDictionary(const Dictionary& post);

  nlohmann::json json() const;
  // "2023-11-14  Title" then the URL, the tags and the marks, indented.
  void print(std::ostream& out) const;
};

// The date part of an ISO 8601 timestamp ("2023-11-14"), or "-".
std::string TarrowShortDate(const std::optional<NSDate>& date);
