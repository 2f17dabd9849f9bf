// Fuzz target: JsonText::parse. Whatever it accepts writes back as UTF-8 and parses to the same
// value; whatever the library parser it replaced accepts (within our nesting limit), it accepts
// alike.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/base/Json.h"
#include "core/base/Text.h"
#include "fuzz/Check.h"

using namespace kestrel;

namespace {

// Deepest bracket nesting outside strings.
int nesting(std::string_view text) {
  int depth = 0, deepest = 0;
  bool inString = false, escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped)
        escaped = false;
      else if (c == '\\')
        escaped = true;
      else if (c == '"')
        inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      deepest = std::max(deepest, ++depth);
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return deepest;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto value = JsonText::parse(text);
  if (value) {
    for (const std::string& written : {JsonText::compact(*value), JsonText::pretty(*value)}) {
      FUZZ_CHECK(Utf8::isValid(written));
      const auto again = JsonText::parse(written);
      FUZZ_CHECK(again && *again == *value);
    }
  }
  // The library parser stops at a NUL byte as if the text ended there; ours reads to the end.
  const std::string_view prefix = text.substr(0, text.find('\0'));
  const Json reference = Json::parse(prefix.begin(), prefix.end(), nullptr, false);
  if (!reference.is_discarded() && nesting(prefix) <= 512) {
    const auto ours = prefix.size() == text.size() ? value : JsonText::parse(prefix);
    FUZZ_CHECK(ours && *ours == reference);
  }
  return 0;
}
