#include "TarrowPostView.h"

#include "TarrowText.h"

namespace {

std::optional<std::string> optionalString(const Value& value) {
  if (!value.isString()) return std::nullopt;
  return value.asString();
}

std::vector<std::string> strings(const Value& collection) {
  std::vector<std::string> result;
  for (const Value& item : collection.collectionElements()) {
    if (item.isString()) result.push_back(item.asString());
  }
  return result;
}

}  // namespace

TarrowPostView TarrowPostView::fromPost(const ZBTarrowPinboardPost& post) {
  TarrowPostView view;
  view.url = post.url().value_or("");
  view.title = post.title().value_or("");
  view.desc = post.desc();
  if (view.desc && view.desc->empty()) view.desc.reset();
  view.tags = post.sortedTagTitles();
  view.date = post.date();
  view.shared = post.shared();
  view.unread = post.unread();
  view.starred = post.starred();
  view.dead = post.dead();
  view.dirty = post.dirty();
  return view;
}

TarrowPostView TarrowPostView::fromDictionary(const Dictionary& post) {
  TarrowPostView view;
  view.url = post[ZBTarrowPinboardPostURLKey].asString();
  view.title = post[ZBTarrowPinboardPostTitleKey].asString();
  view.desc = optionalString(post[ZBTarrowPinboardPostDescKey]);
  if (view.desc && view.desc->empty()) view.desc.reset();
  const Value& sorted = post[ZBTarrowPinboardPostSortedTagTitlesKey];
  view.tags = strings(sorted ? sorted : post[ZBTarrowPinboardPostTagsKey]);
  if (post[ZBTarrowPinboardPostDateKey].isDate()) view.date = post[ZBTarrowPinboardPostDateKey].asDate();
  view.username = optionalString(post[ZBTarrowPinboardPostUsernameKey]);
  view.shared = post[ZBTarrowPinboardPostSharedKey].boolValue();
  view.unread = post[ZBTarrowPinboardPostUnreadKey].boolValue();
  return view;
}

nlohmann::json TarrowPostView::json() const {
  nlohmann::json object{{"url", url},         {"title", title},     {"desc", nullptr},    {"tags", tags},
                        {"date", nullptr},    {"shared", shared},   {"unread", unread},   {"starred", starred},
                        {"dead", dead},       {"dirty", dirty}};
  if (desc) object["desc"] = *desc;
  if (date) object["date"] = date->ISO8601String();
  if (username) object["username"] = *username;
  return object;
}

std::string TarrowShortDate(const std::optional<NSDate>& date) {
  return date ? date->ISO8601String().substr(0, 10) : "-";
}

void TarrowPostView::print(std::ostream& out) const {
  const std::string indent(12, ' ');
  out << TarrowShortDate(date) << "  " << (title.empty() ? url : title) << "\n" << indent << url << "\n";
  std::string marks;
  for (const auto& [on, text] : {std::pair{unread, "Unread"}, std::pair{!shared, "Private"},
                                 std::pair{starred, "Starred"}, std::pair{dead, "Dead Link"},
                                 std::pair{dirty, "Not Sent"}}) {
    if (!on) continue;
    marks += (marks.empty() ? "" : ", ") + TarrowLocalized(text);
  }
  std::string line;
  for (const auto& tag : tags) line += (line.empty() ? "" : " ") + tag;
  if (username) line += (line.empty() ? "" : "  ") + TarrowLocalized("by %@", {*username});
  if (!marks.empty()) line += (line.empty() ? "" : "  ") + ("(" + marks + ")");
  if (!line.empty()) out << indent << line << "\n";
}
