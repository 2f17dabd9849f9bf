// Fuzz target: the settings decoder. A decoded config saves and reads back as the same config.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/model/AppConfig.h"
#include "fuzz/Check.h"

using namespace kestrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto json = JsonText::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!json) return 0;
  AppConfig config;
  try {
    config = appConfigFromJson(*json);
  } catch (const DecodeError&) {
    return 0;
  }
  const auto written = JsonText::parse(JsonText::pretty(toJson(config)));
  FUZZ_CHECK(written);
  FUZZ_CHECK(appConfigFromJson(*written) == config);
  return 0;
}
