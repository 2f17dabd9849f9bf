// Fuzz target: ISO 8601 date text. A parsed date prints as text that parses to the same date.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/base/Dates.h"
#include "fuzz/Check.h"

using namespace kestrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto date =
      Dates::parseISO8601(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!date) return 0;
  const auto again = Dates::parseISO8601(Dates::iso8601(*date));
  FUZZ_CHECK(again && *again == *date);
  return 0;
}
