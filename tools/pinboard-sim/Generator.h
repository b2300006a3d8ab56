#pragma once
// Deterministic generator of realistic bookmark collections: the same seed
// gives the same bookmarks on every machine (its own random source and
// distributions, nothing from <random>, whose distributions vary by library).

#include <cstdint>
#include <string>
#include <vector>

#include "pinboard-sim/Bookmark.h"

namespace pinboard_sim {

struct GeneratorOptions {
  std::uint64_t seed = 1;
  std::int64_t newest = 1700000000;  // time of the newest bookmark (2023-11-14)
  double averageGap = 3 * 3600;      // seconds between consecutive bookmarks
  double privateShare = 0.2;
  double unreadShare = 0.15;
  double starredShare = 0.08;
  double sourcedShare = 0.12;
  double nonASCIIShare = 0.12;
  double othersShare = 0.3;          // bookmarks with a known "others" count
  // Real accounts are untidy: imports give runs of bookmarks one time, titles
  // go missing or read "[no title]", text arrives decomposed (NFD), notes
  // end in spaces and line breaks, and some titles carry characters above
  // U+FFFF (emoji), which JSON escapes as surrogate pairs.
  double importShare = 0.01;         // a bookmark that starts a run of 5 to 60 with its time
  double untitledShare = 0.04;       // half "", half "[no title]"
  double decomposedShare = 0.03;     // titles and notes in NFD
  double astralShare = 0.04;         // titles with characters above U+FFFF
  double untidyNotesShare = 0.1;     // notes ending in spaces or line breaks
  std::size_t tagVocabulary = 1500;  // distinct tags, drawn with a Zipf law
  double zipfExponent = 1.1;
  // Link-check ground: with webBase set ("http://127.0.0.1:PORT", a WebSide),
  // this share of the bookmarks points at it instead, and deadShare of those
  // at addresses it answers 404 or 410. Decided by the bookmark's index
  // alone, so the rest of the collection stays as without it.
  std::string webBase;
  double webShare = 0;
  double deadShare = 0.25;
};

// count bookmarks with distinct URLs, newest first. The URLs embed the
// account's name so that two accounts generated with one seed share only the
// URLs meant to be shared (a few popular ones, for popular feeds and "others").
// Tags include the service's odd characters (home+improvement, c#, drum&bass,
// for:someone, !tobuy, c/c++) and never two case variants on one bookmark;
// the first bookmark and every 97th after it have an emoji title, so even a
// small account has one.
std::vector<Bookmark> generateBookmarks(const std::string& username, std::size_t count,
                                        const GeneratorOptions& options = {});

// The seven source names of imported bookmarks, in the service's order.
const std::vector<std::string>& sourceNames();

}  // namespace pinboard_sim
