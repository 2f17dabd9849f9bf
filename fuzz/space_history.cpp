// Fuzz target: the free-space history decoder. Decoded samples save and read back the same.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/insights/SpaceHistory.h"
#include "fuzz/Check.h"

using namespace kestrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto json = JsonText::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!json) return 0;
  std::vector<SpaceSample> samples;
  try {
    samples = spaceSamplesFromJson(*json);
  } catch (const DecodeError&) {
    return 0;
  }
  Json out = Json::array();
  for (const auto& s : samples) out.push_back(toJson(s));
  const auto written = JsonText::parse(JsonText::pretty(out));
  FUZZ_CHECK(written);
  FUZZ_CHECK(spaceSamplesFromJson(*written) == samples);
  // The forecast must cope with whatever history a file can hold.
  if (!samples.empty()) SpaceHistory::forecast(samples, samples.back().date);
  return 0;
}
