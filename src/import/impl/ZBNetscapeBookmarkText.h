#pragma once
// The cleaning rule for titles and addresses read from a bookmark file.

#include <string>
#include <string_view>

namespace zb::netscape {

// Each control or format character (general categories Cc and Cf) becomes
// one space, so CR LF becomes two; runs of spaces stay. Then space separators
// (Zs) and tabs are trimmed from both ends. text must be UTF-8.
std::string cleanedString(std::string_view text);

}  // namespace zb::netscape
