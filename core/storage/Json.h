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

// Parses text; nothing on any syntax error, invalid UTF-8 or nesting deeper than 512 levels.
std::optional<Json> parse(std::string_view text);

}  // namespace JsonText

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
