#include "platform/objectstore/NSSortDescriptor.h"

#include <unicode/ucol.h>

#include <algorithm>
#include <mutex>

#include "platform/foundation/NSObject.h"
#include "platform/predicate/ZBStringFolding.h"

namespace {

// Shared collators for the localized comparisons; ICU collators are safe to
// use from several threads for comparing. Never destroyed (used from pool
// threads that may outlive static destruction).
UCollator* collator(bool numeric) {
  static UCollator* plain = nullptr;
  static UCollator* digits = nullptr;
  static std::once_flag once;
  std::call_once(once, [] {
    UErrorCode status = U_ZERO_ERROR;
    plain = ucol_open(nullptr, &status);
    if (U_FAILURE(status)) plain = nullptr;
    status = U_ZERO_ERROR;
    digits = ucol_open(nullptr, &status);
    if (U_FAILURE(status)) {
      digits = nullptr;
    } else {
      ucol_setAttribute(digits, UCOL_NUMERIC_COLLATION, UCOL_ON, &status);
    }
    for (auto* c : {plain, digits}) {
      if (!c) continue;
      status = U_ZERO_ERROR;
      ucol_setStrength(c, UCOL_SECONDARY);  // case-insensitive, accents still count
    }
  });
  return numeric ? digits : plain;
}

int sign(int v) { return v < 0 ? -1 : v > 0 ? 1 : 0; }

}  // namespace

int ZBCompareStrings(std::string_view a, std::string_view b, NSSortComparison comparison) {
  switch (comparison) {
    case NSSortComparison::Compare: return sign(a.compare(b));
    case NSSortComparison::CaseInsensitiveCompare: {
      std::string fa = ZBFoldString(a, true, false);
      std::string fb = ZBFoldString(b, true, false);
      return sign(fa.compare(fb));
    }
    case NSSortComparison::LocalizedCaseInsensitiveCompare:
    case NSSortComparison::LocalizedStandardCompare: {
      UCollator* c = collator(comparison == NSSortComparison::LocalizedStandardCompare);
      if (!c) return sign(ZBFoldString(a, true, false).compare(ZBFoldString(b, true, false)));
      UErrorCode status = U_ZERO_ERROR;
      UCollationResult result = ucol_strcollUTF8(c, a.data(), static_cast<int32_t>(a.size()), b.data(),
                                                 static_cast<int32_t>(b.size()), &status);
      if (U_FAILURE(status)) return sign(a.compare(b));
      return result == UCOL_LESS ? -1 : result == UCOL_GREATER ? 1 : 0;
    }
  }
  return 0;
}

int NSSortDescriptor::compareValues(const Value& a, const Value& b) const {
  int result;
  bool aMissing = a.isAbsent() || a.isNull();
  bool bMissing = b.isAbsent() || b.isNull();
  if (aMissing || bMissing) {
    result = aMissing == bMissing ? 0 : aMissing ? -1 : 1;
  } else if (a.isString() && b.isString()) {
    result = ZBCompareStrings(a.asString(), b.asString(), _comparison);
  } else {
    result = a.compare(b).value_or(0);
  }
  return _ascending ? result : -result;
}

int NSSortDescriptor::compareObjects(const Value& a, const Value& b) const {
  return compareValues(valueForKeyPath(a, _key), valueForKeyPath(b, _key));
}

void ZBSortValues(std::vector<Value>& values, const std::vector<NSSortDescriptor>& descriptors) {
  if (descriptors.empty() || values.size() < 2) return;
  // Read each key once per element rather than once per comparison.
  std::vector<std::pair<std::vector<Value>, std::size_t>> keyed(values.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    keyed[i].second = i;
    keyed[i].first.reserve(descriptors.size());
    for (auto& descriptor : descriptors) keyed[i].first.push_back(valueForKeyPath(values[i], descriptor.key()));
  }
  std::stable_sort(keyed.begin(), keyed.end(), [&](auto& x, auto& y) {
    for (std::size_t d = 0; d < descriptors.size(); ++d) {
      int c = descriptors[d].compareValues(x.first[d], y.first[d]);
      if (c != 0) return c < 0;
    }
    return false;
  });
  std::vector<Value> sorted;
  sorted.reserve(values.size());
  for (auto& entry : keyed) sorted.push_back(std::move(values[entry.second]));
  values = std::move(sorted);
}
