#pragma once
// NSSortDescriptor: one key of an ordering — a key path, a direction and a
// comparison. A plain value; thread-safe to copy.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/Value.h"

enum class NSSortComparison {
  Compare,                          // compare: numbers by value, strings by code units
  CaseInsensitiveCompare,           // caseInsensitiveCompare: Unicode case folding
  LocalizedCaseInsensitiveCompare,  // localizedCaseInsensitiveCompare: folded case, then the text
  LocalizedStandardCompare,         // localizedStandardCompare: like the above, digits by value
};

class NSSortDescriptor {
public:
  static NSSortDescriptor sortDescriptorWithKey(std::string key, bool ascending,
                                                NSSortComparison comparison = NSSortComparison::Compare) {
    return NSSortDescriptor(std::move(key), ascending, comparison);
  }
  NSSortDescriptor(std::string key, bool ascending, NSSortComparison comparison = NSSortComparison::Compare)
      : _key(std::move(key)), _ascending(ascending), _comparison(comparison) {}

  const std::string& key() const { return _key; }
  bool ascending() const { return _ascending; }
  NSSortComparison comparison() const { return _comparison; }

  // Orders two values the way this descriptor orders them (direction
  // included): negative, zero or positive. Absent values sort before every
  // other value; values of kinds that do not compare are equal.
  int compareValues(const Value& a, const Value& b) const;
  // The same on the values of key (a key path) of two objects.
  int compareObjects(const Value& a, const Value& b) const;

  bool operator==(const NSSortDescriptor&) const = default;

private:
  std::string _key;
  bool _ascending;
  NSSortComparison _comparison;
};

// Compares two strings as comparison does: negative, zero or positive.
int ZBCompareStrings(std::string_view a, std::string_view b, NSSortComparison comparison);

// Orders by each descriptor in turn; a stable sort.
void ZBSortValues(std::vector<Value>& values, const std::vector<NSSortDescriptor>& descriptors);
