#include "platform/predicate/impl/ZBPredicateFormatting.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <strings.h>

#include "platform/foundation/NSObject.h"

namespace {

constexpr std::array<std::string_view, 39> kReservedWords = {
    "AND",        "OR",       "IN",          "NOT",           "ALL",           "ANY",       "SOME",
    "NONE",       "LIKE",     "CASEINSENSITIVE", "CI",        "MATCHES",       "CONTAINS",  "BEGINSWITH",
    "ENDSWITH",   "BETWEEN",  "NULL",        "NIL",           "SELF",          "TRUE",      "YES",
    "FALSE",      "NO",       "FIRST",       "LAST",          "SIZE",          "ANYKEY",    "SUBQUERY",
    "CAST",       "TRUEPREDICATE", "FALSEPREDICATE", "FUNCTION", "APPLY",      "UNION",     "INTERSECTION",
    "MINUS",      "TOKENMATCHES", "UTI-CONFORMS-TO", "UTI-EQUALS"};

bool isIdentifierStart(unsigned char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c >= 0x80; }
bool isIdentifierChar(unsigned char c) { return isIdentifierStart(c) || (c >= '0' && c <= '9'); }

void appendHexEscape(std::string& out, unsigned char c) {
  static const char* digits = "0123456789abcdef";
  out += "\\x";
  out += digits[c >> 4];
  out += digits[c & 0xF];
}

void appendDouble(std::string& out, double d) {
  if (std::isnan(d)) {
    out += "CAST(\"nan\", \"NSNumber\")";
    return;
  }
  if (std::isinf(d)) {
    out += d < 0 ? "-1e999" : "1e999";
    return;
  }
  if (d == 0 && std::signbit(d)) {
    out += "-0.0";  // "-0" would read back as the integer 0
    return;
  }
  char buffer[64];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, d);
  out.append(buffer, result.ptr);
}

}  // namespace

bool ZBPredicateIsReservedWord(std::string_view word) {
  for (std::string_view reserved : kReservedWords)
    if (reserved.size() == word.size() && strncasecmp(reserved.data(), word.data(), word.size()) == 0) return true;
  return false;
}

void ZBPredicateAppendQuotedString(std::string& out, std::string_view text) {
  out += '"';
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  out += '"';
}

void ZBPredicateAppendNumber(std::string& out, const Value& number) {
  if (number.isBool()) {
    out += number.boolValue() ? '1' : '0';
  } else if (number.isInteger()) {
    out += std::to_string(number.integerValue());
  } else {
    appendDouble(out, number.doubleValue());
  }
}

void ZBPredicateAppendKeyComponent(std::string& out, std::string_view component, bool afterDot) {
  if (ZBPredicateIsReservedWord(component)) {
    out += '#';
    out += component;
    return;
  }
  // A component that begins with '$' (only %K makes one) prints as written
  // wherever the parser reads "$name" back as a key: after a dot, as in
  // a.$b. First in a path "$b" would read back as a variable, so there the
  // '$' is escaped: \x24b.
  if (afterDot && component.size() > 1 && component[0] == '$') {
    out += '$';
    ZBPredicateAppendVariableName(out, component.substr(1));
    return;
  }
  std::size_t i = 0;
  if (!component.empty() && component[0] == '@' && component.size() > 1 &&
      isIdentifierStart(static_cast<unsigned char>(component[1]))) {
    out += '@';
    i = 1;
  }
  for (std::size_t start = i; i < component.size(); ++i) {
    auto c = static_cast<unsigned char>(component[i]);
    bool ok = (i == start) ? isIdentifierStart(c) : isIdentifierChar(c);
    if (ok)
      out += static_cast<char>(c);
    else
      appendHexEscape(out, c);
  }
}

void ZBPredicateAppendVariableName(std::string& out, std::string_view name) {
  for (char c : name) {
    if (isIdentifierChar(static_cast<unsigned char>(c)))
      out += c;
    else
      appendHexEscape(out, static_cast<unsigned char>(c));
  }
}

void ZBPredicateAppendConstant(std::string& out, const Value& value) {
  switch (value.type()) {
    case Value::Type::Absent:
    case Value::Type::Null:
      out += "nil";
      return;
    case Value::Type::Bool:
    case Value::Type::Integer:
    case Value::Type::Double:
      ZBPredicateAppendNumber(out, value);
      return;
    case Value::Type::String:
      ZBPredicateAppendQuotedString(out, value.asString());
      return;
    case Value::Type::Date: {
      double t = value.asDate().timeIntervalSinceReferenceDate();
      out += "CAST(";
      char buffer[64];
      std::snprintf(buffer, sizeof buffer, "%f", t);
      // Six decimals is the familiar form; keep full precision when they
      // would lose part of the time.
      double reread = std::strtod(buffer, nullptr);
      if (std::isfinite(t) && reread == t)
        out += buffer;
      else
        appendDouble(out, t);
      out += ", \"NSDate\")";
      return;
    }
    case Value::Type::Data: {
      out += "CAST(\"";
      static const char* digits = "0123456789abcdef";
      for (std::uint8_t b : value.asData()) {
        out += digits[b >> 4];
        out += digits[b & 0xF];
      }
      out += "\", \"NSData\")";
      return;
    }
    case Value::Type::Array:
    case Value::Type::Set:
    case Value::Type::Dictionary: {
      Array elements;
      if (value.isDictionary()) {
        for (const auto& entry : value.asDictionary()) elements.push_back(entry.second);
      } else {
        elements = value.collectionElements();
      }
      std::vector<std::string> printed;
      printed.reserve(elements.size());
      for (const Value& element : elements) {
        std::string text;
        ZBPredicateAppendConstant(text, element);
        printed.push_back(std::move(text));
      }
      // A set has no order of its own: print it sorted so the text is stable.
      if (value.isSet()) std::sort(printed.begin(), printed.end());
      out += '{';
      for (std::size_t i = 0; i < printed.size(); ++i) {
        if (i) out += ", ";
        out += printed[i];
      }
      out += '}';
      return;
    }
    case Value::Type::Object:
      out += value.asObject() ? value.asObject()->description() : std::string("nil");
      return;
  }
}
