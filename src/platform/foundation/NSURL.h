#pragma once
// NSURL: an absolute URL, parsed once by curl's URL parser. Hierarchical
// URLs ("scheme://authority/path?query#fragment") give their parts; the
// others ("mailto:a@b", "about:blank", "http:/x") are opaque and give only a
// scheme. The text given is
// kept verbatim as absoluteString, so a URL made from a stored address
// compares equal to that address.
//
// A plain value, immutable; thread-safe to copy and read.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSURLError.h"

class NSURL {
public:
  // nullopt, and *error (NSURLErrorDomain, NSURLErrorBadURL, the text under
  // NSURLErrorFailingURLStringErrorKey) for text that is not an absolute URL:
  // no scheme, no host after "//", spaces or control characters, a bad port.
  static std::optional<NSURL> URLWithString(std::string_view text, NSErrorPtr* error = nullptr);
  // A file URL for a filesystem path; a relative path is taken relative to
  // the current directory. isDirectory adds a trailing slash.
  static NSURL fileURLWithPath(std::string_view path, bool isDirectory = false);

  const std::string& absoluteString() const;
  // Lower-case ("https", "file").
  const std::string& scheme() const;
  // As written in the URL (curl does not change its case); an IPv6 address
  // without its brackets. nullopt when the URL has no host (file URLs,
  // opaque URLs).
  const std::optional<std::string>& host() const;
  std::optional<int> port() const;
  const std::optional<std::string>& user() const;
  const std::optional<std::string>& password() const;
  // Percent-decoded, without a trailing slash (except the root "/"); for a
  // file URL, the filesystem path. Empty for opaque URLs.
  std::string path() const;
  const std::optional<std::string>& query() const;
  const std::optional<std::string>& fragment() const;
  bool isFileURL() const { return scheme() == "file"; }
  bool hasDirectoryPath() const;

  std::string lastPathComponent() const;
  // This URL with component appended to its path ("/" in component makes
  // further levels; other reserved characters are percent-encoded); query
  // and fragment are kept. An opaque URL comes back unchanged.
  NSURL URLByAppendingPathComponent(std::string_view component, bool isDirectory = false) const;
  NSURL URLByDeletingLastPathComponent() const;

  bool operator==(const NSURL& other) const { return absoluteString() == other.absoluteString(); }

  struct Parts;

private:
  explicit NSURL(std::shared_ptr<const Parts> parts) : _parts(std::move(parts)) {}
  NSURL _withRawPath(std::string rawPath) const;
  std::shared_ptr<const Parts> _parts;
};
