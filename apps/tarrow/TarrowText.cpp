#include "TarrowText.h"

#include <clocale>
#include <cstdlib>
#include <set>

#include "platform/foundation/ZBLocalizedString.h"

std::string TarrowLocalized(std::string_view english, std::initializer_list<std::string> arguments) {
  const std::string format = ZBLocalizedString(english);
  std::string text;
  auto next = arguments.begin();
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format.compare(i, 2, "%@") == 0) {
      if (next != arguments.end()) text += *next++;
      ++i;
    } else {
      text += format[i];
    }
  }
  return text;
}

void TarrowSelectLanguage() {
  if (!std::setlocale(LC_ALL, "")) std::setlocale(LC_ALL, "C.UTF-8");
  for (const char* variable : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(variable);
    if (!value || !*value) continue;
    std::string language(value);
    language = language.substr(0, language.find_first_of("_.@:"));
    if (language != "C" && language != "POSIX" && !language.empty()) ZBSetLocalizationLanguage(language);
    return;
  }
}

std::vector<std::string> TarrowSplitTags(const std::vector<std::string>& typed) {
  std::vector<std::string> tags;
  std::set<std::string> seen;
  for (const std::string& text : typed) {
    std::size_t start = 0;
    while (start < text.size()) {
      std::size_t end = text.find_first_of(", \t\n\r\f\v", start);
      if (end == std::string::npos) end = text.size();
      std::string tag = text.substr(start, end - start);
      if (!tag.empty() && seen.insert(tag).second) tags.push_back(std::move(tag));
      start = end + 1;
    }
  }
  return tags;
}
