// JSON text writer and the guarded parser shared by every store and record.
#include "core/base/Json.h"

#include "core/base/Text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>

namespace kestrel::JsonText {
namespace {

constexpr int kMaxDepth = 512;

// Text that is well-formed UTF-8 is written as it is; every other byte becomes \udcXX. A lone
// low surrogate never stands for real text, so names that are only bytes round-trip losslessly.
void appendString(std::string& out, const std::string& s) {
  out += '"';
  for (size_t i = 0; i < s.size();) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (c >= 0x80) {
      const Utf8::Sequence q = Utf8::sequenceAt(s, i);
      if (q.valid) {
        out.append(s, i, q.length);
        i += q.length;
      } else {
        static constexpr char kHex[] = "0123456789abcdef";
        out += "\\udc";
        out += kHex[c >> 4];
        out += kHex[c & 0xF];
        ++i;
      }
      continue;
    }
    ++i;
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '/': out += "\\/"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
}

template <class J>
void write(std::string& out, const J& v, bool prettyForm, int depth) {
  const auto indent = [&](int d) { out.append(static_cast<size_t>(d) * 2, ' '); };
  switch (v.type()) {
    case nlohmann::detail::value_t::null: out += "null"; return;
    case nlohmann::detail::value_t::boolean: out += v.template get<bool>() ? "true" : "false"; return;
    case nlohmann::detail::value_t::number_integer:
      out += std::to_string(v.template get<int64_t>());
      return;
    case nlohmann::detail::value_t::number_unsigned:
      out += std::to_string(v.template get<uint64_t>());
      return;
    case nlohmann::detail::value_t::number_float: out += number(v.template get<double>()); return;
    case nlohmann::detail::value_t::string: appendString(out, v.template get_ref<const std::string&>()); return;
    case nlohmann::detail::value_t::binary: out += "null"; return;
    case nlohmann::detail::value_t::discarded: return;
    case nlohmann::detail::value_t::array: {
      out += '[';
      if (v.empty()) {
        if (prettyForm) { out += "\n\n"; indent(depth); }
        out += ']';
        return;
      }
      bool first = true;
      for (const auto& e : v) {
        if (!first) out += ',';
        first = false;
        if (prettyForm) { out += '\n'; indent(depth + 1); }
        write(out, e, prettyForm, depth + 1);
      }
      if (prettyForm) { out += '\n'; indent(depth); }
      out += ']';
      return;
    }
    case nlohmann::detail::value_t::object: {
      out += '{';
      if (v.empty()) {
        if (prettyForm) { out += "\n\n"; indent(depth); }
        out += '}';
        return;
      }
      bool first = true;
      for (auto it = v.begin(); it != v.end(); ++it) {
        if (!first) out += ',';
        first = false;
        if (prettyForm) { out += '\n'; indent(depth + 1); }
        appendString(out, it.key());
        out += prettyForm ? " : " : ":";
        write(out, it.value(), prettyForm, depth + 1);
      }
      if (prettyForm) { out += '\n'; indent(depth); }
      out += '}';
      return;
    }
  }
}

// RFC 8259, read straight into Json. Two departures, both so that names survive: bytes that are
// not UTF-8 are kept as they stand (earlier versions wrote names raw), and \udc80..\udcff, which
// no text can produce, stand for such a byte. Any other lone surrogate is an error.
class Parser {
 public:
  explicit Parser(std::string_view text) : p_(text.data()), end_(text.data() + text.size()) {}

  bool document(Json& out) {
    // Editors may start a hand-edited settings file with a byte-order mark.
    if (end_ - p_ >= 3 && std::memcmp(p_, "\xEF\xBB\xBF", 3) == 0) p_ += 3;
    ws();
    if (!value(out, 0)) return false;
    ws();
    return p_ == end_;
  }

 private:
  static constexpr std::array<bool, 256> kStringStop = [] {
    std::array<bool, 256> t{};
    for (int c = 0; c < 0x20; ++c) t[static_cast<size_t>(c)] = true;
    t['"'] = t['\\'] = true;
    return t;
  }();

  static bool isDigit(char c) { return c >= '0' && c <= '9'; }
  bool at(char c) const { return p_ != end_ && *p_ == c; }
  void ws() {
    while (p_ != end_ && (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) ++p_;
  }
  bool literal(std::string_view word) {
    if (static_cast<size_t>(end_ - p_) < word.size() ||
        std::memcmp(p_, word.data(), word.size()) != 0)
      return false;
    p_ += word.size();
    return true;
  }

  bool value(Json& out, int depth) {
    if (p_ == end_) return false;
    switch (*p_) {
      case '{': return object(out, depth + 1);
      case '[': return array(out, depth + 1);
      case '"': {
        std::string s;
        if (!string(s)) return false;
        out = std::move(s);
        return true;
      }
      case 't':
        if (!literal("true")) return false;
        out = true;
        return true;
      case 'f':
        if (!literal("false")) return false;
        out = false;
        return true;
      case 'n':
        if (!literal("null")) return false;
        out = nullptr;
        return true;
      default: return number(out);
    }
  }

  bool array(Json& out, int depth) {
    if (depth > kMaxDepth) return false;
    ++p_;
    out = Json::array();
    auto& items = out.get_ref<Json::array_t&>();
    ws();
    if (at(']')) {
      ++p_;
      return true;
    }
    for (;;) {
      ws();
      items.emplace_back();
      if (!value(items.back(), depth)) return false;
      ws();
      if (at(',')) {
        ++p_;
      } else if (at(']')) {
        ++p_;
        return true;
      } else {
        return false;
      }
    }
  }

  bool object(Json& out, int depth) {
    if (depth > kMaxDepth) return false;
    ++p_;
    out = Json::object();
    auto& members = out.get_ref<Json::object_t&>();
    ws();
    if (at('}')) {
      ++p_;
      return true;
    }
    std::string key;
    for (;;) {
      ws();
      if (!at('"')) return false;
      key.clear();
      if (!string(key)) return false;
      ws();
      if (!at(':')) return false;
      ++p_;
      ws();
      // A repeated key is parsed into the same member again: the last one wins.
      if (!value(members[key], depth)) return false;
      ws();
      if (at(',')) {
        ++p_;
      } else if (at('}')) {
        ++p_;
        return true;
      } else {
        return false;
      }
    }
  }

  bool string(std::string& out) {
    ++p_;  // the opening quote
    for (;;) {
      const char* run = p_;
      while (p_ != end_ && !kStringStop[static_cast<unsigned char>(*p_)]) ++p_;
      out.append(run, p_);
      if (p_ == end_) return false;
      const char c = *p_++;
      if (c == '"') return true;
      if (c != '\\' || p_ == end_) return false;  // a raw control character, or a cut-off escape
      switch (*p_++) {
        case '"': out += '"'; break;
        case '\\': out += '\\'; break;
        case '/': out += '/'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 'u':
          if (!unicodeEscape(out)) return false;
          break;
        default: return false;
      }
    }
  }

  bool hex4(uint32_t& v) {
    if (end_ - p_ < 4) return false;
    v = 0;
    for (int k = 0; k < 4; ++k, ++p_) {
      const char c = *p_;
      uint32_t d;
      if (c >= '0' && c <= '9') d = static_cast<uint32_t>(c - '0');
      else if (c >= 'a' && c <= 'f') d = static_cast<uint32_t>(c - 'a' + 10);
      else if (c >= 'A' && c <= 'F') d = static_cast<uint32_t>(c - 'A' + 10);
      else return false;
      v = v << 4 | d;
    }
    return true;
  }

  bool unicodeEscape(std::string& out) {
    uint32_t cp;
    if (!hex4(cp)) return false;
    if (cp >= 0xD800 && cp <= 0xDBFF) {
      uint32_t low;
      if (end_ - p_ < 2 || p_[0] != '\\' || p_[1] != 'u') return false;
      p_ += 2;
      if (!hex4(low) || low < 0xDC00 || low > 0xDFFF) return false;
      cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
    } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
      if (cp < 0xDC80 || cp > 0xDCFF) return false;
      out += static_cast<char>(cp & 0xFF);  // an escaped byte of a name that is not text
      return true;
    }
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
    return true;
  }

  bool number(Json& out) {
    const char* start = p_;
    const bool negative = at('-');
    if (negative) ++p_;
    if (p_ == end_ || !isDigit(*p_)) return false;
    if (*p_ == '0') {
      ++p_;
      if (p_ != end_ && isDigit(*p_)) return false;  // a leading zero
    } else {
      while (p_ != end_ && isDigit(*p_)) ++p_;
    }
    const char* intEnd = p_;
    bool integral = true;
    if (at('.')) {
      integral = false;
      ++p_;
      if (p_ == end_ || !isDigit(*p_)) return false;
      while (p_ != end_ && isDigit(*p_)) ++p_;
    }
    if (at('e') || at('E')) {
      integral = false;
      ++p_;
      if (at('+') || at('-')) ++p_;
      if (p_ == end_ || !isDigit(*p_)) return false;
      while (p_ != end_ && isDigit(*p_)) ++p_;
    }
    if (integral) {
      uint64_t magnitude = 0;
      bool fits = true;
      for (const char* d = start + (negative ? 1 : 0); d != intEnd && fits; ++d) {
        const auto digit = static_cast<uint64_t>(*d - '0');
        fits = magnitude <= (std::numeric_limits<uint64_t>::max() - digit) / 10;
        magnitude = magnitude * 10 + digit;
      }
      // Unsigned when not negative, as readers expect (the manifest's "dev" and "ino").
      if (fits && !negative) {
        out = magnitude;
        return true;
      }
      constexpr auto kMax = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
      if (fits && magnitude <= kMax + 1) {
        out = magnitude == kMax + 1 ? std::numeric_limits<int64_t>::min()
                                    : -static_cast<int64_t>(magnitude);
        return true;
      }
    }
    double d = 0;
    const auto [ptr, ec] = std::from_chars(start, p_, d);
    if (ec == std::errc::result_out_of_range) {
      // Too small to hold is zero, as the old reader had it; too large is an error.
      if (decimalExponent(start, p_) >= 0) return false;
      out = negative ? -0.0 : 0.0;
      return true;
    }
    if (ec != std::errc() || ptr != p_ || !std::isfinite(d)) return false;
    out = d;
    return true;
  }

  // The power of ten of a well-formed number's first non-zero digit (1234.5 → 3, 0.0012 → -3),
  // the exponent saturated far beyond any double's; -1 for zero.
  static int64_t decimalExponent(const char* s, const char* end) {
    if (*s == '-') ++s;
    const char* mantissaEnd = s;
    while (mantissaEnd != end && *mantissaEnd != 'e' && *mantissaEnd != 'E') ++mantissaEnd;
    const char* point = std::find(s, mantissaEnd, '.');
    const char* first = std::find_if(s, mantissaEnd, [](char c) { return c != '0' && c != '.'; });
    if (first == mantissaEnd) return -1;
    const int64_t lead = first < point ? point - first - 1 : -(first - point);
    int64_t exp = 0;
    if (mantissaEnd != end) {
      const char* e = mantissaEnd + 1;
      const bool minus = *e == '-';
      if (*e == '+' || *e == '-') ++e;
      for (; e != end; ++e) exp = std::min<int64_t>(exp * 10 + (*e - '0'), 1000000000);
      if (minus) exp = -exp;
    }
    return lead + exp;
  }

  const char* p_;
  const char* end_;
};

}  // namespace

std::string pretty(const Json& value) { std::string s; write(s, value, true, 0); return s; }
std::string pretty(const OrderedJson& value) { std::string s; write(s, value, true, 0); return s; }
std::string compact(const Json& value) { std::string s; write(s, value, false, 0); return s; }
std::string compact(const OrderedJson& value) { std::string s; write(s, value, false, 0); return s; }

std::string doubleDescription(double x) {
  if (std::isnan(x)) return "nan";
  if (std::isinf(x)) return x < 0 ? "-inf" : "inf";
  if (x == 0) return std::signbit(x) ? "-0.0" : "0.0";
  // Shortest round-trip digits, then lay them out the way the platform's double printer does.
  char buf[64];
  auto r = std::to_chars(buf, buf + sizeof buf, x, std::chars_format::scientific);
  std::string sci(buf, r.ptr);
  std::string sign;
  if (sci[0] == '-') { sign = "-"; sci.erase(0, 1); }
  const auto e = sci.find('e');
  std::string digits = sci.substr(0, e);
  const int exp10 = std::stoi(sci.substr(e + 1));
  digits.erase(std::remove(digits.begin(), digits.end(), '.'), digits.end());
  const double ax = std::fabs(x);
  if (exp10 < -4 || ax > 9007199254740992.0) {
    std::string out = sign + digits.substr(0, 1);
    if (digits.size() > 1) out += "." + digits.substr(1);
    char eb[16];
    std::snprintf(eb, sizeof eb, "e%c%02d", exp10 < 0 ? '-' : '+', std::abs(exp10));
    return out + eb;
  }
  std::string out;
  if (exp10 < 0) {
    out = "0." + std::string(static_cast<size_t>(-exp10 - 1), '0') + digits;
  } else if (static_cast<int>(digits.size()) <= exp10 + 1) {
    out = digits + std::string(static_cast<size_t>(exp10 + 1 - static_cast<int>(digits.size())), '0') + ".0";
  } else {
    out = digits.substr(0, static_cast<size_t>(exp10 + 1)) + "." + digits.substr(static_cast<size_t>(exp10 + 1));
  }
  return sign + out;
}

std::string number(double x) {
  std::string s = doubleDescription(x);
  if (s.size() > 2 && s.compare(s.size() - 2, 2, ".0") == 0) s.resize(s.size() - 2);
  return s;
}

std::optional<Json> parse(std::string_view text) {
  Json out;
  if (!Parser(text).document(out)) return std::nullopt;
  return out;
}

}  // namespace kestrel::JsonText

namespace kestrel::JsonDecode {

const Json& object(const Json& j, std::string_view what) {
  if (!j.is_object()) throw DecodeError("Expected an object for " + std::string(what));
  return j;
}

bool has(const Json& obj, const char* key) {
  auto it = obj.find(key);
  return it != obj.end() && !it->is_null();
}

static const Json& require(const Json& obj, const char* key) {
  if (!obj.is_object()) throw DecodeError("Expected an object holding " + std::string(key));
  auto it = obj.find(key);
  if (it == obj.end()) throw DecodeError("No value for key " + std::string(key));
  if (it->is_null()) throw DecodeError("Null value for key " + std::string(key));
  return *it;
}

std::string string(const Json& obj, const char* key) {
  const Json& v = require(obj, key);
  if (!v.is_string()) throw DecodeError("Expected a string for " + std::string(key));
  return v.get<std::string>();
}

int64_t int64(const Json& v) {
  if (v.is_number_integer() && !v.is_number_unsigned()) return v.get<int64_t>();
  if (v.is_number_unsigned()) {
    const uint64_t u = v.get<uint64_t>();
    if (u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) throw DecodeError("Integer out of range");
    return static_cast<int64_t>(u);
  }
  if (v.is_number_float()) {
    const double d = v.get<double>();
    // Exact integral values within range only, as the platform decoder does.
    if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0) || d != static_cast<double>(static_cast<int64_t>(d)))
      throw DecodeError("Number is not representable as an integer");
    return static_cast<int64_t>(d);
  }
  throw DecodeError("Expected an integer");
}

int64_t int64(const Json& obj, const char* key) {
  try {
    return int64(require(obj, key));
  } catch (const DecodeError& e) {
    throw DecodeError(std::string(e.what()) + " (" + key + ")");
  }
}

double number(const Json& obj, const char* key) {
  const Json& v = require(obj, key);
  if (!v.is_number()) throw DecodeError("Expected a number for " + std::string(key));
  return v.get<double>();
}

bool boolean(const Json& obj, const char* key) {
  const Json& v = require(obj, key);
  if (!v.is_boolean()) throw DecodeError("Expected a bool for " + std::string(key));
  return v.get<bool>();
}

std::optional<std::string> optString(const Json& obj, const char* key) {
  if (!has(obj, key)) return std::nullopt;
  return string(obj, key);
}
std::optional<int64_t> optInt64(const Json& obj, const char* key) {
  if (!has(obj, key)) return std::nullopt;
  return int64(obj, key);
}
std::optional<double> optNumber(const Json& obj, const char* key) {
  if (!has(obj, key)) return std::nullopt;
  return number(obj, key);
}
std::optional<bool> optBoolean(const Json& obj, const char* key) {
  if (!has(obj, key)) return std::nullopt;
  return boolean(obj, key);
}

std::vector<std::string> stringArray(const Json& obj, const char* key) {
  const Json& v = require(obj, key);
  if (!v.is_array()) throw DecodeError("Expected an array for " + std::string(key));
  std::vector<std::string> out;
  out.reserve(v.size());
  for (const auto& e : v) {
    if (!e.is_string()) throw DecodeError("Expected strings in " + std::string(key));
    out.push_back(e.get<std::string>());
  }
  return out;
}

std::pair<std::string, const Json*> oneCase(const Json& j, std::initializer_list<std::string_view> cases) {
  if (!j.is_object()) throw DecodeError("Expected an object for an enumeration");
  const Json* payload = nullptr;
  std::string name;
  int found = 0;
  for (auto c : cases) {
    auto it = j.find(std::string(c));
    if (it != j.end()) {
      ++found;
      name = std::string(c);
      payload = &*it;
    }
  }
  if (found != 1) throw DecodeError("Invalid number of keys found, expected one.");
  if (!payload->is_object()) throw DecodeError("Expected an object for case " + name);
  return {name, payload};
}

}  // namespace kestrel::JsonDecode
