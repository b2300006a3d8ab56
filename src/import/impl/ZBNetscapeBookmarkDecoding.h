#pragma once
// Turns the bytes of a bookmark file into UTF-8 before the HTML parser sees
// them, so that the parser never guesses: a byte-order mark decides first,
// then a META charset declaration (Mac Roman under its Mac labels, Latin-1
// and ASCII read as windows-1252, as browsers do), then UTF-8 when the bytes
// are valid UTF-8, else windows-1252. Line ends are left as they are.

#include <string>
#include <string_view>

namespace zb::netscape {

// The encoding name (ICU's) that the file's META declares, normalised as
// above; empty when there is none or ICU does not know it.
std::string declaredCharset(std::string_view bytes);

// bytes as UTF-8, by the order above. Undecodable sequences become U+FFFD.
// Never fails. Returns bytes itself (moved, byte-order mark removed) when they
// already are the answer.
std::string decodeToUTF8(std::string bytes);

}  // namespace zb::netscape
