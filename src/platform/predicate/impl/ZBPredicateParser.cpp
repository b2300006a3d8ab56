#include "platform/predicate/impl/ZBPredicateParser.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <strings.h>

#include "platform/predicate/NSComparisonPredicate.h"
#include "platform/predicate/NSCompoundPredicate.h"
#include "platform/predicate/ZBPredicateError.h"
#include "platform/predicate/impl/ZBPredicateEvaluation.h"
#include "platform/predicate/impl/ZBPredicateFormatting.h"

namespace {

// Deep nesting is refused rather than risking the stack: parser recursion
// (parentheses, NOT, unary minus) and the depth of the built tree (long
// AND/OR or + chains nest left) are both bounded. The printed form of a tree
// needs at most two levels of recursion per tree level ("NOT (" …), so any
// tree that parses prints to text that parses again.
constexpr int kMaxTreeDepth = 256;
constexpr int kMaxRecursion = 2 * kMaxTreeDepth + 16;

enum class Tok {
  End, Ident, AtIdent, Variable, Number, String, Format,
  LParen, RParen, LBrace, RBrace, LBracket, RBracket, Comma, Dot, Colon,
  Eq, Ne, Lt, Le, Gt, Ge, AndAnd, OrOr, Bang, Plus, Minus, Star, StarStar, Slash,
  Ampersand, Pipe, Caret, ShiftLeft, ShiftRight,
};

struct Token {
  Tok kind = Tok::End;
  std::size_t position = 0;
  std::string text;     // identifier, variable name, string contents, format conversion
  bool hashed = false;  // identifier written with '#': never a keyword
  Value number;
};

bool isIdentifierStart(unsigned char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c >= 0x80; }
bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }
bool isIdentifierChar(unsigned char c) { return isIdentifierStart(c) || isDigit(c); }

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void appendUTF8(std::string& out, std::uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// MARK: Lexer

class Lexer {
public:
  explicit Lexer(std::string_view text) : _s(text) {}

  // Fills tokens; false with reason/position for malformed text.
  bool run(std::vector<Token>& tokens, std::string& reason, std::size_t& position) {
    while (true) {
      while (_i < _s.size() && (_s[_i] == ' ' || _s[_i] == '\t' || _s[_i] == '\n' || _s[_i] == '\r' ||
                                _s[_i] == '\f' || _s[_i] == '\v'))
        ++_i;
      Token t;
      t.position = _i;
      if (_i >= _s.size()) {
        tokens.push_back(std::move(t));
        return true;
      }
      if (!_next(t)) {
        reason = std::move(_reason);
        position = _errorPosition;
        return false;
      }
      tokens.push_back(std::move(t));
    }
  }

private:
  bool _fail(std::string reason, std::size_t position) {
    _reason = std::move(reason);
    _errorPosition = position;
    return false;
  }

  char _peek(std::size_t ahead = 0) const { return _i + ahead < _s.size() ? _s[_i + ahead] : '\0'; }

  bool _next(Token& t) {
    char c = _s[_i];
    auto uc = static_cast<unsigned char>(c);
    auto single = [&](Tok kind, std::size_t length = 1) {
      t.kind = kind;
      _i += length;
      return true;
    };
    switch (c) {
      case '(': return single(Tok::LParen);
      case ')': return single(Tok::RParen);
      case '{': return single(Tok::LBrace);
      case '}': return single(Tok::RBrace);
      case '[': return single(Tok::LBracket);
      case ']': return single(Tok::RBracket);
      case ',': return single(Tok::Comma);
      case ':': return single(Tok::Colon);
      case '+': return single(Tok::Plus);
      case '-': return single(Tok::Minus);
      case '/': return single(Tok::Slash);
      case '*': return _peek(1) == '*' ? single(Tok::StarStar, 2) : single(Tok::Star);
      case '.':
        if (isDigit(static_cast<unsigned char>(_peek(1)))) return _fail("a number must start with a digit", _i);
        return single(Tok::Dot);
      case '=':
        if (_peek(1) == '=') return single(Tok::Eq, 2);
        if (_peek(1) == '<') return single(Tok::Le, 2);
        if (_peek(1) == '>') return single(Tok::Ge, 2);
        return single(Tok::Eq);
      case '!': return _peek(1) == '=' ? single(Tok::Ne, 2) : single(Tok::Bang);
      case '<':
        if (_peek(1) == '=') return single(Tok::Le, 2);
        if (_peek(1) == '>') return single(Tok::Ne, 2);
        if (_peek(1) == '<') return single(Tok::ShiftLeft, 2);
        return single(Tok::Lt);
      case '>':
        if (_peek(1) == '=') return single(Tok::Ge, 2);
        if (_peek(1) == '>') return single(Tok::ShiftRight, 2);
        return single(Tok::Gt);
      case '&': return _peek(1) == '&' ? single(Tok::AndAnd, 2) : single(Tok::Ampersand);
      case '|': return _peek(1) == '|' ? single(Tok::OrOr, 2) : single(Tok::Pipe);
      case '^': return single(Tok::Caret);
      case '"':
      case '\'':
        return _string(t);
      case '%':
        return _format(t);
      case '$': {
        ++_i;
        if (_i >= _s.size() || !(isIdentifierChar(static_cast<unsigned char>(_s[_i])) || _s[_i] == '\\'))
          return _fail("'$' must be followed by a variable name", t.position);
        t.kind = Tok::Variable;
        return _identifier(t.text);
      }
      case '@': {
        ++_i;
        if (_i >= _s.size() || !(isIdentifierStart(static_cast<unsigned char>(_s[_i])) || _s[_i] == '\\'))
          return _fail("'@' must be followed by a collection operator name", t.position);
        t.kind = Tok::AtIdent;
        t.text = "@";
        return _identifier(t.text);
      }
      case '#': {
        ++_i;
        if (_i >= _s.size() || !(isIdentifierStart(static_cast<unsigned char>(_s[_i])) || _s[_i] == '\\'))
          return _fail("'#' must be followed by a key", t.position);
        t.kind = Tok::Ident;
        t.hashed = true;
        return _identifier(t.text);
      }
      default:
        break;
    }
    if (isDigit(uc)) return _number(t);
    if (isIdentifierStart(uc) || c == '\\') {
      t.kind = Tok::Ident;
      return _identifier(t.text);
    }
    if (c == '?') return _fail("'?' is not a valid token", _i);
    return _fail(std::string("unexpected character '") + (uc >= 0x20 && uc < 0x7F ? std::string(1, c) : "\\x" + std::to_string(uc)) + "'", _i);
  }

  // Identifier characters with the escapes \xHH, \uHHHH and \ooo.
  bool _identifier(std::string& out) {
    while (_i < _s.size()) {
      auto c = static_cast<unsigned char>(_s[_i]);
      if (c == '\\') {
        std::size_t start = _i;
        char kind = _peek(1);
        if (kind == 'x' || kind == 'u') {
          std::size_t digits = kind == 'x' ? 2 : 4;
          std::uint32_t value = 0;
          for (std::size_t k = 0; k < digits; ++k) {
            int h = hexValue(_peek(2 + k));
            if (h < 0) return _fail("invalid escape in identifier", start);
            value = value * 16 + static_cast<std::uint32_t>(h);
          }
          // A dot would split the key; keys never contain one.
          if (value == '.') return _fail("an escape in a key cannot stand for '.'", start);
          if (kind == 'x')
            out += static_cast<char>(value);
          else if (value >= 0xD800 && value <= 0xDFFF)
            return _fail("invalid escape in identifier", start);
          else
            appendUTF8(out, value);
          _i += 2 + digits;
          continue;
        }
        if (kind >= '0' && kind <= '7' && _peek(2) >= '0' && _peek(2) <= '7' && _peek(3) >= '0' && _peek(3) <= '7') {
          int value = (kind - '0') * 64 + (_peek(2) - '0') * 8 + (_peek(3) - '0');
          if (value > 255) return _fail("invalid escape in identifier", start);
          if (value == '.') return _fail("an escape in a key cannot stand for '.'", start);
          out += static_cast<char>(value);
          _i += 4;
          continue;
        }
        return _fail("invalid escape in identifier", start);
      }
      if (!isIdentifierChar(c)) break;
      out += static_cast<char>(c);
      ++_i;
    }
    return true;
  }

  bool _number(Token& t) {
    t.kind = Tok::Number;
    std::size_t start = _i;
    auto radix = [&](int base, std::size_t prefix) -> bool {
      _i += prefix;
      std::size_t digitsStart = _i;
      while (_i < _s.size() && isIdentifierChar(static_cast<unsigned char>(_s[_i]))) ++_i;
      std::uint64_t value = 0;
      auto result = std::from_chars(_s.data() + digitsStart, _s.data() + _i, value, base);
      if (digitsStart == _i || result.ptr != _s.data() + _i) return _fail("malformed number", start);
      if (result.ec != std::errc() || value > static_cast<std::uint64_t>(INT64_MAX))
        return _fail("number out of range", start);
      t.number = Value(static_cast<std::int64_t>(value));
      return true;
    };
    if (_s[_i] == '0' && (_peek(1) == 'x' || _peek(1) == 'X')) return radix(16, 2);
    if (_s[_i] == '0' && (_peek(1) == 'o' || _peek(1) == 'O')) return radix(8, 2);
    if (_s[_i] == '0' && (_peek(1) == 'b' || _peek(1) == 'B')) return radix(2, 2);
    bool isDouble = false;
    while (_i < _s.size() && isDigit(static_cast<unsigned char>(_s[_i]))) ++_i;
    if (_peek() == '.' && isDigit(static_cast<unsigned char>(_peek(1)))) {
      isDouble = true;
      ++_i;
      while (_i < _s.size() && isDigit(static_cast<unsigned char>(_s[_i]))) ++_i;
    }
    if (_peek() == 'e' || _peek() == 'E') {
      std::size_t k = 1;
      if (_peek(k) == '+' || _peek(k) == '-') ++k;
      if (!isDigit(static_cast<unsigned char>(_peek(k)))) return _fail("malformed number", start);
      isDouble = true;
      _i += k;
      while (_i < _s.size() && isDigit(static_cast<unsigned char>(_s[_i]))) ++_i;
    }
    if (_i < _s.size() && (isIdentifierChar(static_cast<unsigned char>(_s[_i])) || _s[_i] == '\\'))
      return _fail("malformed number", start);
    std::string text(_s.substr(start, _i - start));
    if (!isDouble) {
      std::int64_t value = 0;
      auto result = std::from_chars(text.data(), text.data() + text.size(), value);
      if (result.ec == std::errc()) {
        t.number = Value(value);
        return true;
      }
    }
    // Doubles, and integers too large for 64 bits. Overflow reads as
    // infinity, which is how infinity prints.
    t.number = Value(std::strtod(text.c_str(), nullptr));
    return true;
  }

  bool _string(Token& t) {
    t.kind = Tok::String;
    char quote = _s[_i++];
    while (_i < _s.size()) {
      char c = _s[_i];
      if (c == quote) {
        ++_i;
        return true;
      }
      if (c == '\\') {
        if (_i + 1 >= _s.size()) break;
        char e = _s[_i + 1];
        _i += 2;
        switch (e) {
          case 'n': t.text += '\n'; break;
          case 't': t.text += '\t'; break;
          case 'r': t.text += '\r'; break;
          case 'f': t.text += '\f'; break;
          case 'v': t.text += '\v'; break;
          case 'b': t.text += '\b'; break;
          case 'u': {
            std::uint32_t value = 0;
            for (int k = 0; k < 4; ++k) {
              int h = hexValue(_peek(static_cast<std::size_t>(k)));
              if (h < 0) return _fail("invalid \\u escape in string", _i - 2);
              value = value * 16 + static_cast<std::uint32_t>(h);
            }
            if (value >= 0xD800 && value <= 0xDFFF) return _fail("invalid \\u escape in string", _i - 2);
            appendUTF8(t.text, value);
            _i += 4;
            break;
          }
          default: t.text += e; break;
        }
        continue;
      }
      t.text += c;
      ++_i;
    }
    return _fail("unterminated string", t.position);
  }

  bool _format(Token& t) {
    t.kind = Tok::Format;
    std::size_t start = _i++;
    if (_peek() == '%') {
      ++_i;
      t.text = "%";
      return true;
    }
    // Length modifiers only matter to C varargs; arguments here are values.
    while (_i < _s.size() && std::string_view("hlqLzjt").find(_s[_i]) != std::string_view::npos) ++_i;
    if (_i >= _s.size()) return _fail("stray '%' at the end of the format", start);
    char conversion = _s[_i++];
    if (std::string_view("@KdiDuUxXoOfFeEgGaAcs").find(conversion) == std::string_view::npos)
      return _fail(std::string("unknown format specifier '%") + conversion + "'", start);
    t.text = std::string(1, conversion);
    return true;
  }

  std::string_view _s;
  std::size_t _i = 0;
  std::string _reason;
  std::size_t _errorPosition = 0;
};

// MARK: Parser

struct Ex {
  NSExpressionPtr e;
  int depth = 0;
  explicit operator bool() const { return static_cast<bool>(e); }
};

// A parenthesised item may be a predicate or an expression; which one is
// known only after reading it.
struct Item {
  NSPredicatePtr p;
  Ex x;
  int depth = 0;
  bool ok() const { return p || x.e; }
};

class Parser {
public:
  Parser(std::string_view format, const std::vector<Value>& arguments) : _format(format), _arguments(arguments) {}

  NSPredicatePtr parsePredicate(NSErrorPtr* error) {
    if (!_tokenize(error)) return nullptr;
    Item item = _or(false);
    if (item.ok() && !_at(Tok::End)) _unexpected();
    if (!item.p) _fail("a predicate is expected", _peek().position);
    if (_failed()) return _report(error), nullptr;
    return item.p;
  }

  NSExpressionPtr parseExpression(NSErrorPtr* error) {
    if (!_tokenize(error)) return nullptr;
    Ex ex = _expression({});
    if (ex && !_at(Tok::End)) _unexpected();
    if (!ex) _fail("an expression is expected", _peek().position);
    if (_failed()) return _report(error), nullptr;
    return ex.e;
  }

private:
  // --- tokens and errors

  bool _tokenize(NSErrorPtr* error) {
    Lexer lexer(_format);
    if (!lexer.run(_tokens, _reason, _errorPosition)) {
      _errorCode = ZBPredicateFormatError;
      _report(error);
      return false;
    }
    return true;
  }

  const Token& _peek(std::size_t ahead = 0) const {
    std::size_t i = std::min(_i + ahead, _tokens.size() - 1);
    return _tokens[i];
  }
  bool _at(Tok kind) const { return _peek().kind == kind; }
  const Token& _advance() {
    const Token& t = _tokens[_i];
    if (_i + 1 < _tokens.size()) ++_i;
    return t;
  }
  bool _failed() const { return _errorCode != 0; }

  std::nullptr_t _fail(std::string reason, std::size_t position, std::int64_t code = ZBPredicateFormatError) {
    if (!_failed()) {
      _errorCode = code;
      _reason = std::move(reason);
      _errorPosition = position;
    }
    return nullptr;
  }

  std::nullptr_t _unexpected() {
    const Token& t = _peek();
    if (t.kind == Tok::End) return _fail("unexpected end of format", t.position);
    return _fail("unexpected " + _describe(t), t.position);
  }

  std::string _describe(const Token& t) const {
    switch (t.kind) {
      case Tok::End: return "end of format";
      case Tok::Ident: return "'" + t.text + "'";
      case Tok::String: return "string";
      case Tok::Number: return "number";
      case Tok::Variable: return "variable $" + t.text;
      case Tok::Format: return "format specifier %" + t.text;
      default: break;
    }
    std::size_t end = t.position;
    while (end < _format.size() && end < t.position + 2 && !std::isspace(static_cast<unsigned char>(_format[end])) &&
           (end == t.position || std::string_view("=<>&|*").find(_format[end]) != std::string_view::npos))
      ++end;
    return "'" + std::string(_format.substr(t.position, std::max<std::size_t>(1, end - t.position))) + "'";
  }

  void _report(NSErrorPtr* error) const {
    if (!error) return;
    std::string shown(_format.substr(0, 200));
    if (_format.size() > 200) shown += "…";
    Dictionary userInfo;
    std::string description = _errorCode == ZBPredicateArgumentError
                                  ? "Bad argument for the format string “" + shown + "”: " + _reason
                                  : "Unable to parse the format string “" + shown + "”: " + _reason +
                                        " at position " + std::to_string(_errorPosition);
    userInfo.set(NSLocalizedDescriptionKey, description);
    userInfo.set(NSLocalizedFailureReasonErrorKey, _reason);
    userInfo.set(ZBPredicateErrorPositionKey, static_cast<std::int64_t>(_errorPosition));
    *error = NSError::create(ZBPredicateErrorDomain, _errorCode, std::move(userInfo));
  }

  bool _keyword(const Token& t, std::string_view word) const {
    return t.kind == Tok::Ident && !t.hashed && equalsIgnoringCase(t.text, word);
  }
  bool _atKeyword(std::string_view word) const { return _keyword(_peek(), word); }

  // Recursion guard.
  struct Nest {
    Parser& parser;
    bool ok;
    explicit Nest(Parser& p) : parser(p), ok(++p._recursion <= kMaxRecursion) {
      if (!ok) p._fail("nesting too deep", p._peek().position);
    }
    ~Nest() { --parser._recursion; }
  };

  bool _checkDepth(int depth) {
    if (depth <= kMaxTreeDepth) return true;
    _fail("expression too deeply nested", _peek().position);
    return false;
  }

  // --- predicates

  Item _or(bool allowExpression) {
    Item left = _and(allowExpression);
    while (left.ok() && (_at(Tok::OrOr) || _atKeyword("OR"))) {
      if (!left.p) return _fail("a comparison is expected before " + _describe(_peek()), _peek().position), Item{};
      _advance();
      Item right = _and(false);
      if (!right.ok()) return {};
      int depth = std::max(left.depth, right.depth) + 1;
      if (!_checkDepth(depth)) return {};
      left = Item{NSCompoundPredicate::orPredicateWithSubpredicates({left.p, right.p}), {}, depth};
    }
    return left;
  }

  Item _and(bool allowExpression) {
    Item left = _not(allowExpression);
    while (left.ok() && (_at(Tok::AndAnd) || _atKeyword("AND"))) {
      if (!left.p) return _fail("a comparison is expected before " + _describe(_peek()), _peek().position), Item{};
      _advance();
      Item right = _not(false);
      if (!right.ok()) return {};
      int depth = std::max(left.depth, right.depth) + 1;
      if (!_checkDepth(depth)) return {};
      left = Item{NSCompoundPredicate::andPredicateWithSubpredicates({left.p, right.p}), {}, depth};
    }
    return left;
  }

  Item _not(bool allowExpression) {
    if (_at(Tok::Bang) || _atKeyword("NOT")) {
      Nest nest(*this);
      if (!nest.ok) return {};
      _advance();
      Item sub = _not(false);
      if (!sub.ok()) return {};
      if (!_checkDepth(sub.depth + 1)) return {};
      return Item{NSCompoundPredicate::notPredicateWithSubpredicate(sub.p), {}, sub.depth + 1};
    }
    return _primaryPredicate(allowExpression);
  }

  Item _primaryPredicate(bool allowExpression) {
    const Token& t = _peek();
    if (_keyword(t, "TRUEPREDICATE") || _keyword(t, "FALSEPREDICATE")) {
      bool value = _keyword(t, "TRUEPREDICATE");
      _advance();
      return Item{NSPredicate::predicateWithValue(value), {}, 1};
    }
    std::optional<NSComparisonPredicateModifier> modifier;
    bool none = false;
    if (_keyword(t, "ANY") || _keyword(t, "SOME")) modifier = NSComparisonPredicateModifier::Any;
    if (_keyword(t, "ALL")) modifier = NSComparisonPredicateModifier::All;
    if (_keyword(t, "NONE")) {
      modifier = NSComparisonPredicateModifier::Any;
      none = true;
    }
    if (modifier) {
      _advance();
      Ex left = _expression({});
      if (!left) return {};
      if (!_atComparisonOperator()) return _fail("a comparison operator is expected after the quantified expression", _peek().position), Item{};
      return _comparison(left, *modifier, none);
    }
    Ex left;
    if (_at(Tok::LParen)) {
      Nest nest(*this);
      if (!nest.ok) return {};
      _advance();
      Item inner = _or(true);
      if (!inner.ok()) return {};
      if (!_at(Tok::RParen)) return _fail("')' is expected", _peek().position), Item{};
      _advance();
      if (inner.p) return inner;
      // A parenthesised expression: it starts the left side of a comparison.
      left = _expression(inner.x);
    } else {
      left = _expression({});
    }
    if (!left) return {};
    if (_atComparisonOperator()) return _comparison(left, NSComparisonPredicateModifier::Direct, false);
    if (allowExpression) return Item{nullptr, left, left.depth};
    if (_at(Tok::End)) return _fail("a comparison operator is expected at the end of the format", _peek().position), Item{};
    return _fail("a comparison operator is expected, found " + _describe(_peek()), _peek().position), Item{};
  }

  bool _atComparisonOperator() const {
    switch (_peek().kind) {
      case Tok::Eq: case Tok::Ne: case Tok::Lt: case Tok::Le: case Tok::Gt: case Tok::Ge:
        return true;
      default:
        break;
    }
    for (std::string_view word : {"IN", "CONTAINS", "BEGINSWITH", "ENDSWITH", "LIKE", "MATCHES", "BETWEEN"})
      if (_atKeyword(word)) return true;
    return false;
  }

  Item _comparison(const Ex& left, NSComparisonPredicateModifier modifier, bool none) {
    const Token& op = _advance();
    NSPredicateOperatorType type = NSPredicateOperatorType::EqualTo;
    switch (op.kind) {
      case Tok::Eq: type = NSPredicateOperatorType::EqualTo; break;
      case Tok::Ne: type = NSPredicateOperatorType::NotEqualTo; break;
      case Tok::Lt: type = NSPredicateOperatorType::LessThan; break;
      case Tok::Le: type = NSPredicateOperatorType::LessThanOrEqualTo; break;
      case Tok::Gt: type = NSPredicateOperatorType::GreaterThan; break;
      case Tok::Ge: type = NSPredicateOperatorType::GreaterThanOrEqualTo; break;
      default:
        if (_keyword(op, "IN")) type = NSPredicateOperatorType::In;
        else if (_keyword(op, "CONTAINS")) type = NSPredicateOperatorType::Contains;
        else if (_keyword(op, "BEGINSWITH")) type = NSPredicateOperatorType::BeginsWith;
        else if (_keyword(op, "ENDSWITH")) type = NSPredicateOperatorType::EndsWith;
        else if (_keyword(op, "LIKE")) type = NSPredicateOperatorType::Like;
        else if (_keyword(op, "MATCHES")) type = NSPredicateOperatorType::Matches;
        else type = NSPredicateOperatorType::Between;
        break;
    }
    NSComparisonPredicateOptions options = 0;
    if (_at(Tok::LBracket)) {
      std::size_t position = _peek().position;
      _advance();
      const Token& letters = _peek();
      bool valid = letters.kind == Tok::Ident && !letters.hashed && !letters.text.empty() && _peek(1).kind == Tok::RBracket;
      if (valid) {
        for (char c : letters.text) {
          switch (c) {
            case 'c': case 'C': options |= NSCaseInsensitivePredicateOption; break;
            case 'd': case 'D': options |= NSDiacriticInsensitivePredicateOption; break;
            case 'n': case 'N': options |= NSNormalizedPredicateOption; break;
            case 'l': case 'L': options |= NSLocaleSensitivePredicateOption; break;
            default: valid = false; break;
          }
        }
      }
      if (!valid) return _fail("invalid comparison options (use letters c, d, n, l as in [cd])", position), Item{};
      _advance();
      _advance();
    }
    Ex right = _expression({});
    if (!right) return {};
    int depth = std::max(left.depth, right.depth) + 1 + (none ? 1 : 0);
    if (!_checkDepth(depth)) return {};
    NSPredicatePtr comparison = NSComparisonPredicate::create(left.e, right.e, modifier, type, options);
    if (none) comparison = NSCompoundPredicate::notPredicateWithSubpredicate(comparison);
    return Item{comparison, {}, depth};
  }

  // --- expressions

  Ex _expression(Ex seed) { return _bitwise(std::move(seed)); }

  Ex _binary(const char* function, Ex left, Ex right) {
    int depth = std::max(left.depth, right.depth) + 1;
    if (!_checkDepth(depth)) return {};
    return Ex{NSExpression::expressionForFunction(function, {left.e, right.e}), depth};
  }

  // The bitwise operators bind less tightly than arithmetic, in C's order (|
  // loosest, then ^, then &, then the shifts), all left-associative:
  // a | b & c << 1 + 2 is a | (b & (c << (1 + 2))). Comparisons stay looser.
  // One precedence-climbing loop reads them, so a parenthesised operand costs
  // one stack frame here rather than one per level.
  static int _bitwisePrecedence(Tok kind) {
    switch (kind) {
      case Tok::Pipe: return 1;
      case Tok::Caret: return 2;
      case Tok::Ampersand: return 3;
      case Tok::ShiftLeft: case Tok::ShiftRight: return 4;
      default: return 0;
    }
  }

  Ex _bitwise(Ex seed, int minimumPrecedence = 1) {
    Ex left = _additive(std::move(seed));
    while (left) {
      int precedence = _bitwisePrecedence(_peek().kind);
      if (precedence < minimumPrecedence) break;
      Tok op = _advance().kind;
      Ex right = _bitwise({}, precedence + 1);
      if (!right) return {};
      const char* function = op == Tok::Pipe        ? "bitwiseOr:with:"
                             : op == Tok::Caret     ? "bitwiseXor:with:"
                             : op == Tok::Ampersand ? "bitwiseAnd:with:"
                             : op == Tok::ShiftLeft ? "leftshift:by:"
                                                    : "rightshift:by:";
      left = _binary(function, left, right);
    }
    return left;
  }

  Ex _additive(Ex seed) {
    Ex left = _multiplicative(std::move(seed));
    while (left && (_at(Tok::Plus) || _at(Tok::Minus))) {
      bool plus = _advance().kind == Tok::Plus;
      Ex right = _multiplicative({});
      if (!right) return {};
      left = _binary(plus ? "add:to:" : "from:subtract:", left, right);
    }
    return left;
  }

  Ex _multiplicative(Ex seed) {
    Ex left = _power(std::move(seed));
    while (left && (_at(Tok::Star) || _at(Tok::Slash))) {
      bool times = _advance().kind == Tok::Star;
      Ex right = _power({});
      if (!right) return {};
      left = _binary(times ? "multiply:by:" : "divide:by:", left, right);
    }
    return left;
  }

  Ex _power(Ex seed) {
    Ex left = _unary(std::move(seed));
    while (left && _at(Tok::StarStar)) {
      _advance();
      Ex right = _unary({});
      if (!right) return {};
      left = _binary("raise:toPower:", left, right);
    }
    return left;
  }

  Ex _unary(Ex seed) {
    if (seed) return _postfix(std::move(seed));
    if (!_at(Tok::Minus)) return _postfix({});
    Nest nest(*this);
    if (!nest.ok) return {};
    _advance();
    Ex operand = _unary({});
    if (!operand) return {};
    // A minus before a number literal makes a negative constant.
    if (operand.e->expressionType() == NSExpressionType::ConstantValue) {
      const Value& v = operand.e->constantValue();
      if (v.isInteger() && v.integerValue() != INT64_MIN)
        return Ex{NSExpression::expressionForConstantValue(Value(-v.integerValue())), operand.depth};
      if (v.isDouble()) return Ex{NSExpression::expressionForConstantValue(Value(-v.doubleValue())), operand.depth};
    }
    return _binary("from:subtract:", Ex{NSExpression::expressionForConstantValue(Value(std::int64_t{0})), 1}, operand);
  }

  Ex _appendKey(const Ex& base, const std::string& component) {
    const NSExpressionPtr& e = base.e;
    switch (e->expressionType()) {
      case NSExpressionType::EvaluatedObject:
        return Ex{NSExpression::expressionForKeyPath(component), 1};
      case NSExpressionType::KeyPath:
        return Ex{NSExpression::expressionForKeyPath(e->operand(), e->keyPath() + "." + component), base.depth};
      default:
        if (!_checkDepth(base.depth + 1)) return {};
        return Ex{NSExpression::expressionForKeyPath(e, component), base.depth + 1};
    }
  }

  Ex _postfix(Ex seed) {
    Ex e = seed ? std::move(seed) : _primary();
    while (e) {
      if (_at(Tok::Dot)) {
        _advance();
        const Token& t = _peek();
        if (t.kind == Tok::Ident || t.kind == Tok::AtIdent) {
          _advance();
          e = _appendKey(e, t.text);
        } else if (t.kind == Tok::Variable) {
          // After a dot "$name" is a key that begins with '$' (from %K), not
          // a variable.
          _advance();
          e = _appendKey(e, "$" + t.text);
        } else if (t.kind == Tok::Format && t.text == "K") {
          _advance();
          std::string path;
          if (!_keyPathArgument(t, path)) return {};
          e = _appendKey(e, path);
        } else {
          return _fail("a key is expected after '.'", t.position), Ex{};
        }
      } else if (_at(Tok::LBracket)) {
        Nest nest(*this);
        if (!nest.ok) return {};
        _advance();
        Ex index;
        const Token& t = _peek();
        if (_keyword(t, "FIRST") || _keyword(t, "LAST") || _keyword(t, "SIZE")) {
          std::string symbol = t.text;
          for (char& c : symbol) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
          _advance();
          index = Ex{NSExpression::expressionForSymbol(symbol), 1};
        } else {
          index = _expression({});
          if (!index) return {};
        }
        if (!_at(Tok::RBracket)) return _fail("']' is expected", _peek().position), Ex{};
        _advance();
        e = _binary("objectFrom:withIndex:", e, index);
      } else {
        break;
      }
    }
    return e;
  }

  const Value* _nextArgument(const Token& t) {
    if (_argumentIndex >= _arguments.size()) {
      _fail("missing argument for %" + t.text + " (argument " + std::to_string(_argumentIndex + 1) + ")", t.position,
            ZBPredicateArgumentError);
      return nullptr;
    }
    return &_arguments[_argumentIndex++];
  }

  bool _keyPathArgument(const Token& t, std::string& path) {
    const Value* argument = _nextArgument(t);
    if (!argument) return false;
    if (!argument->isString() || argument->asString().empty()) {
      _fail("%K needs a non-empty string, got " + argument->description(), t.position, ZBPredicateArgumentError);
      return false;
    }
    path = argument->asString();
    if (path.front() == '.' || path.back() == '.' || path.find("..") != std::string::npos) {
      _fail("%K key path “" + path + "” has an empty component", t.position, ZBPredicateArgumentError);
      return false;
    }
    return true;
  }

  Ex _constant(Value v) { return Ex{NSExpression::expressionForConstantValue(std::move(v)), 1}; }

  Ex _formatArgument(const Token& t) {
    const std::string& conversion = t.text;
    if (conversion == "%") return _constant(Value("%"));
    if (conversion == "K") {
      std::string path;
      if (!_keyPathArgument(t, path)) return {};
      return Ex{NSExpression::expressionForKeyPath(path), 1};
    }
    const Value* argument = _nextArgument(t);
    if (!argument) return {};
    if (conversion == "@") return _constant(argument->isNull() ? Value() : *argument);
    auto bad = [&](const char* wanted) {
      _fail("%" + conversion + " needs " + wanted + ", got " + argument->description(), t.position, ZBPredicateArgumentError);
      return Ex{};
    };
    if (conversion == "s") return argument->isString() ? _constant(*argument) : bad("a string");
    if (conversion == "c") {
      if (argument->isString()) return _constant(*argument);
      return argument->isNumber() ? _constant(Value(argument->integerValue())) : bad("a character");
    }
    if (!argument->isNumber()) return bad("a number");
    if (std::string_view("fFeEgGaA").find(conversion[0]) != std::string_view::npos)
      return _constant(Value(argument->doubleValue()));
    return _constant(Value(argument->integerValue()));
  }

  bool _list(Tok close, std::vector<Ex>& items) {
    if (_at(close)) {
      _advance();
      return true;
    }
    while (true) {
      Ex item = _expression({});
      if (!item) return false;
      items.push_back(std::move(item));
      if (_at(Tok::Comma)) {
        _advance();
        continue;
      }
      if (_at(close)) {
        _advance();
        return true;
      }
      _fail(std::string("',' or '") + (close == Tok::RBrace ? "}" : ")") + "' is expected", _peek().position);
      return false;
    }
  }

  static int _maxDepth(const std::vector<Ex>& items) {
    int depth = 0;
    for (const Ex& item : items) depth = std::max(depth, item.depth);
    return depth;
  }

  Ex _primary() {
    Nest nest(*this);
    if (!nest.ok) return {};
    const Token& t = _peek();
    switch (t.kind) {
      case Tok::Number:
        _advance();
        return _constant(t.number);
      case Tok::String:
        _advance();
        return _constant(Value(t.text));
      case Tok::Variable:
        _advance();
        return Ex{NSExpression::expressionForVariable(t.text), 1};
      case Tok::Format:
        _advance();
        return _formatArgument(t);
      case Tok::AtIdent:
        _advance();
        return Ex{NSExpression::expressionForKeyPath(t.text), 1};
      case Tok::LBrace: {
        _advance();
        std::vector<Ex> items;
        if (!_list(Tok::RBrace, items)) return {};
        int depth = _maxDepth(items) + 1;
        if (!_checkDepth(depth)) return {};
        // A literal of constants is a constant collection.
        bool constant = true;
        for (const Ex& item : items) constant &= item.e->expressionType() == NSExpressionType::ConstantValue;
        if (constant) {
          Array values;
          values.reserve(items.size());
          for (const Ex& item : items) values.push_back(item.e->constantValue());
          return Ex{NSExpression::expressionForConstantValue(Value(std::move(values))), depth};
        }
        std::vector<NSExpressionPtr> elements;
        for (Ex& item : items) elements.push_back(std::move(item.e));
        return Ex{NSExpression::expressionForAggregate(std::move(elements)), depth};
      }
      case Tok::LParen: {
        _advance();
        Ex inner = _expression({});
        if (!inner) return {};
        if (!_at(Tok::RParen)) return _fail("')' is expected", _peek().position), Ex{};
        _advance();
        return inner;
      }
      case Tok::Ident:
        return _identifierPrimary();
      case Tok::End:
        return _fail("an expression is expected at the end of the format", t.position), Ex{};
      default:
        return _fail("an expression is expected, found " + _describe(t), t.position), Ex{};
    }
  }

  Ex _identifierPrimary() {
    const Token& t = _peek();
    if (!t.hashed) {
      if (_keyword(t, "YES") || _keyword(t, "TRUE")) return _advance(), _constant(Value(true));
      if (_keyword(t, "NO") || _keyword(t, "FALSE")) return _advance(), _constant(Value(false));
      if (_keyword(t, "NULL") || _keyword(t, "NIL")) return _advance(), _constant(Value());
      if (_keyword(t, "SELF")) return _advance(), Ex{NSExpression::expressionForEvaluatedObject(), 1};
      if (_keyword(t, "SUBQUERY")) return _subquery();
      if (_keyword(t, "CAST")) return _cast();
      if (_keyword(t, "FUNCTION") && _peek(1).kind == Tok::LParen) return _selectorFunction();
      if (_peek(1).kind == Tok::LParen || (_peek(1).kind == Tok::Colon && _peek(2).kind == Tok::LParen))
        return _function();
      if (ZBPredicateIsReservedWord(t.text))
        return _fail("reserved word '" + t.text + "' is not valid here (write #" + t.text + " for a key)", t.position), Ex{};
    }
    _advance();
    return Ex{NSExpression::expressionForKeyPath(t.text), 1};
  }

  Ex _function() {
    const Token& name = _advance();
    std::string function = name.text;
    if (_at(Tok::Colon)) {
      _advance();
      function += ':';
    }
    _advance();  // (
    std::vector<Ex> arguments;
    if (!_list(Tok::RParen, arguments)) return {};
    // A bare name calls the function of that name, or else the one-argument
    // function spelled with a colon: min(x) is min:(x).
    if (function.back() != ':' && ZBPredicateFunctionArity(function) < 0 &&
        ZBPredicateFunctionArity(function + ':') == 1)
      function += ':';
    int arity = ZBPredicateFunctionArity(function);
    if (arity < 0 || function == "castObject:toType:" || function == "objectFrom:withIndex:" || function.find(':') != function.rfind(':'))
      return _fail("unknown function '" + function + "'", name.position), Ex{};
    if (arity != static_cast<int>(arguments.size()))
      return _fail("function '" + function + "' takes " + std::to_string(arity) + " argument(s)", name.position), Ex{};
    int depth = _maxDepth(arguments) + 1;
    if (!_checkDepth(depth)) return {};
    std::vector<NSExpressionPtr> expressions;
    for (Ex& a : arguments) expressions.push_back(std::move(a.e));
    return Ex{NSExpression::expressionForFunction(function, std::move(expressions)), depth};
  }

  // FUNCTION(receiver, "selector", arguments…): the selector sent to the
  // receiver's value.
  Ex _selectorFunction() {
    std::size_t position = _advance().position;
    _advance();  // (
    std::vector<Ex> items;
    if (!_list(Tok::RParen, items)) return {};
    bool valid = items.size() >= 2 && items[1].e->expressionType() == NSExpressionType::ConstantValue &&
                 items[1].e->constantValue().isString() && !items[1].e->constantValue().asString().empty();
    if (!valid) return _fail("FUNCTION takes a receiver, a selector string and its arguments", position), Ex{};
    int depth = _maxDepth(items) + 1;
    if (!_checkDepth(depth)) return {};
    std::vector<NSExpressionPtr> arguments;
    for (std::size_t i = 2; i < items.size(); ++i) arguments.push_back(std::move(items[i].e));
    const std::string& selector = items[1].e->constantValue().asString();
    return Ex{NSExpression::expressionForFunction(items[0].e, selector, std::move(arguments)), depth};
  }

  Ex _cast() {
    std::size_t position = _advance().position;
    if (!_at(Tok::LParen)) return _fail("'(' is expected after CAST", _peek().position), Ex{};
    _advance();
    std::vector<Ex> arguments;
    if (!_list(Tok::RParen, arguments)) return {};
    if (arguments.size() != 2) return _fail("CAST takes a value and a type name", position), Ex{};
    const NSExpressionPtr& value = arguments[0].e;
    const NSExpressionPtr& type = arguments[1].e;
    // Constants are converted now, so a date prints back as the same CAST.
    if (value->expressionType() == NSExpressionType::ConstantValue &&
        type->expressionType() == NSExpressionType::ConstantValue && type->constantValue().isString()) {
      const std::string& name = type->constantValue().asString();
      const Value& v = value->constantValue();
      bool fold = (name == "NSDate" && v.isNumber()) || (name == "NSData" && v.isString()) ||
                  (name == "NSNumber" && v.isString());
      if (fold) {
        auto cast = ZBPredicateCast(v, name);
        if (!cast) return _fail("can’t cast " + v.description() + " to " + name, position), Ex{};
        return _constant(std::move(*cast));
      }
    }
    int depth = std::max(arguments[0].depth, arguments[1].depth) + 1;
    if (!_checkDepth(depth)) return {};
    return Ex{NSExpression::expressionForFunction("castObject:toType:", {value, type}), depth};
  }

  Ex _subquery() {
    _advance();
    if (!_at(Tok::LParen)) return _fail("'(' is expected after SUBQUERY", _peek().position), Ex{};
    _advance();
    Ex collection = _expression({});
    if (!collection) return {};
    if (!_at(Tok::Comma)) return _fail("',' is expected in SUBQUERY", _peek().position), Ex{};
    _advance();
    if (!_at(Tok::Variable)) return _fail("SUBQUERY needs a $variable as its second argument", _peek().position), Ex{};
    std::string variable = _advance().text;
    if (!_at(Tok::Comma)) return _fail("',' is expected in SUBQUERY", _peek().position), Ex{};
    _advance();
    Item predicate = _or(false);
    if (!predicate.ok()) return {};
    if (!_at(Tok::RParen)) return _fail("')' is expected to close SUBQUERY", _peek().position), Ex{};
    _advance();
    int depth = std::max(collection.depth, predicate.depth) + 1;
    if (!_checkDepth(depth)) return {};
    return Ex{NSExpression::expressionForSubquery(collection.e, variable, predicate.p), depth};
  }

  std::string_view _format;
  const std::vector<Value>& _arguments;
  std::vector<Token> _tokens;
  std::size_t _i = 0;
  std::size_t _argumentIndex = 0;
  int _recursion = 0;
  std::int64_t _errorCode = 0;
  std::string _reason;
  std::size_t _errorPosition = 0;
};

}  // namespace

NSPredicatePtr ZBParsePredicateFormat(std::string_view format, const std::vector<Value>& arguments,
                                      NSErrorPtr* error) {
  return Parser(format, arguments).parsePredicate(error);
}

NSExpressionPtr ZBParseExpressionFormat(std::string_view format, const std::vector<Value>& arguments,
                                        NSErrorPtr* error) {
  return Parser(format, arguments).parseExpression(error);
}
