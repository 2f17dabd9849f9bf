// Fuzz target: the rules file decoder. Decoded rules save and read back as the same rules.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/model/ScheduleRule.h"
#include "fuzz/Check.h"

using namespace kestrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto json = JsonText::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!json) return 0;
  std::vector<ScheduleRule> rules;
  try {
    rules = scheduleRulesFromJson(*json);
  } catch (const DecodeError&) {
    return 0;
  }
  const auto written = JsonText::parse(JsonText::pretty(toJson(rules)));
  FUZZ_CHECK(written);
  FUZZ_CHECK(scheduleRulesFromJson(*written) == rules);
  return 0;
}
