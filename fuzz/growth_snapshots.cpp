// Fuzz target: the folder-snapshot decoder. Decoded snapshots save and read back the same.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/insights/GrowthTracker.h"
#include "fuzz/Check.h"

using namespace kestrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto json = JsonText::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!json) return 0;
  std::vector<FolderSnapshot> snapshots;
  try {
    snapshots = folderSnapshotsFromJson(*json);
  } catch (const DecodeError&) {
    return 0;
  }
  Json out = Json::array();
  for (const auto& s : snapshots) out.push_back(toJson(s));
  const auto written = JsonText::parse(JsonText::pretty(out));
  FUZZ_CHECK(written);
  FUZZ_CHECK(folderSnapshotsFromJson(*written) == snapshots);
  return 0;
}
