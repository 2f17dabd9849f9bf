// JSON text in the platform's exact layout: pretty `"key" : value`, `\/`, raw UTF-8, numbers as the platform prints them.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrel {

using Json = nlohmann::json;                 // objects keep keys sorted by UTF-8 bytes
using OrderedJson = nlohmann::ordered_json;  // objects keep insertion (declaration) order

namespace JsonText {

// Strings (keys too) are written as raw UTF-8, except that each byte that is not part of
// well-formed UTF-8 becomes \udcXX (XX its lower-case hex): the output is always UTF-8 and
// `parse` gives back the exact bytes.
// Pretty form: 2-space indents, one member per line, `"key" : value`, a blank line inside
// empty containers, no trailing newline.
std::string pretty(const Json& value);
std::string pretty(const OrderedJson& value);
// Compact form for JSON-lines records: no spaces at all.
std::string compact(const Json& value);
std::string compact(const OrderedJson& value);

// The shortest round-trip text of a double as the platform's encoder writes it
// (exponent form below 1e-4 or above 2^53, otherwise plain; no trailing ".0").
std::string number(double value);
// The same digits with the trailing ".0" kept, as text interpolation prints a double.
std::string doubleDescription(double value);

// Parses text (RFC 8259); nothing on any syntax error or nesting deeper than 512 levels. The
// escapes \udc80..\udcff give back the byte they stand for and bytes that are not UTF-8 are kept
// as they are (older files hold names raw); any other lone surrogate is an error. Integers that
// fit become uint64 (not negative) or int64 (negative), other numbers double; a repeated key keeps
// its last value.
std::optional<Json> parse(std::string_view text);

}  // namespace JsonText

// A JSON array of the records' own JSON forms (their `toJson`), in order.
template <class T>
Json toJsonArray(const std::vector<T>& records) {
  Json out = Json::array();
  for (const auto& r : records) out.push_back(toJson(r));
  return out;
}

// A value that does not have the shape a record needs; what() says where.
class DecodeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Strict readers over parsed JSON, in the decoder's rules: a wrong type throws DecodeError;
// `opt*` treat a missing key or null as nothing.
namespace JsonDecode {
const Json& object(const Json& j, std::string_view what);
bool has(const Json& obj, const char* key);  // present and not null
std::string string(const Json& obj, const char* key);
int64_t int64(const Json& obj, const char* key);  // integral numbers only (10.0 is 10; 10.5 fails)
int64_t int64(const Json& value);
double number(const Json& obj, const char* key);
bool boolean(const Json& obj, const char* key);
std::optional<std::string> optString(const Json& obj, const char* key);
std::optional<int64_t> optInt64(const Json& obj, const char* key);
std::optional<double> optNumber(const Json& obj, const char* key);
std::optional<bool> optBoolean(const Json& obj, const char* key);
std::vector<std::string> stringArray(const Json& obj, const char* key);
// An enum-with-payload object: exactly one of `cases` must be present (unknown keys are ignored);
// returns the case name and its payload, which must be an object.
std::pair<std::string, const Json*> oneCase(const Json& j, std::initializer_list<std::string_view> cases);
}  // namespace JsonDecode
}  // namespace kestrel
