#pragma once
// Texts of the command line: localised like the library's own (same
// catalogue), with "%@" placeholders filled in order.

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

// The catalogue's text for english with each "%@" replaced by the next
// argument (missing arguments leave the placeholder empty).
std::string TarrowLocalized(std::string_view english, std::initializer_list<std::string> arguments = {});

// Picks the message language from LANGUAGE, LC_ALL, LC_MESSAGES or LANG ("de_DE.UTF-8"
// gives "de"), since the machine may have no locale of that name installed.
// Call once at start-up, before any thread starts.
void TarrowSelectLanguage();

// Tags as the user typed them: split at commas and whitespace, empty pieces
// dropped, the first spelling of a repeated tag kept. The service would split
// them the same way.
std::vector<std::string> TarrowSplitTags(const std::vector<std::string>& typed);
