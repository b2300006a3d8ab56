#include "platform/foundation/ZBLocalizedString.h"

#include <libintl.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>

#if !defined(ZB_BUILD_LOCALEDIR) || !defined(ZB_INSTALL_LOCALEDIR)
#error "ZB_BUILD_LOCALEDIR and ZB_INSTALL_LOCALEDIR must be defined by the build"
#endif

extern "C" int _nl_msg_cat_cntr;  // glibc's catalogue generation counter

namespace {

bool holdsCatalogue(const std::filesystem::path& directory) {
  std::error_code ec;
  for (std::filesystem::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
    const auto mo = it->path() / "LC_MESSAGES" / (std::string(ZBLocalizationDomain) + ".mo");
    if (std::filesystem::is_regular_file(mo, ec)) return true;
  }
  return false;
}

void bindDomainOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    bindtextdomain(ZBLocalizationDomain, ZBLocalizationDirectory().c_str());
    // Catalogues are UTF-8 and so are our strings, whatever the locale's codeset.
    bind_textdomain_codeset(ZBLocalizationDomain, "UTF-8");
  });
}

bool isPlainCLocale(const char* name) {
  return name == nullptr || std::strcmp(name, "C") == 0 || std::strcmp(name, "POSIX") == 0;
}

// What ZBSetLocalizationLanguage changed, so that an empty language puts it back.
struct SavedEnvironment {
  std::optional<std::string> language;  // LANGUAGE before the first switch
  std::optional<std::string> messages;  // LC_MESSAGES locale, if we replaced it
  bool saved = false;
};

SavedEnvironment& savedEnvironment() {
  static SavedEnvironment saved;
  return saved;
}

}  // namespace

const std::string& ZBLocalizationDirectory() {
  static const std::string directory = [] {
    if (const char* fromEnvironment = std::getenv("ZBTARROW_LOCALEDIR"); fromEnvironment && *fromEnvironment) {
      return std::string(fromEnvironment);
    }
    if (holdsCatalogue(ZB_BUILD_LOCALEDIR)) return std::string(ZB_BUILD_LOCALEDIR);
    return std::string(ZB_INSTALL_LOCALEDIR);
  }();
  return directory;
}

std::string ZBLocalizedString(std::string_view englishText) {
  // gettext answers the empty id with the catalogue's header.
  if (englishText.empty()) return {};
  bindDomainOnce();
  const std::string key(englishText);
  return dgettext(ZBLocalizationDomain, key.c_str());
}

void ZBSetLocalizationLanguage(std::string_view language) {
  SavedEnvironment& saved = savedEnvironment();
  if (!saved.saved) {
    if (const char* current = std::getenv("LANGUAGE")) saved.language = current;
    saved.saved = true;
  }
  if (!language.empty()) {
    setenv("LANGUAGE", std::string(language).c_str(), 1);
    // gettext ignores LANGUAGE in the plain C locale; its UTF-8 twin has the
    // same conventions and lets the lookup through.
    const char* messages = std::setlocale(LC_MESSAGES, nullptr);
    if (isPlainCLocale(messages)) {
      if (!saved.messages) saved.messages = messages ? messages : "C";
      std::setlocale(LC_MESSAGES, "C.UTF-8");
    }
  } else {
    if (saved.language) {
      setenv("LANGUAGE", saved.language->c_str(), 1);
    } else {
      unsetenv("LANGUAGE");
    }
    if (saved.messages) {
      std::setlocale(LC_MESSAGES, saved.messages->c_str());
      saved.messages.reset();
    }
  }
  // gettext caches lookups per locale name, not per LANGUAGE; this is its
  // documented way of saying that the language changed.
  ++_nl_msg_cat_cntr;
}
