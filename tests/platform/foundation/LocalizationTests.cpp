#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <filesystem>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/foundation/ZBLocalizedString.h"
#include "support/TemporaryDirectory.h"
#include "support/TogetherThreads.h"

namespace {

// Switches lookups to a language for one test and back afterwards.
class LanguageScope {
public:
  explicit LanguageScope(std::string_view language) { ZBSetLocalizationLanguage(language); }
  ~LanguageScope() { ZBSetLocalizationLanguage(""); }
};

// The repository root, from this file's place in it.
std::filesystem::path sourceRoot() {
  return std::filesystem::path(__FILE__).parent_path().parent_path().parent_path().parent_path();
}

// Runs a shell command; returns its exit status and fills output with what
// it printed on both streams.
int run(const std::string& command, std::string& output) {
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen((command + " 2>&1").c_str(), "r"), pclose);
  if (!pipe) return -1;
  char buffer[4096];
  std::size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe.get())) > 0) output.append(buffer, n);
  const int status = pclose(pipe.release());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string quoted(const std::filesystem::path& p) { return "'" + p.string() + "'"; }

}  // namespace

TEST(ZBLocalizedString, LooksUpGermanAndPassesUnknownTextsThrough) {
  // The build tree's catalogues are found without any configuration.
  EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(ZBLocalizationDirectory()) / "de" / "LC_MESSAGES" /
                                      "com.orvane.zbtarrowdata.mo"))
      << ZBLocalizationDirectory();

  // Outside a language the English text comes back.
  EXPECT_EQ(ZBLocalizedString("Couldn’t Logout from Pinboard"), "Couldn’t Logout from Pinboard");
  {
    LanguageScope german("de");
    EXPECT_EQ(ZBLocalizedString("Couldn’t Logout from Pinboard"), "Abmelden von Pinboard nicht möglich");
    EXPECT_EQ(ZBLocalizedString("Looking for dead links…"), "Suche nach toten Links…");
    EXPECT_EQ(ZBLocalizedString("Cancel"), "Abbrechen");
    EXPECT_EQ(ZBLocalizedString("Public"), "Öffentlich");
    // The key is the exact text: a plain apostrophe or three dots is another text.
    EXPECT_EQ(ZBLocalizedString("Couldn't Logout from Pinboard"), "Couldn't Logout from Pinboard");
    EXPECT_EQ(ZBLocalizedString("Looking for dead links..."), "Looking for dead links...");
    EXPECT_EQ(ZBLocalizedString("No such text in any catalogue"), "No such text in any catalogue");
    // The empty id would otherwise give the catalogue's header.
    EXPECT_EQ(ZBLocalizedString(""), "");

    // Lookups from several threads at once.
    std::vector<int> wrong(4, 0);
    RunTogether(4, [&](int t) {
      for (int i = 0; i < 500; ++i) {
        if (ZBLocalizedString("Unread") != "Ungelesen") ++wrong[t];
      }
    });
    for (int w : wrong) EXPECT_EQ(w, 0);
  }
  // Switching back must not serve the German answers cached above.
  EXPECT_EQ(ZBLocalizedString("Couldn’t Logout from Pinboard"), "Couldn’t Logout from Pinboard");
  {
    LanguageScope unknown("xx");
    EXPECT_EQ(ZBLocalizedString("Cancel"), "Cancel");
  }
}

// Every text the sources look up must have a German translation: extract
// the ids as the `pot` target does and compare them with de.po.
TEST(ZBLocalizedString, GermanCatalogueCoversEveryTextInTheSources) {
  const auto root = sourceRoot();
  ASSERT_TRUE(std::filesystem::exists(root / "po" / "de.po")) << root;
  std::vector<std::string> sources;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root / "src")) {
    const auto ext = entry.path().extension();
    if (entry.is_regular_file() && (ext == ".cpp" || ext == ".h")) sources.push_back(entry.path().string());
  }
  ASSERT_FALSE(sources.empty());

  TemporaryDirectory scratch;
  std::ostringstream list;
  for (const auto& s : sources) list << s << "\n";
  const auto listFile = scratch / "sources.txt";
  {
    std::unique_ptr<FILE, int (*)(FILE*)> f(fopen(listFile.c_str(), "w"), fclose);
    ASSERT_TRUE(f);
    fputs(list.str().c_str(), f.get());
  }
  const auto pot = scratch / "extracted.pot";
  std::string output;
  ASSERT_EQ(run("xgettext --language=C++ --from-code=UTF-8 --keyword=ZBLocalizedString --files-from=" +
                    quoted(listFile) + " --output=" + quoted(pot),
                output),
            0)
      << output;
  if (!std::filesystem::exists(pot)) return;  // no text in the sources yet: nothing to cover

  output.clear();
  const int status = run("msgcmp " + quoted(root / "po" / "de.po") + " " + quoted(pot), output);
  // msgcmp names the template's line of each missing id; show the id itself.
  std::vector<std::string> potLines;
  {
    std::ifstream in(pot);
    for (std::string line; std::getline(in, line);) potLines.push_back(line);
  }
  std::string missing;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (line.find("used but not defined") == std::string::npos) continue;
    const auto first = line.find(':'), second = line.find(':', first + 1);
    std::size_t at = std::strtoul(line.substr(first + 1, second - first - 1).c_str(), nullptr, 10);
    if (at < 1 || at > potLines.size()) {
      missing += line + "\n";
      continue;
    }
    // The named line may be the msgstr: walk back to the msgid it belongs to.
    --at;
    while (at > 0 && potLines[at].rfind("msgid ", 0) != 0) --at;
    for (; at < potLines.size() && potLines[at].rfind("msgstr", 0) != 0; ++at) missing += potLines[at] + "\n";
  }
  EXPECT_EQ(status, 0) << "texts without a German translation:\n" << missing;
}
