#pragma once
// Structural comparison for the fuzzers' round-trip checks: NaN matches NaN,
// dates match within a tolerance (property lists keep whole seconds in XML and
// about a microsecond in binary), objects match field by field.

#include <cmath>

#include "FuzzCodingObject.h"

inline bool sameValue(const Value& a, const Value& b, double dateTolerance) {
  if (a.type() != b.type()) return false;
  switch (a.type()) {
    case Value::Type::Double:
      return a.doubleValue() == b.doubleValue() || (std::isnan(a.doubleValue()) && std::isnan(b.doubleValue()));
    case Value::Type::Date:
      return std::fabs(a.asDate().timeIntervalSinceReferenceDate() - b.asDate().timeIntervalSinceReferenceDate()) <=
             dateTolerance;
    case Value::Type::Array: {
      const Array& x = a.asArray();
      const Array& y = b.asArray();
      if (x.size() != y.size()) return false;
      for (std::size_t i = 0; i < x.size(); ++i) {
        if (!sameValue(x[i], y[i], dateTolerance)) return false;
      }
      return true;
    }
    case Value::Type::Set: {
      if (a.count() != b.count()) return false;
      Array y = b.collectionElements();
      for (const Value& element : a.asSet()) {
        bool found = false;
        for (const Value& other : y) found = found || sameValue(element, other, dateTolerance);
        if (!found) return false;
      }
      return true;
    }
    case Value::Type::Dictionary: {
      const Dictionary& x = a.asDictionary();
      const Dictionary& y = b.asDictionary();
      if (x.size() != y.size()) return false;
      for (const auto& [key, value] : x) {
        if (!y.contains(key) || !sameValue(value, y[key], dateTolerance)) return false;
      }
      return true;
    }
    case Value::Type::Object: {
      auto x = a.as<FuzzCodingObject>();
      auto y = b.as<FuzzCodingObject>();
      if (!x || !y) return false;
      return sameValue(x->name, y->name, dateTolerance) && sameValue(x->payload, y->payload, dateTolerance) &&
             x->count == y->count && x->flag == y->flag &&
             (x->ratio == y->ratio || (std::isnan(x->ratio) && std::isnan(y->ratio)));
    }
    default: return a == b;
  }
}
