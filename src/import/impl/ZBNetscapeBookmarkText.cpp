#include "import/impl/ZBNetscapeBookmarkText.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

namespace zb::netscape {

std::string cleanedString(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::size_t keepFrom = std::string::npos;  // where the first kept character starts in out
  std::size_t keepTo = 0;                    // where the last kept character ends in out
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  const auto length = static_cast<std::int32_t>(text.size());
  std::int32_t i = 0;
  while (i < length) {
    std::int32_t start = i;
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    bool control;
    bool trimmable;
    if (c < 0x80 && c >= 0) {
      control = c < 0x20 || c == 0x7F;
      trimmable = control || c == ' ';
    } else {
      auto type = u_charType(c);
      control = type == U_CONTROL_CHAR || type == U_FORMAT_CHAR;
      trimmable = control || type == U_SPACE_SEPARATOR;
    }
    if (control) {
      out.push_back(' ');
    } else {
      out.append(text.data() + start, static_cast<std::size_t>(i - start));
    }
    if (!trimmable) {
      if (keepFrom == std::string::npos) keepFrom = out.size() - static_cast<std::size_t>(i - start);
      keepTo = out.size();
    }
  }
  if (keepFrom == std::string::npos) return {};
  out.resize(keepTo);
  out.erase(0, keepFrom);
  return out;
}

}  // namespace zb::netscape
