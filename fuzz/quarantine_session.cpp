// Fuzz target: the quarantine manifest decoder. A decoded session saves and reads back the same.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/clean/Quarantine.h"
#include "fuzz/Check.h"

using namespace kestrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto json = JsonText::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!json) return 0;
  QuarantineSession session;
  try {
    session = quarantineSessionFromJson(*json);
  } catch (const DecodeError&) {
    return 0;
  }
  const auto written = JsonText::parse(JsonText::pretty(toJson(session)));
  FUZZ_CHECK(written);
  FUZZ_CHECK(quarantineSessionFromJson(*written) == session);
  return 0;
}
