// Cost of reading a bookmark file into its folder tree, against libxml2's own
// HTML parse of the same bytes plus a bare walk of its tree, measured in the
// same iteration (target: ratio_vs_baseline ≤ 1.5).
//
//  - BM_ImportParse/100000: a generated export of 100 000 links in 1 000
//    folders (nested three deep, with attributes and notes as browsers write
//    them), parsed by ZBTarrowNetscapeBookmarkParsingOperation from its file
//    (reading and decoding included; the baseline parses bytes already in
//    memory). Counters: ratio_vs_baseline, ms_per_file, baseline_ms, file_mb,
//    peak_rss_mb (the process's high-water mark so far), parse_rss_mb and
//    baseline_rss_mb (how far the resident set rose during one parse, and
//    during one baseline parse; Linux only), rss_ratio (their ratio).
//  - BM_ImportParse/1000000: the same shape at about 200 MB, one iteration,
//    for the memory counters.
//
//   build/<preset>/bench/import [--benchmark_filter=…]

#include <benchmark/benchmark.h>
#include <libxml/HTMLparser.h>
#include <malloc.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

#include "import/ZBTarrowNetscapeBookmarkParsingOperation.h"

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

double peakRSSMegabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;  // kilobytes on Linux
}

// A line of /proc/self/status ("VmRSS", "VmHWM") in megabytes, or -1.
double statusMegabytes(const std::string& field) {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, field.size() + 1, field + ":") == 0) return std::atof(line.c_str() + field.size() + 1) / 1024.0;
  return -1;
}

// Starts the high-water mark of the resident set afresh (Linux), after
// handing freed heap back to the system so that one parse does not reuse what
// the one before left; false where that cannot be done.
bool resetPeakRSS() {
  malloc_trim(0);
  return static_cast<bool>(std::ofstream("/proc/self/clear_refs") << "5");
}

// links links in links / 100 folders: groups of a folder holding two nested
// ones, each with 100 links; every fifth folder and every tenth link
// described.
std::string generateExport(std::size_t links) {
  std::string out =
      "<!DOCTYPE NETSCAPE-Bookmark-file-1>\n<!-- This is an automatically generated file. -->\n"
      "<META HTTP-EQUIV=\"Content-Type\" CONTENT=\"text/html; charset=UTF-8\">\n"
      "<TITLE>Bookmarks</TITLE>\n<H1>Bookmarks</H1>\n<DL><p>\n";
  std::size_t next = 0;
  for (std::size_t folder = 0; next < links; ++folder) {
    std::size_t level = folder % 3;
    std::string indent(4 * (level + 1), ' ');
    out += indent + "<DT><H3 ADD_DATE=\"1463688081\" LAST_MODIFIED=\"1463688236\">Folder " + std::to_string(folder) +
           "</H3>\n";
    if (folder % 5 == 0) out += indent + "<DD>Folder about things number " + std::to_string(folder) + "\n";
    out += indent + "<DL><p>\n";
    for (std::size_t i = 0; i < 100 && next < links; ++i, ++next) {
      out += indent + "    <DT><A HREF=\"https://www.example.com/articles/" + std::to_string(next) +
             "/a-readable-slug\" ADD_DATE=\"1463686493\" PRIVATE=\"0\" TAGS=\"reading,web,example\">"
             "An article title of ordinary length, number " +
             std::to_string(next) + "</A>\n";
      if (i % 10 == 0) out += indent + "    <DD>A note of a sentence or two &amp; a little more.\n";
    }
    if (level == 2 || next >= links) {
      for (std::size_t l = 0; l <= level; ++l) out += std::string(4 * (level - l + 1), ' ') + "</DL><p>\n";
    }
  }
  out += "</DL><p>\n";
  return out;
}

struct ExportFile {
  explicit ExportFile(std::size_t links) {
    std::string pattern = (std::filesystem::temp_directory_path() / "zbbench-XXXXXX").string();
    dir = mkdtemp(pattern.data()) ? pattern : std::filesystem::temp_directory_path().string();
    path = dir / "bookmarks.html";
    bytes = generateExport(links);
    std::ofstream(path, std::ios::binary) << bytes;
  }
  ~ExportFile() {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
  std::filesystem::path dir, path;
  std::string bytes;
};

// The baseline: libxml2 building its tree from the bytes and a walk that
// visits every node once, nothing more. Returns the number of <a> elements.
std::size_t bareParseAndWalk(const std::string& bytes) {
  constexpr int options = HTML_PARSE_RECOVER | HTML_PARSE_NOERROR | HTML_PARSE_NOWARNING | HTML_PARSE_NONET |
                          HTML_PARSE_COMPACT | HTML_PARSE_IGNORE_ENC | XML_PARSE_HUGE;
  htmlDocPtr doc = htmlReadMemory(bytes.data(), static_cast<int>(bytes.size()), nullptr, "UTF-8", options);
  std::size_t anchors = 0;
  xmlNode* node = xmlDocGetRootElement(doc);
  while (node) {
    if (node->type == XML_ELEMENT_NODE && node->name[0] == 'a' && node->name[1] == 0) ++anchors;
    if (node->children) {
      node = node->children;
      continue;
    }
    while (node && !node->next) node = node->parent;
    if (node) node = node->next;
  }
  xmlFreeDoc(doc);
  return anchors;
}

void BM_ImportParse(benchmark::State& state) {
  const auto links = static_cast<std::size_t>(state.range(0));
  ExportFile file(links);
  double measured = 0, baseline = 0, parseRSS = 0, baselineRSS = 0;
  for (auto _ : state) {
    bool peakReset = resetPeakRSS();
    double before = statusMegabytes("VmRSS");
    auto start = Clock::now();
    std::size_t anchors = bareParseAndWalk(file.bytes);
    baseline += secondsSince(start);
    if (peakReset) baselineRSS = std::max(baselineRSS, statusMegabytes("VmHWM") - before);

    peakReset = resetPeakRSS();
    before = statusMegabytes("VmRSS");
    start = Clock::now();
    auto operation = ZBTarrowNetscapeBookmarkParsingOperation::create(NSURL::fileURLWithPath(file.path.string()));
    operation->start();
    Value root = operation->completionProvider()(nullptr);
    measured += secondsSince(start);
    if (peakReset) parseRSS = std::max(parseRSS, statusMegabytes("VmHWM") - before);
    if (!root || operation->summary().itemCount != links || anchors != links) {
      state.SkipWithError("not every link was read");
      return;
    }
  }
  state.counters["ratio_vs_baseline"] = measured / baseline;
  state.counters["ms_per_file"] = 1000 * measured / static_cast<double>(state.iterations());
  state.counters["baseline_ms"] = 1000 * baseline / static_cast<double>(state.iterations());
  state.counters["file_mb"] = static_cast<double>(file.bytes.size()) / (1024.0 * 1024.0);
  state.counters["peak_rss_mb"] = peakRSSMegabytes();
  if (parseRSS > 0 && baselineRSS > 0) {
    state.counters["parse_rss_mb"] = parseRSS;
    state.counters["baseline_rss_mb"] = baselineRSS;
    state.counters["rss_ratio"] = parseRSS / baselineRSS;
  }
}
BENCHMARK(BM_ImportParse)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_ImportParse)->Arg(1000000)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
