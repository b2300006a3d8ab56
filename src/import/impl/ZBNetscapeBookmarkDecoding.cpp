#include "import/impl/ZBNetscapeBookmarkDecoding.h"

#include <unicode/ucnv.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>

#include "platform/foundation/impl/ZBUTF8.h"

namespace zb::netscape {
namespace {

struct ConverterCloser {
  void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, ConverterCloser>;

Converter openConverter(const std::string& name) {
  UErrorCode status = U_ZERO_ERROR;
  Converter converter(ucnv_open(name.c_str(), &status));
  if (U_FAILURE(status)) return nullptr;
  return converter;
}

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

std::size_t findNoCase(std::string_view text, std::string_view needle, std::size_t from) {
  auto it = std::search(text.begin() + static_cast<std::ptrdiff_t>(std::min(from, text.size())), text.end(),
                        needle.begin(), needle.end(), [](char a, char b) { return lower(a) == lower(b); });
  return it == text.end() ? std::string_view::npos : static_cast<std::size_t>(it - text.begin());
}

// Labels that real exports use for encodings ICU names otherwise, or that
// browsers read as a wider encoding. "X-MAC-SYSTEM" is not registered
// anywhere; the Mac programs that write it mean Mac Roman.
std::string normalisedLabel(std::string label) {
  std::transform(label.begin(), label.end(), label.begin(), lower);
  // A META cannot truly declare a UTF-16 or UTF-32 file (it was read as
  // ASCII to be found), so, as in browsers, such labels mean UTF-8.
  if (label.starts_with("utf-16") || label.starts_with("utf-32") || label == "utf8") return "utf-8";
  static constexpr std::array<std::pair<std::string_view, std::string_view>, 11> aliases{{
      {"x-mac-roman", "macintosh"},   {"x-mac-system", "macintosh"}, {"mac", "macintosh"},
      {"macroman", "macintosh"},      {"x-mac", "macintosh"},        {"iso-8859-1", "windows-1252"},
      {"iso8859-1", "windows-1252"},  {"latin1", "windows-1252"},    {"l1", "windows-1252"},
      {"us-ascii", "windows-1252"},   {"ascii", "windows-1252"},
  }};
  for (const auto& [from, to] : aliases) {
    if (label == from) return std::string(to);
  }
  return label;
}

// Decodes bytes from the named encoding into UTF-8, in chunks through ICU's
// pivot so that no UTF-16 copy of a large file is made.
std::string convert(std::string_view bytes, UConverter* from) {
  Converter to = openConverter("UTF-8");
  std::string out;
  out.reserve(bytes.size() + bytes.size() / 8);
  std::array<UChar, 4096> pivot;
  UChar* pivotSource = pivot.data();
  UChar* pivotTarget = pivot.data();
  const char* source = bytes.data();
  const char* sourceLimit = bytes.data() + bytes.size();
  std::array<char, 65536> chunk;
  UErrorCode status = U_ZERO_ERROR;
  bool reset = true;
  do {
    status = U_ZERO_ERROR;
    char* target = chunk.data();
    ucnv_convertEx(to.get(), from, &target, chunk.data() + chunk.size(), &source, sourceLimit, pivot.data(),
                   &pivotSource, &pivotTarget, pivot.data() + pivot.size(), reset, true,
                   &status);
    reset = false;
    out.append(chunk.data(), static_cast<std::size_t>(target - chunk.data()));
  } while (status == U_BUFFER_OVERFLOW_ERROR);
  return out;
}

std::string convert(std::string_view bytes, const std::string& encoding) {
  Converter from = openConverter(encoding);
  return convert(bytes, from.get());
}

}  // namespace

std::string declaredCharset(std::string_view bytes) {
  // Declarations sit in the head; a file that names its charset after its
  // first list is not one any program writes.
  std::string_view head = bytes.substr(0, std::min(bytes.size(), findNoCase(bytes, "<dl", 0)));
  for (std::size_t meta = findNoCase(head, "<meta", 0); meta != std::string_view::npos;
       meta = findNoCase(head, "<meta", meta + 5)) {
    std::size_t end = head.find('>', meta);
    std::string_view tag = head.substr(meta, end == std::string_view::npos ? std::string_view::npos : end - meta);
    std::size_t at = findNoCase(tag, "charset", 0);
    if (at == std::string_view::npos) continue;
    at += 7;
    while (at < tag.size() && (tag[at] == ' ' || tag[at] == '\t')) ++at;
    if (at >= tag.size() || tag[at] != '=') continue;
    ++at;
    while (at < tag.size() && (tag[at] == ' ' || tag[at] == '\t' || tag[at] == '"' || tag[at] == '\'')) ++at;
    std::size_t stop = at;
    while (stop < tag.size() && (std::isalnum(static_cast<unsigned char>(tag[stop])) || tag[stop] == '-' ||
                                 tag[stop] == '_' || tag[stop] == '.' || tag[stop] == ':')) {
      ++stop;
    }
    std::string label = normalisedLabel(std::string(tag.substr(at, stop - at)));
    if (!label.empty() && openConverter(label)) return label;
  }
  return {};
}

std::string decodeToUTF8(std::string bytes) {
  std::string_view view(bytes);
  if (view.starts_with("\xEF\xBB\xBF")) {
    if (isValidUTF8(view.substr(3))) return bytes.erase(0, 3);
    return convert(view.substr(3), "UTF-8");
  }
  if (view.starts_with("\xFF\xFE")) return convert(view.substr(2), "UTF-16LE");
  if (view.starts_with("\xFE\xFF")) return convert(view.substr(2), "UTF-16BE");
  std::string declared = declaredCharset(view);
  if (declared.empty()) {
    if (isValidUTF8(view)) return bytes;
    return convert(view, "windows-1252");
  }
  Converter from = openConverter(declared);
  if (ucnv_getType(from.get()) == UCNV_UTF8 && isValidUTF8(view)) return bytes;
  return convert(view, from.get());
}

}  // namespace zb::netscape
