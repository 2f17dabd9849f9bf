// JSON text writer and the guarded parser shared by every store and record.
#include "core/storage/Json.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <cmath>
#include <cstdio>
#include <optional>

namespace kestrel::JsonText {
namespace {

constexpr int kMaxDepth = 512;

void appendString(std::string& out, const std::string& s) {
  out += '"';
  for (unsigned char c : s) {
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
  // Reject hostile nesting before the recursive parser sees it.
  int depth = 0;
  bool inString = false, escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped) escaped = false;
      else if (c == '\\') escaped = true;
      else if (c == '"') inString = false;
      continue;
    }
    if (c == '"') inString = true;
    else if (c == '[' || c == '{') { if (++depth > kMaxDepth) return std::nullopt; }
    else if (c == ']' || c == '}') --depth;
  }
  try {
    return Json::parse(text.begin(), text.end());
  } catch (const Json::exception&) {
    return std::nullopt;
  }
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
