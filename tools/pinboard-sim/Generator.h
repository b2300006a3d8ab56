#pragma once
// Deterministic generator of realistic bookmark collections: the same seed
// gives the same bookmarks on every machine (its own random source and
// distributions, nothing from <random>, whose distributions vary by library).

#include <cstdint>
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
  std::size_t tagVocabulary = 1500;  // distinct tags, drawn with a Zipf law
  double zipfExponent = 1.1;
};

// count bookmarks with distinct URLs, newest first. The URLs embed the
// account's name so that two accounts generated with one seed share only the
// URLs meant to be shared (a few popular ones, for popular feeds and "others").
std::vector<Bookmark> generateBookmarks(const std::string& username, std::size_t count,
                                        const GeneratorOptions& options = {});

// The seven source names of imported bookmarks, in the service's order.
const std::vector<std::string>& sourceNames();

}  // namespace pinboard_sim
