#include "platform/foundation/NSURL.h"

#include <curl/curl.h>

#include <cctype>
#include <cstring>
#include <filesystem>

#include "platform/foundation/ZBLocalizedString.h"

const std::string NSURLErrorDomain = "NSURLErrorDomain";
const std::string NSURLErrorFailingURLStringErrorKey = "NSErrorFailingURLStringKey";

struct NSURL::Parts {
  std::string text;
  std::string scheme;
  std::optional<std::string> user, password, host, query, fragment;
  std::optional<int> port;
  std::string rawPath;  // as written, still percent-encoded
  bool opaque = false;
};

namespace {

struct CurlURLDeleter {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using CurlURL = std::unique_ptr<CURLU, CurlURLDeleter>;

std::optional<std::string> getPart(CURLU* url, CURLUPart part) {
  char* value = nullptr;
  if (curl_url_get(url, part, &value, 0) != CURLUE_OK || value == nullptr) return std::nullopt;
  std::string out(value);
  curl_free(value);
  return out;
}

NSErrorPtr badURLError(std::string_view text, std::string_view reason) {
  Dictionary info;
  info.set(NSLocalizedDescriptionKey, ZBLocalizedString("The address isn’t a valid URL."));
  // curl's own wording, for the curious; it is not translated.
  info.set(NSLocalizedFailureReasonErrorKey, std::string(reason));
  info.set(NSURLErrorFailingURLStringErrorKey, std::string(text));
  return NSError::create(NSURLErrorDomain, NSURLErrorBadURL, std::move(info));
}

bool isSchemeChar(char c, bool first) {
  if (std::isalpha(static_cast<unsigned char>(c))) return true;
  return !first && (std::isdigit(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.');
}

std::string lowercase(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// "mailto:a@b", "about:blank", "http:/path": a scheme and a rest without
// an authority, which curl's parser (made for "scheme://host/…") refuses or
// reads too kindly.
std::shared_ptr<NSURL::Parts> makeOpaque(std::string_view text, std::size_t colon) {
  auto parts = std::make_shared<NSURL::Parts>();
  parts->text = std::string(text);
  parts->scheme = lowercase(std::string(text.substr(0, colon)));
  parts->opaque = true;
  return parts;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string percentDecode(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '%' && i + 2 < s.size() && hexValue(s[i + 1]) >= 0 && hexValue(s[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(s[i + 1]) * 16 + hexValue(s[i + 2]));
      i += 2;
    } else {
      out += s[i];
    }
  }
  return out;
}

// Encodes everything but unreserved characters, sub-delimiters, ':' and '@'
// (and '/' when keepSlash), as a path segment needs.
std::string percentEncodePath(std::string_view s, bool keepSlash) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(s.size());
  for (const char c : s) {
    const auto u = static_cast<unsigned char>(c);
    const bool plain = std::isalnum(u) || std::strchr("-._~!$&'()*+,;=:@", c) != nullptr || (keepSlash && c == '/');
    if (plain && c != '\0') {
      out += c;
    } else {
      out += '%';
      out += kHex[u >> 4];
      out += kHex[u & 0x0F];
    }
  }
  return out;
}

std::string authorityPrefix(const NSURL::Parts& p) {
  std::string out = p.scheme + "://";
  if (p.user) {
    out += *p.user;
    if (p.password) out.append(":").append(*p.password);
    out += "@";
  }
  // Appends, not "literal" + string: GCC 12 at -O3 warns falsely (-Wrestrict)
  // on the temporaries.
  if (p.host) {
    const bool literalIPv6 = p.host->find(':') != std::string::npos;
    if (literalIPv6) out += '[';
    out += *p.host;
    if (literalIPv6) out += ']';
  }
  if (p.port) out.append(":").append(std::to_string(*p.port));
  return out;
}

}  // namespace

std::optional<NSURL> NSURL::URLWithString(std::string_view text, NSErrorPtr* error) {
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (u <= 0x20 || u == 0x7F) {
      ZBSetError(error, badURLError(text, curl_url_strerror(CURLUE_MALFORMED_INPUT)));
      return std::nullopt;
    }
  }
  const std::size_t colon = text.find(':');
  bool validScheme = colon != std::string_view::npos && colon > 0;
  for (std::size_t i = 0; validScheme && i < colon; ++i) validScheme = isSchemeChar(text[i], i == 0);
  if (!validScheme) {
    ZBSetError(error, badURLError(text, curl_url_strerror(CURLUE_BAD_SCHEME)));
    return std::nullopt;
  }
  const std::string_view rest = text.substr(colon + 1);
  if (rest.substr(0, 2) != "//") {
    if (rest.empty()) {
      ZBSetError(error, badURLError(text, curl_url_strerror(CURLUE_MALFORMED_INPUT)));
      return std::nullopt;
    }
    return NSURL(makeOpaque(text, colon));
  }
  // curl would take "http:///x" as the host "x"; an empty authority is no host.
  if (rest.substr(0, 3) == "///" && lowercase(std::string(text.substr(0, colon))) != "file") {
    ZBSetError(error, badURLError(text, curl_url_strerror(CURLUE_NO_HOST)));
    return std::nullopt;
  }

  CurlURL url(curl_url());
  if (!url) {
    ZBSetError(error, badURLError(text, curl_url_strerror(CURLUE_OUT_OF_MEMORY)));
    return std::nullopt;
  }
  const std::string owned(text);
  // PATH_AS_IS keeps "/a/../b" as written: the URL must name exactly the
  // address it was made from.
  const CURLUcode rc = curl_url_set(url.get(), CURLUPART_URL, owned.c_str(), CURLU_NON_SUPPORT_SCHEME | CURLU_PATH_AS_IS);
  if (rc != CURLUE_OK) {
    ZBSetError(error, badURLError(text, curl_url_strerror(rc)));
    return std::nullopt;
  }

  auto parts = std::make_shared<Parts>();
  parts->text = owned;
  parts->scheme = lowercase(getPart(url.get(), CURLUPART_SCHEME).value_or(""));
  parts->user = getPart(url.get(), CURLUPART_USER);
  parts->password = getPart(url.get(), CURLUPART_PASSWORD);
  parts->host = getPart(url.get(), CURLUPART_HOST);
  if (parts->host && parts->host->size() >= 2 && parts->host->front() == '[' && parts->host->back() == ']') {
    parts->host = parts->host->substr(1, parts->host->size() - 2);
  }
  if (parts->host && parts->host->empty()) parts->host.reset();
  if (auto port = getPart(url.get(), CURLUPART_PORT)) parts->port = std::stoi(*port);  // curl checked 0…65535
  parts->rawPath = getPart(url.get(), CURLUPART_PATH).value_or("/");
  parts->query = getPart(url.get(), CURLUPART_QUERY);
  parts->fragment = getPart(url.get(), CURLUPART_FRAGMENT);
  if (parts->scheme != "file" && !parts->host) {
    ZBSetError(error, badURLError(text, curl_url_strerror(CURLUE_NO_HOST)));
    return std::nullopt;
  }
  return NSURL(std::move(parts));
}

NSURL NSURL::fileURLWithPath(std::string_view path, bool isDirectory) {
  std::string absolute(path);
  if (absolute.empty() || absolute.front() != '/') {
    std::error_code ec;
    std::filesystem::path cwd = std::filesystem::current_path(ec);
    absolute = (ec ? std::filesystem::path("/") : cwd).string() + (absolute.empty() ? "" : "/" + absolute);
  }
  if (isDirectory && absolute.back() != '/') absolute += '/';
  auto parts = std::make_shared<Parts>();
  parts->scheme = "file";
  parts->rawPath = percentEncodePath(absolute, true);
  parts->text = "file://" + parts->rawPath;
  return NSURL(std::move(parts));
}

const std::string& NSURL::absoluteString() const { return _parts->text; }
const std::string& NSURL::scheme() const { return _parts->scheme; }
const std::optional<std::string>& NSURL::host() const { return _parts->host; }
std::optional<int> NSURL::port() const { return _parts->port; }
const std::optional<std::string>& NSURL::user() const { return _parts->user; }
const std::optional<std::string>& NSURL::password() const { return _parts->password; }
const std::optional<std::string>& NSURL::query() const { return _parts->query; }
const std::optional<std::string>& NSURL::fragment() const { return _parts->fragment; }

bool NSURL::hasDirectoryPath() const { return !_parts->opaque && !_parts->rawPath.empty() && _parts->rawPath.back() == '/'; }

std::string NSURL::path() const {
  if (_parts->opaque) return {};
  std::string decoded = percentDecode(_parts->rawPath);
  while (decoded.size() > 1 && decoded.back() == '/') decoded.pop_back();
  return decoded;
}

std::string NSURL::lastPathComponent() const {
  const std::string p = path();
  if (p == "/" || p.empty()) return p;
  return p.substr(p.rfind('/') + 1);
}

NSURL NSURL::URLByAppendingPathComponent(std::string_view component, bool isDirectory) const {
  if (_parts->opaque) return *this;
  std::string rawPath = _parts->rawPath;
  if (rawPath.empty() || rawPath.back() != '/') rawPath += '/';
  rawPath += percentEncodePath(component, true);
  if (isDirectory && rawPath.back() != '/') rawPath += '/';
  return _withRawPath(std::move(rawPath));
}

NSURL NSURL::URLByDeletingLastPathComponent() const {
  if (_parts->opaque) return *this;
  std::string rawPath = _parts->rawPath;
  while (rawPath.size() > 1 && rawPath.back() == '/') rawPath.pop_back();
  const std::size_t slash = rawPath.rfind('/');
  rawPath = slash == std::string::npos ? "/" : rawPath.substr(0, slash + 1);
  return _withRawPath(std::move(rawPath));
}

NSURL NSURL::_withRawPath(std::string rawPath) const {
  auto parts = std::make_shared<Parts>(*_parts);
  parts->rawPath = std::move(rawPath);
  std::string text = isFileURL() && !parts->host ? std::string("file://") : authorityPrefix(*parts);
  text += parts->rawPath;
  if (parts->query) text += "?" + *parts->query;
  if (parts->fragment) text += "#" + *parts->fragment;
  parts->text = std::move(text);
  return NSURL(std::move(parts));
}
