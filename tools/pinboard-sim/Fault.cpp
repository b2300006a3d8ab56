#include "pinboard-sim/Fault.h"

#include <charconv>
#include <cstdlib>

namespace pinboard_sim {

namespace {

bool fail(std::string* error, std::string message) {
  if (error) *error = std::move(message);
  return false;
}

bool parseInt(std::string_view text, int& out) {
  auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && ptr == text.data() + text.size() && out >= 0;
}

bool parseSeconds(std::string_view text, double& out) {
  std::string s(text);
  char* end = nullptr;
  out = std::strtod(s.c_str(), &end);
  return !s.empty() && end == s.c_str() + s.size() && out >= 0 && out < 3600;
}

}  // namespace

bool Fault::matches(std::string_view requestPath) const {
  if (path.empty() || path == "*") return true;
  if (path.back() == '*') return requestPath.substr(0, path.size() - 1) == std::string_view(path).substr(0, path.size() - 1);
  return requestPath == path;
}

std::optional<Fault> Fault::parse(std::string_view text, std::string* error) {
  // Feed paths hold colons ("/json/u:alice/"), the items never do.
  std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || text.substr(colon).find('/') != std::string_view::npos) {
    fail(error, "fault needs PATH:ITEMS, e.g. /v1/posts/all:status=500");
    return std::nullopt;
  }
  Fault f;
  f.path = std::string(text.substr(0, colon));
  std::string_view items = text.substr(colon + 1);
  bool any = false;
  while (!items.empty()) {
    std::size_t comma = items.find(',');
    std::string_view item = items.substr(0, comma);
    items = comma == std::string_view::npos ? std::string_view() : items.substr(comma + 1);
    std::size_t eq = item.find('=');
    std::string_view key = item.substr(0, eq);
    std::string_view arg = eq == std::string_view::npos ? std::string_view() : item.substr(eq + 1);
    bool ok = true;
    if (key == "status") {
      ok = parseInt(arg, f.status) && f.status >= 100 && f.status <= 599;
      any = true;
    } else if (key == "delay") {
      ok = parseSeconds(arg, f.delay);
      any = true;
    } else if (key == "garbage" && arg.empty()) {
      f.body = Body::Garbage;
      any = true;
    } else if (key == "truncate" && arg.empty()) {
      f.body = Body::Truncated;
      any = true;
    } else if (key == "empty" && arg.empty()) {
      f.body = Body::Empty;
      any = true;
    } else if (key == "drop" && arg.empty()) {
      f.drop = true;
      any = true;
    } else if (key == "cut" && arg.empty()) {
      f.cut = true;
      any = true;
    } else if (key == "bom" && arg.empty()) {
      f.bom = true;
      any = true;
    } else if (key == "apply" && arg.empty()) {
      f.apply = true;
    } else if (key == "times") {
      ok = parseInt(arg, f.times);
    } else if (key == "after") {
      ok = parseInt(arg, f.after);
    } else {
      ok = false;
    }
    if (!ok) {
      fail(error, "bad fault item '" + std::string(item) + "'");
      return std::nullopt;
    }
  }
  if (!any) {
    fail(error, "fault has no effect (status, delay, garbage, truncate, empty, drop, cut or bom)");
    return std::nullopt;
  }
  return f;
}

}  // namespace pinboard_sim
