#pragma once
// Localised user-visible texts. The message id is the English text exactly
// as shown (with ’ U+2019 and … U+2026); the catalogue of the process's
// language (LANGUAGE, LC_ALL, LC_MESSAGES, LANG, as gettext reads them) is
// searched in the domain "com.orvane.zbtarrowdata". A text without a
// translation comes back unchanged. Thread-safe.
//
// Catalogues are looked for under $ZBTARROW_LOCALEDIR if set, else in the
// build tree (when it holds them), else in the installed locale directory.

#include <string>
#include <string_view>

inline constexpr const char* ZBLocalizationDomain = "com.orvane.zbtarrowdata";

std::string ZBLocalizedString(std::string_view englishText);

// The directory the catalogues are read from (chosen on first use).
const std::string& ZBLocalizationDirectory();

// Switches the language of later lookups to language ("de"), or back to
// what the environment says when language is empty. It changes the process's
// environment and message locale, so call it only while no other thread runs
// (at start-up or in a test).
void ZBSetLocalizationLanguage(std::string_view language);
