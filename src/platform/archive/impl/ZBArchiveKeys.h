#pragma once

#include <string>

namespace zb::archive {

// Keys the format reserves start with '$'; user keys starting with it get one more.
inline std::string escapedKey(const std::string& key) { return !key.empty() && key[0] == '$' ? "$" + key : key; }

}  // namespace zb::archive
